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
INSTANCE = "phone"  # in the example settings
SETTINGS = "/etc/corpdir/%i.conf"
PASSWORD_FILE = "/etc/corpdir/phone.password"
AUTHORITIES = "/etc/corpdir/ca.pem"


class Machine:
    """A directory in place of the machine's own ones."""

    def __init__(self, folder, example, port):
        self.password_file = folder / "password"
        self.password_file.write_text("secret\n")
        text, count = re.subn(r'^servers = .*$', 'servers = "127.0.0.1"\nport = %d' % port, example, flags=re.M)
        if count != 1:
            raise SystemExit("the example settings name their servers %d times" % count)
        for place in ("/var/lib/corpdir/" + INSTANCE, "/var/log/corpdir/" + INSTANCE):
            (folder / place[1:]).mkdir(parents=True)
            text = text.replace(place, str(folder / place[1:]))
        text = text.replace(PASSWORD_FILE, str(self.password_file)).replace(AUTHORITIES, "system")
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
    if words != ["/usr/bin/corpdir", "watch", "--config", SETTINGS]:
        raise SystemExit("the unit starts something else: %s" % words)
    return [program, *words[1:-1], str(machine.settings)]


def check_unit(unit, example):
    """The settings fit the unit's instance."""
    service = unit["Service"]
    for option, setting, place in (("output-dir", "StateDirectory", "/var/lib"),
                                   ("log-dir", "LogsDirectory", "/var/log")):
        folder = service[setting].replace("%i", INSTANCE)
        if '%s = "%s/%s"' % (option, place, folder) not in example:
            yield "the settings' %s is not the unit's %s" % (option, setting)
    if 'password-file = "%s"' % PASSWORD_FILE not in example:
        yield "the settings have no password file"


def check_runs(program, unit, machine):
    start = start_of(unit, program, machine)
    for settings in (machine.settings, machine.everything):
        for command in ("check", "fetch"):
            call = [program, command, "--config", str(settings)]
            result = run(*call)
            if result.returncode != NO_SERVER_LEFT or "Connection refused" not in result.stdout + result.stderr:
                yield "%s: status %d\n%s" % (" ".join(call), result.returncode, result.stdout + result.stderr)
    for call, line in ((start, "retrying in"),
                       ([program, "watch", "--config", str(machine.everything)], "first check in")):
        lines, status = watch_until(line, *call)
        if status != 0 or "stopped by SIGTERM" not in lines:
            yield "%s: status %d\n%s" % (" ".join(call), status, lines)


def main():
    program, folder = sys.argv[1], pathlib.Path(sys.argv[2]) / "tools/corpdir"
    example = (folder / "corpdir.conf.example").read_text()
    unit = unit_of(folder / "corpdir-watch@.service")
    with closed_port() as port, tempfile.TemporaryDirectory() as scratch:
        machine = Machine(pathlib.Path(scratch), example, port)
        wrong = [*check_unit(unit, example), *check_runs(program, unit, machine)]
    for line in wrong:
        print(line)
    print("unit and settings: %d failures" % len(wrong))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
