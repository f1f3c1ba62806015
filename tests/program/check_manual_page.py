#!/usr/bin/env python3
"""Compares corpdir(1) with the program that it describes.

- SYNOPSIS has each command. OPTIONS has each option of each command once, with its value, the commands
  that take it and whether it is required, and none that the program does not have.
- JSON OUTPUT names each member that the program prints, and no other.
- Exit statuses are those of the help, codes those of the FTP layer, variables those of the sources.
- mandoc and man find nothing to warn of.

Usage: check_manual_page.py PROGRAM SOURCE_DIR. Exit status 0, or 1 with one line for each difference.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

from closed_port import closed_port, run, watch_until
from corpdir_help import Option, commands, help_of, listed_options, options


def compare(what, page, program):
    """One line for each difference of two sets, or of two dictionaries."""
    if isinstance(page, dict):
        page, program = set(page.items()), set(program.items())
    for missing in sorted(program - page, key=str):
        yield "%s: the page lacks %s" % (what, missing)
    for beyond in sorted(page - program, key=str):
        yield "%s: only the page has %s" % (what, beyond)


def section(page, macro, title):
    """The text under a heading."""
    parts = re.split(r"^\.%s %s\n" % (macro, re.escape(title)), page, flags=re.M)
    if len(parts) != 2:
        raise SystemExit("the page has %d headings '%s'" % (len(parts) - 1, title))
    return re.split(r"^\.S%s " % ("h" if macro == "Sh" else "[hs]"), parts[1], flags=re.M)[0]


def named_options(sentence):
    return {"-" + name for name in re.findall(r"(?<=[ ,])-[a-z-]+", sentence)}


def described_options(page):
    """{command: {"--name": Option}} of those that OPTIONS describes, and the names of all."""
    text = section(page, "Sh", "OPTIONS")
    request, rest = text.split("are required", 1)
    required = named_options(request.split("\n.Sq = .\n")[1])
    own = {name: named_options(re.search(r"^\.Cm %s\ntakes\n(.*?)only" % name, rest, re.M | re.S).group(1))
           for name in ("status", "ciphers")}
    required_by_status = named_options(re.search(r"^only, and requires\n(.*?)\.$", rest, re.M | re.S).group(1))
    exempt = set(re.findall(r"^\.Cm (\w+)\nneeds no\n\.Fl -output-dir \.$", text, re.M))
    found = {name: {} for name in ("fetch", "watch", "check", "status", "ciphers")}
    names = []
    for name, value, marked in re.findall(r"^\.It Fl (?:\w , )?(-[a-z-]+)( Ar)?.*\n(?:\.Pq Cm (.+)\n)?", text, re.M):
        names.append("-" + name)
        takers = marked.split(" , ") if marked else ["fetch", "watch", "check"]
        for command in dict.fromkeys(takers + [name for name in own if names[-1] in own[name]]):
            needed = names[-1] in (required_by_status if command == "status" else required)
            needed = needed and not (names[-1] == "--output-dir" and command in exempt)
            found[command][names[-1]] = Option(bool(value), needed)
    return found, names


def check_options(page, program):
    names = commands(program)
    synopsis = " ".join(re.findall(r"^\.Cm (.+)$", section(page, "Sh", "SYNOPSIS"), re.M))
    yield from compare("SYNOPSIS", set(re.findall(r"\w+", synopsis)), set(names))
    described, items = described_options(page)
    general = set(listed_options(program))
    every = set(general)
    for name in names:
        known = options(program, name)
        every |= set(known)
        taken = {option: how for option, how in described.get(name, {}).items()
                 if option in known or option not in general}
        yield from compare("OPTIONS of " + name, taken, known)
    yield from compare("OPTIONS", set(items), every)
    yield from ("OPTIONS: %s twice" % item for item in sorted(set(items)) if items.count(item) > 1)


def members(value):
    """The names of all members, those of members included."""
    if isinstance(value, list):
        return set().union(*(members(element) for element in value))
    if isinstance(value, dict):
        return set(value).union(*(members(element) for element in value.values()))
    return set()


def named_members(text):
    lines = re.findall(r"^\.(?:It )?Va (.+)$", text, re.M)
    return {name for line in lines for name in re.findall(r"\w+", line)}


def events_of_sources(root):
    """{event: members} as watch_output.cpp writes them."""
    found = {}
    text = (root / "tools/corpdir/ui/watch_output.cpp").read_text()
    for body in re.findall(r"^void WatchOutput::\w+\(.*?^}", text, re.M | re.S):
        event = re.search(r'\bWrite\([^,]+,[^,]+, "(\w+)"', body)
        if event:
            names = set(re.findall(r'(?:\{|fields\[)"(\w+)"', body))
            found[event.group(1)] = names | ({"server", "name"} if "FieldsOf(" in body else set())
    return found


def check_json(page, program, root):
    with closed_port() as port, tempfile.TemporaryDirectory() as folder:
        (pathlib.Path(folder) / "password").write_text("secret")
        request = ["--servers", "127.0.0.1", "--port", str(port), "--user", "u", "--password-file",
                   folder + "/password", "--version-file", "version.txt", "--directory-file",
                   "directory.csv", "--output-dir", folder, "--json"]
        printed = {"Object of fetch": run(program, "fetch", *request).stdout,
                   "Object of check": run(program, "check", *request).stdout,
                   "Object of status": run(program, "status", "--json", "--output-dir", folder,
                                           "--directory-name", "directory.csv").stdout,
                   "Array of ciphers": run(program, "ciphers", "--json").stdout}
        lines, status = watch_until('"waiting"', program, "watch", *request)
    common = named_members(section(page, "Ss", "Objects of fetch and check"))
    for title, text in printed.items():
        named = named_members(section(page, "Ss", title)) | (common if "check" in title or "fetch" in title else set())
        yield from compare(title, named, members(json.loads(text)))
    if status != 0:
        yield "watch ended with status %d" % status
    intro, *items = section(page, "Ss", "Events of watch").split(".It Li ")
    described = {item.split("\n")[0]: named_members(item) for item in items}
    known = events_of_sources(root)
    yield from compare("Events of watch", set(described), set(known))
    for event in set(described) & set(known):
        yield from compare("event " + event, described[event], known[event])
    common = named_members(intro) - {"server", "name"}
    seen = [json.loads(line) for line in lines.splitlines()]
    for event in seen:
        yield from compare("event %s as printed" % event["event"], described[event["event"]] | common,
                           set(event))
    if not {"checking", "failed", "waiting", "stopped"} <= {event["event"] for event in seen}:
        yield "the watch printed too little:\n" + lines


def check_numbers(page, program, root):
    statuses = re.split(r"\n\.Cm (?:watch|status) :\n", section(page, "Sh", "EXIT STATUS"))
    for name, text in zip(("fetch", "watch", "status"), statuses):
        listed = help_of(program, name).split("Exit status:\n")[1]
        yield from compare("exit statuses of " + name,
                           set(re.findall(r"^\.It (.+)$", text, re.M)),
                           set(re.findall(r"^  (\d+(?: \+ N)?)  ", listed, re.M)))
    header = (root / "platform/include/travex_ftp.h").read_text()
    codes = {int(code) for code in re.findall(r"TRAVEX_FTP_(?:OK|ERR_\w+) = (\d+)", header)}
    described = set()
    for first, last in re.findall(r"^\.It (\d+)(?: to (\d+))?$", section(page, "Ss", "Codes"), re.M):
        described |= set(range(int(first), int(last or first) + 1))
    yield from compare("codes", described, codes)


def check_variables(page, root):
    sources = "".join(path.read_text() for folder in ("tools/corpdir", "platform/travex_ftp")
                      for path in sorted((root / folder).rglob("*.cpp")))
    known = set(re.findall(r'"(CORPDIR_[A-Z_]+|NO_COLOR|TERM)"', sources))
    named = set(re.findall(r"\b[A-Z_]{4,}\b", " ".join(re.findall(r"^\.It Ev (.+)$", page, re.M))))
    yield from ("ENVIRONMENT: no source has %s" % name for name in sorted(named - known))
    # Limits that no user needs are left out.
    yield from ("ENVIRONMENT: the page lacks %s" % name
                for name in sorted(known - named) if not name.startswith("CORPDIR_FTP_"))


def check_layout(path):
    environment = {**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80"}
    for call in (["mandoc", "-T", "lint", "-W", "warning", path],
                 ["man", "--warnings", "-E", "UTF-8", "-Tutf8", "-Z", "-l", path]):
        result = subprocess.run(call, capture_output=True, text=True, timeout=60, env=environment)
        said = result.stderr + (result.stdout if call[0] == "mandoc" else "")
        if result.returncode != 0 or said or (call[0] == "man" and not result.stdout):
            yield "%s: status %d\n%s" % (" ".join(call), result.returncode, said)


def main():
    program, root = sys.argv[1], pathlib.Path(sys.argv[2])
    path = root / "tools/corpdir/corpdir.1"
    page = path.read_text()
    wrong = [*check_options(page, program), *check_json(page, program, root),
             *check_numbers(page, program, root), *check_variables(page, root), *check_layout(str(path))]
    for line in wrong:
        print(line)
    print("%d differences" % len(wrong))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
