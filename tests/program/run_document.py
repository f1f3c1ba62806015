#!/usr/bin/env python3
"""Runs the commands of a document and compares their output with what the document shows.

Each ```sh block is a script for bash, run in a scratch folder, one block after the other. It has to
end with status 0; a ```text block right behind it is what it prints, on either output. An HTML
comment before a block changes that; several of these, separated by ",":

    <!-- run: elsewhere FILE -->  not run here: FILE of the source tree, a test or a script, does it
    <!-- run: file PATH -->       no commands: the block, of any kind, is the content of that file
    <!-- run: status N -->        the block ends with that status
    <!-- run: numbers -->         numbers, and the blanks that line them up, differ from run to run

A document may take for granted what this program puts into the scratch folder:

    corpdir                       the program, found in PATH; it gets the port of the servers
    ftp1.example.com, ftp2...     FTPS servers with the folder /srv/directory, ftp3... does not answer
    /srv/directory                version.txt, directory.csv
    /srv/new                      another directory.csv
    /etc/corpdir/ca.pem           their authority
    /etc/corpdir/password         that of the user `directory`; standard input gives it, too
    /var/lib/directory            an empty folder

Names are replaced by addresses of loopback and folders by some in the scratch folder; in what is
printed that is undone. A server of the list is shown with the address that it has in a document.

Usage: run_document.py SOURCE_DIR DOCUMENT PROGRAM [--show]. Exit status 0, or 1 with what differs;
--show prints commands and outputs, too.
"""

import argparse
import datetime
import difflib
import pathlib
import re
import subprocess
import sys
import textwrap

from scene import PASSWORD, Scene, environment

# Comment, kind and content of a block; where the block begins in its line.
BLOCK = re.compile(r"(?:^ *<!-- run: (?P<marks>.*?) -->\n+)?^ *```(?P<kind>\w*)\n(?P<text>.*?)^ *```\n",
                   re.M | re.S)
# Commands in a block that is only indented.
INDENTED = re.compile(r"^ {4,}(\./|scripts/|build/|bench/|cmake |ctest |corpdir |git |apt|grep |CORPDIR_\w+=).*", re.M)
MARKS = {"elsewhere", "file", "status", "numbers"}

HOSTS = {"ftp1.example.com": ("127.0.0.1", "192.0.2.1"), "ftp2.example.com": ("127.0.0.2", "192.0.2.2"),
         "ftp3.example.com": ("127.0.0.3", "192.0.2.3")}
FOLDERS = ["/etc/corpdir", "/srv/directory", "/srv/new", "/var/lib/directory"]
LIMIT = 60  # seconds for one block

WRAPPER = """#!/bin/sh
# The program, with the port on which the servers of this test listen.
case " $* " in
    *" --port"* | *" --help "* | *" ciphers "*) exec {program} "$@" ;;
    *" fetch "* | *" watch "* | *" check "*) exec {program} "$@" --port {port} ;;
esac
exec {program} "$@"
"""


def near_dates():
    """A certificate like any other, with some of its time over."""
    now = datetime.datetime.now(datetime.timezone.utc)
    return [(now + datetime.timedelta(days=days)).strftime("%Y%m%d%H%M%SZ") for days in (-10, 90)]


class Block:
    def __init__(self, match, document):
        self.kind = match.group("kind")
        self.text = textwrap.dedent(match.group("text"))
        self.begin, self.end = match.span()
        self.line = document.count("\n", 0, match.start("text"))
        self.marks = {}
        for mark in (match.group("marks") or "").split(",") if match.group("marks") else []:
            name, _, value = mark.strip().partition(" ")
            self.marks[name] = value


class Blocks:
    """Those of a document; wrong: what is not as it should be."""

    def __init__(self, document, source):
        self.document = document
        self.all = [Block(match, document) for match in BLOCK.finditer(document)]
        self.wrong = []
        for block in self.all:
            self.check(block, source)
        for line in INDENTED.findall(BLOCK.sub("", document)):
            self.wrong.append("a command in a block that is only indented: %s..." % line)
        if document.count("<!-- run:") != len([block for block in self.all if block.marks]):
            self.wrong.append("a mark that belongs to no block")

    def check(self, block, source):
        for name in set(block.marks) - MARKS:
            self.wrong.append("line %d: unknown mark '%s'" % (block.line, name))
        named = block.marks.get("elsewhere")
        if named is not None and not (named and (source / named).is_file()):
            self.wrong.append("line %d: no file '%s'" % (block.line, named))
        if block.kind == "text" and not block.marks and self.command_of(block) is None:
            self.wrong.append("line %d: output of no command" % block.line)

    def neighbour(self, first, second):
        return not self.document[first.end:second.begin].strip()

    def command_of(self, text):
        """The commands that a text block is the output of."""
        before = [block for block in self.all if block.end <= text.begin]
        found = before[-1] if before else None
        is_command = found and found.kind == "sh" and not found.marks.keys() & {"elsewhere", "file"}
        return found if is_command and self.neighbour(found, text) else None

    def output_of(self, commands):
        """What the document says that they print; None when it says nothing."""
        after = [block for block in self.all if block.begin >= commands.end]
        found = after[0] if after and after[0].kind == "text" and not after[0].marks else None
        return found.text if found and self.neighbour(commands, found) else None


class Place:
    """The scratch folder as the document knows it."""

    def __init__(self, scene, program):
        self.scene = scene
        self.root = scene.folder / "root"
        for folder in FOLDERS:
            (self.root / folder[1:]).mkdir(parents=True)
        scene.write("root/etc/corpdir/ca.pem", scene.authority.read_text())
        scene.write("root/etc/corpdir/password", PASSWORD + "\n")
        scene.write("root/srv/directory/version.txt", "2026-11-21 17:30\n")
        scene.write("root/srv/directory/directory.csv", "number,name,telephone\n" + "".join(
            "%d,Contact %d,+49 30 555 %04d\n" % (number, number, number) for number in range(1, 5001)))
        scene.write("root/srv/new/directory.csv", "number,name,telephone\n")
        certificate = scene.make_certificate("ftp.example.com", "IP:127.0.0.1,IP:127.0.0.2", near_dates())
        served = self.root / "srv/directory"
        self.port = scene.serve(served, certificate)
        scene.serve(served, certificate, "--host", "127.0.0.2", "--port", self.port)
        wrapper = scene.write("bin/corpdir", WRAPPER.format(program=program, port=self.port))
        wrapper.chmod(0o755)
        (scene.folder / "work").mkdir()

    def real(self, text):
        for name, (actual, _) in HOSTS.items():
            text = text.replace(name, actual)
        for folder in FOLDERS:
            text = text.replace(folder, str(self.root) + folder)
        return text

    def shown(self, text):
        for name, (actual, address) in HOSTS.items():
            text = text.replace('"%s"' % actual, '"%s"' % address)
            text = re.sub(r"\b%s\b" % re.escape(actual), "%s (%s)" % (address, name), text)
        # The names of a certificate are not servers of a list.
        text = re.sub(r"^  names .*", lambda row: re.sub(r" \(\S+\)", "", row.group()), text, flags=re.M)
        text = re.sub(r"\bport %d\b" % self.port, "port 21", text)
        return text.replace(str(self.root), "")

    def run(self, script):
        """Status and output."""
        variables = environment()
        variables["PATH"] = "%s:%s" % (self.scene.folder / "bin", variables["PATH"])
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", self.real(script)], env=variables,
                              cwd=self.scene.folder / "work", input=PASSWORD + "\n", text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=LIMIT,
                              check=False, start_new_session=True)
        return done.returncode, self.shown(done.stdout)

    def write(self, path, text):
        if not any(path.startswith(folder + "/") for folder in FOLDERS):
            raise SystemExit("file %s: not in %s" % (path, ", ".join(FOLDERS)))
        self.scene.write("root" + path, self.real(text))


def comparable(text, numbers):
    """As it is compared: a time is T and a number 0, unless it is part of a name or an address."""
    if not numbers:
        return text
    text = re.sub(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", "T", text)
    return re.sub(r" +", " ", re.sub(r"(?<![\w.])\d+(\.\d+)?(?![\w.])", "0", text))


def differences(block, expected, status, output):
    wanted = int(block.marks.get("status", 0))
    if status != wanted:
        yield "line %d: status %d instead of %d; the output:\n%s" % (block.line, status, wanted, output)
        return
    if expected is None:
        return
    numbers = "numbers" in block.marks
    expected, output = comparable(expected, numbers), comparable(output, numbers)
    if expected != output:
        yield "\n".join(["line %d:" % block.line, *difflib.unified_diff(
            expected.splitlines(), output.splitlines(), "the document", "the commands", lineterm="")])


def show(script, output):
    """As a terminal would show it."""
    goes_on = False
    for line in script.splitlines():
        print(("> " if goes_on else "$ ") + line)
        goes_on = line.endswith(("\\", "|"))
    print(output, flush=True)


def run_blocks(blocks, place, shown):
    """Returns how many were run, and what was wrong."""
    count, wrong = 0, []
    for block in blocks.all:
        if "file" in block.marks:
            place.write(block.marks["file"], block.text)
        elif block.kind == "sh" and "elsewhere" not in block.marks:
            count += 1
            status, output = place.run(block.text)
            if shown:
                show(block.text, output)
            wrong += differences(block, blocks.output_of(block), status, output)
    return count, wrong


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("source", type=pathlib.Path)
    parser.add_argument("document", type=pathlib.Path)
    parser.add_argument("program", type=pathlib.Path)
    parser.add_argument("--show", action="store_true")
    arguments = parser.parse_args()
    blocks = Blocks(arguments.document.read_text(), arguments.source)
    count, wrong = 0, []
    if any(block.kind == "sh" and "elsewhere" not in block.marks for block in blocks.all):
        with Scene() as scene:
            count, wrong = run_blocks(blocks, Place(scene, arguments.program.resolve()),
                                      arguments.show)
    for problem in blocks.wrong + wrong:
        print(problem)
    print("%d blocks run" % count)
    return 1 if blocks.wrong or wrong else 0


if __name__ == "__main__":
    sys.exit(main())
