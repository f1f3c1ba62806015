"""What the program's own help says about its commands and their options."""

import collections
import re
import subprocess
import tempfile

Option = collections.namedtuple("Option", "takes_value required")


def help_of(program, *command):
    result = subprocess.run([program, *command, "--help"], capture_output=True, text=True, timeout=60)
    if result.returncode != 0:
        raise SystemExit("%s --help: status %d\n%s" % (" ".join(command), result.returncode, result.stderr))
    return result.stdout


def commands(program):
    listed = help_of(program).split("\nSubcommands:\n")[1].split("\n\n")[0]
    found = re.findall(r"^  (\w+) ", listed, re.M)
    if len(found) < 2:
        raise SystemExit("the help lists no commands")
    return found


def listed_options(program, *command):
    """{"--name": Option} as listed: the name, what it takes, two blanks, and the description."""
    found = {}
    for line in help_of(program, *command).splitlines():
        match = re.match(r"  (?:-\w,)?(--[a-z-]+)(.*)", line)
        if match:
            takes = match.group(2).split("  ")[0].split()
            found[match.group(1)] = Option(takes_value=bool(takes), required="REQUIRED" in takes)
    if "--help" not in found:
        raise SystemExit("the help of %s lists no options" % " ".join(command))
    return found


def options(program, command):
    """Those listed, and --config and --no-config where the program takes them behind the command."""
    found = listed_options(program, command)
    with tempfile.NamedTemporaryFile() as empty:
        result = subprocess.run([program, command, "--config", empty.name], capture_output=True,
                                text=True, timeout=60, stdin=subprocess.DEVNULL)
    if "not expected" not in result.stderr:
        found["--config"] = Option(takes_value=True, required=False)
        found["--no-config"] = Option(takes_value=False, required=False)
    return found
