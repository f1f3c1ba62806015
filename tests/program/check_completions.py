#!/usr/bin/env python3
"""Runs the completion files in their real shells and compares what they offer with the program's help.

Usage: check_completions.py bash|bash-completion|zsh|fish PROGRAM COMPLETIONS_DIR

"bash" is bash alone; "bash-completion" lets the package of that name find and load the file.
Exit status 0, or 1 with one line for each difference.
"""

import json
import os
import pathlib
import pty
import select
import shutil
import subprocess
import sys
import tempfile
import time

from corpdir_help import commands, listed_options, options

PATIENCE = 120  # seconds for a shell; under a sanitizer the program itself takes its time

SETS = {"compatible", "modern", "service"}  # of cipher suites

END = "\x1e"  # follows the completions of each line

# The words of a line are split as bash does it, at blanks and around "=".
BASH = r"""
while IFS= read -r line; do
    words=${line//=/ = }
    read -ra COMP_WORDS <<< "$words"
    [[ $words == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    $function corpdir "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" $'\x1e'
done < "$LINES_FILE"
"""

BASH_ALONE = 'set -u; source "$COMPLETIONS/corpdir.bash"\n'

BASH_PACKAGE = """
source /usr/share/bash-completion/bash_completion
_completion_loader corpdir
"""

FUNCTION = """
found=$(complete -p corpdir) || exit
[[ $found =~ -F\\ ([^ ]+) ]] || exit
function=${BASH_REMATCH[1]}
"""

FISH = r"""
set fish_complete_path $COMPLETIONS
while read -l line
    complete -C "$line" | string split -f 1 \t
    echo \x1e
end < $LINES_FILE
"""

# Records what is added to the list of matches.
ZSH = r"""
fpath=($COMPLETIONS $fpath)
autoload -Uz compinit && compinit -u -D
compadd() {
    local -a found
    if [[ ${@[1,(i)(-|--)]} != *-(O|A|D)\ * ]]; then
        builtin compadd -A found "$@"
        print -rlu $results -- $found
    fi
    builtin compadd "$@"
}
zle -C offer complete-word offer
offer() { _main_complete; compstate[insert]=''; compstate[list]='' }
zle -N zle-line-init
zle-line-init() {
    exec {results}> $RESULTS_FILE
    local line
    for line in ${(f)"$(< $LINES_FILE)"}; do
        BUFFER=$line CURSOR=$#line
        zle offer
        print -ru $results -- $'\x1e'
    done
    BUFFER=exit
    zle accept-line
}
"""


class Shell:
    """Completes lines in a directory of its own."""

    def __init__(self, name, program, completions, folder):
        self.name = name
        self.folder = folder / "work"
        self.home = folder / "home"
        self.lines = folder / "lines"
        self.results = folder / "results"
        self.folder.mkdir()
        self.home.mkdir()
        self.environment = {
            **os.environ, "HOME": str(self.home), "ZDOTDIR": str(self.home), "TERM": "xterm",
            "XDG_CONFIG_HOME": str(self.home), "XDG_DATA_HOME": str(self.home),
            "PATH": "%s:%s" % (pathlib.Path(program).parent, os.environ["PATH"]),
            "COMPLETIONS": str(completions), "LINES_FILE": str(self.lines),
            "RESULTS_FILE": str(self.results)}

    def complete(self, lines):
        """The set of completions for each line."""
        self.lines.write_text("".join(line + "\n" for line in lines))
        text = self.run()
        parts = [set(part.split("\n")) - {""} for part in text.split(END)[:-1]]
        if len(parts) != len(lines):
            raise SystemExit("%s answered %d of %d lines:\n%s" % (self.name, len(parts), len(lines), text))
        return parts

    def run(self):
        if shutil.which(self.name.split("-")[0]) is None:
            raise SystemExit("%s is not installed: run scripts/setup test" % self.name)
        if self.name == "zsh":
            return self.run_on_terminal()
        if self.name == "fish":
            call = ["fish", "--no-config", "-c", FISH]
        else:
            begin = BASH_ALONE
            if self.name == "bash-completion":
                begin = BASH_PACKAGE
                self.install_for_package()
            call = ["bash", "--norc", "-c", begin + FUNCTION + BASH]
        result = subprocess.run(call, cwd=self.folder, env=self.environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, timeout=PATIENCE)
        if result.returncode != 0 or result.stderr:
            raise SystemExit("%s: status %d\n%s" % (self.name, result.returncode, result.stderr))
        return result.stdout

    def install_for_package(self):
        target = self.home / "bash-completion/completions/corpdir"
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(pathlib.Path(self.environment["COMPLETIONS"]) / "corpdir.bash", target)

    def run_on_terminal(self):
        """zsh completes nowhere but in its line editor, which wants a terminal."""
        (self.home / ".zshrc").write_text(ZSH)
        child, terminal = pty.fork()
        if child == 0:
            os.chdir(self.folder)
            os.execvpe("zsh", ["zsh", "-d", "-i"], self.environment)
        shown, deadline = b"", time.monotonic() + PATIENCE
        while select.select([terminal], [], [], max(0, deadline - time.monotonic()))[0]:
            try:
                shown += os.read(terminal, 65536)
            except OSError:  # the other end is closed
                break
        else:
            os.kill(child, 9)
        os.close(terminal)
        _, status = os.waitpid(child, 0)
        if status != 0 or not self.results.exists():
            raise SystemExit("zsh: status %d\n%s" % (status, shown.decode(errors="replace")))
        return self.results.read_text()


def names_of_suites(program):
    result = subprocess.run([program, "ciphers", "--json"], capture_output=True, check=True, timeout=60)
    return {suite[name] for suite in json.loads(result.stdout) for name in ("standard_name", "openssl_name")}


def cases(program):
    """(line, the exact set that is to be offered)"""
    files, folders, suites = {"ca.pem", "pass word"}, {"authorities"}, names_of_suites(program)
    values = {"--log-level": {"0", "1", "2"}, "--ciphers": suites | SETS, "--config": files | folders,
              "--password-file": files | folders, "--output-dir": folders, "--log-dir": folders,
              "--ca": files | folders | {"system"}}
    names, general = commands(program), set(listed_options(program))
    yield "corpdir ", set(names)
    yield "corpdir --config ca.pem ", set(names)
    yield "corpdir --config=ca.pem ", set(names)
    yield "corpdir --config ", files | folders
    yield "corpdir w", {name for name in names if name.startswith("w")}
    yield "corpdir -", general | {"-h", "-V"}
    yield "corpdir --", general
    for name in names:
        known = options(program, name)
        for before in ("", "--config fetch ", "--config=watch "):
            yield "corpdir %s%s --" % (before, name), set(known)
        yield "corpdir %s -" % name, set(known) | {"-h"}
        for option, kind in known.items():
            if option in ("--exec", "--on-failure"):
                yield "corpdir %s %s base6" % (name, option), {"base64"}
                yield "corpdir %s %s=base6" % (name, option), {"base64"}
            elif kind.takes_value:
                yield "corpdir %s %s " % (name, option), values.get(option, set())
                yield "corpdir %s %s=" % (name, option), values.get(option, set())
            elif option != "--help":
                yield "corpdir %s %s --hel" % (name, option), {"--help"}
        if "--ciphers" in known:
            yield "corpdir %s --ciphers TLS_AES_256_GCM_SHA384,AES" % name, {
                suite for suite in suites if suite.startswith("AES")}
            yield "corpdir %s --ca aut" % name, {"authorities"}
            yield "corpdir %s --ca sys" % name, {"system"}


def bare(line, found):
    """Without what a shell repeats of the line: "--option=", the list so far, the "/" of a directory."""
    option = line.rsplit(" ", 1)[-1].split("=")[0] + "="
    texts = {text[len(option):] if text.startswith(option) else text for text in found}
    return {text.rsplit(",", 1)[-1].rstrip("/").replace("\\", "") for text in texts}


def main():
    name = sys.argv[1]
    program, completions = (pathlib.Path(path).resolve() for path in sys.argv[2:4])
    program = str(program)
    wanted = list(cases(program))
    with tempfile.TemporaryDirectory() as folder:
        shell = Shell(name, program, completions, pathlib.Path(folder))
        for file in ("ca.pem", "pass word"):
            (shell.folder / file).touch()
        (shell.folder / "authorities").mkdir()
        offered = shell.complete([line for line, _ in wanted])
    wrong = 0
    for (line, expected), found in zip(wanted, offered):
        found = bare(line, found)
        if found != expected:
            wrong += 1
            print("%s: '%s' lacks %s; has %s beyond" % (name, line, sorted(expected - found) or "nothing",
                                                       sorted(found - expected) or "nothing"))
    print("%s: %d lines completed, %d wrong" % (name, len(wanted), wrong))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
