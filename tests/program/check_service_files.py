#!/usr/bin/env python3
"""Starts the program with the example settings and as the example unit does, against a closed port.

Usage: check_service_files.py PROGRAM SOURCE_DIR. Exit status 0, or 1 with one line for each failure.
"""

import configparser
import pathlib
import re
import shlex
import sys
import tempfile

from closed_port import closed_port, run, watch_until

NO_SERVER_LEFT = 3
SETTINGS = "/etc/corpdir/corpdir.conf"
STATE = "/var/lib/corpdir"


class Machine:
    """A directory in place of the machine's own ones."""

    def __init__(self, folder, example, port):
        self.folder = folder
        (folder / "state/log").mkdir(parents=True)
        (folder / "credentials").mkdir()
        (folder / "credentials/password").write_text("secret\n")
        text, count = re.subn(r'^servers = .*$', 'servers = "127.0.0.1"\nport = %d' % port, example, flags=re.M)
        if count != 1:
            raise SystemExit("the example settings name their servers %d times" % count)
        text = text.replace(STATE, str(folder / "state"))
        text = text.replace("/etc/corpdir/password", str(folder / "credentials/password"))
        self.settings = folder / "corpdir.conf"
        self.settings.write_text(text)
        # With what the example only proposes.
        self.everything = folder / "everything.conf"
        self.everything.write_text(re.sub(r"^#([a-z-]+ = )", r"\1", text, flags=re.M))


def unit_of(path):
    parser = configparser.ConfigParser(strict=False, interpolation=None, comment_prefixes=("#",))
    parser.optionxform = str
    parser.read(path)
    return parser


def start_of(unit, program, machine):
    """ExecStart, with this machine's paths."""
    words = shlex.split(unit["Service"]["ExecStart"])
    if words[0] != "/usr/bin/corpdir" or SETTINGS not in words:
        raise SystemExit("the unit starts something else: %s" % words)
    paths = {words[0]: program, SETTINGS: str(machine.settings)}
    words = [paths.get(word, word).replace("%d/", "%s/credentials/" % machine.folder) for word in words]
    if any("%" in word for word in words):
        raise SystemExit("the unit has a specifier that is not known here: %s" % words)
    return words


def check_unit(unit, example):
    service = unit["Service"]
    credential = service["LoadCredential"].split(":")[0]
    if "--password-file %%d/%s" % credential not in service["ExecStart"]:
        yield "the unit loads '%s' and reads something else" % credential
    if 'output-dir = "/var/lib/%s"' % service["StateDirectory"] not in example:
        yield "the settings' output-dir is not the unit's StateDirectory"


def check_runs(program, unit, machine):
    password = ["--password-file", str(machine.folder / "credentials/password")]
    start = start_of(unit, program, machine)
    same_check = ["check" if word == "watch" else word for word in start]
    for call in (same_check, [program, "check", "--config", str(machine.settings), *password],
                 [program, "fetch", "--config", str(machine.settings), *password],
                 [program, "check", "--config", str(machine.everything)],
                 [program, "fetch", "--config", str(machine.everything)]):
        result = run(*call)
        if result.returncode != NO_SERVER_LEFT or "Connection refused" not in result.stdout + result.stderr:
            yield "%s: status %d\n%s" % (" ".join(call), result.returncode, result.stdout + result.stderr)
    for call in (start, [program, "watch", "--config", str(machine.everything)]):
        lines, status = watch_until("retrying in", *call)
        if status != 0 or "stopped by SIGTERM" not in lines:
            yield "%s: status %d\n%s" % (" ".join(call), status, lines)


def main():
    program, folder = sys.argv[1], pathlib.Path(sys.argv[2]) / "tools/corpdir"
    example = (folder / "corpdir.conf.example").read_text()
    unit = unit_of(folder / "corpdir-watch.service")
    with closed_port() as port, tempfile.TemporaryDirectory() as scratch:
        machine = Machine(pathlib.Path(scratch), example, port)
        wrong = [*check_unit(unit, example), *check_runs(program, unit, machine)]
    for line in wrong:
        print(line)
    print("unit and settings: %d failures" % len(wrong))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
