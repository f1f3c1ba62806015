#!/usr/bin/env python3
"""Checks that the includes of the source tree keep to the layers.

- Arrows between folders point down: a layer includes its own files and the headers that it may call.
- A third-party header is included only in the folders listed for it.

Usage: check_layers.py SOURCE_DIR. Exit status 0, or 1 with one line for each include that is wrong.
"""

import pathlib
import re
import sys

PLATFORM_HEADERS = {"travex_ftp.h", "osak.h", "zep.h", "corpdir_log.h"}
CLIENT_HEADERS = {"ftpcorpdir.h", "corpdir_loginfo.h"}
TEXT = {"base/printable.h"}
BASE = {"base/" + name + ".h" for name in (
    "changes", "descriptor", "gate", "handle", "linked_queue", "mutex", "never_destroyed", "process_end",
    "resolved_names", "thread")} | TEXT
SHARED = {"client.h", "event.h", "sealed_password.h", "secret.h", "server_names.h", "service_link.h", "settings.h",
          "settings_check.h", "staging.h", "state.h", "suites.h",
          "transfer_event.h", "version_file.h"}
SERVICE = "service/im/imcorpdirectory/ftpcorpdirectory"

# Folder: the project's headers that it may include beside those of its own folder.
ALLOWED = {
    "platform/include": CLIENT_HEADERS & {"corpdir_loginfo.h"},
    "platform/base": BASE,
    "platform/corpdir_log": {"corpdir_log.h", "corpdir_loginfo.h"} | BASE,
    "platform/osak": {"osak.h", "corpdir_log.h"} | BASE,
    "platform/zep": {"zep.h"} | BASE,
    "platform/travex_ftp": {"travex_ftp.h", "corpdir_log.h"} | BASE,
    SERVICE + "/include": {"corpdir_loginfo.h"},
    SERVICE + "/src": PLATFORM_HEADERS | {"ftpcorpdir.h"},
    "client": CLIENT_HEADERS | {"corpdir_log.h", "osak.h", "osak/timers.h", "travex_ftp.h", "zep.h", "zep/digest.h"} | BASE,
    "tools/corpdir": CLIENT_HEADERS | {"corpdir_log.h", "travex_ftp.h", "osak/timers.h", "base/descriptor.h"} | SHARED | TEXT,
    "bindings/c": {"ftpcorpdir.h", "corpdir_loginfo.h", "travex_ftp.h"} | SHARED | BASE,
    "bindings/cpp": {"corpdir_c.h"},
    "examples": {"ftpcorpdir.h", "corpdir_c.h", "corpdir.hpp"},
}

# The program's folders, and the others of them that each may include.
PROGRAM = {"os": set(), "cli": {"os"}, "ui": {"os", "cli"}, "commands": {"os", "cli", "ui"}}

# The folders that may include a library's headers.
THIRD_PARTY = {
    "openssl/": {"platform/zep", "platform/travex_ftp"},
    "CLI/": {"tools/corpdir"},
    "toml++/": {"tools/corpdir"},
    "nlohmann/": {"client", "tools/corpdir"},
}

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def folder_of(relative):
    """The longest folder of ALLOWED that holds the file."""
    text = relative.as_posix()
    return max((f for f in ALLOWED if text.startswith(f + "/")), key=len, default=None)


def wrong_includes(root, path):
    relative = path.relative_to(root)
    folder = folder_of(relative)
    own = {p.name for p in path.parent.iterdir()} | {p.relative_to(root / folder).as_posix() for p in (root / folder).rglob("*.h")}
    for number, line in enumerate(path.read_text().splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        name = match.group(2)
        place = "%s:%d: %s" % (relative, number, name)
        for prefix, folders in THIRD_PARTY.items():
            if name.startswith(prefix) and folder not in folders:
                yield place + " belongs to " + " and ".join(sorted(folders))
        target = name.split("/")[0]
        if path.parent.name in PROGRAM and target in PROGRAM and target not in PROGRAM[path.parent.name] | {path.parent.name}:
            yield place + " is above " + path.parent.name + "/"
        if match.group(1) == '"' and name not in own and name not in ALLOWED[folder]:
            yield place + " is not for this folder to include"


def main():
    root = pathlib.Path(sys.argv[1])
    sources = [p for top in ("platform", "service", "client", "bindings", "tools", "examples")
               for p in sorted((root / top).rglob("*")) if p.suffix in (".h", ".hpp", ".c", ".cpp")]
    unplaced = [str(p.relative_to(root)) for p in sources if folder_of(p.relative_to(root)) is None]
    wrong = [w for p in sources if folder_of(p.relative_to(root)) for w in wrong_includes(root, p)]
    for line in wrong + [u + ": a folder without rules" for u in unplaced]:
        print(line)
    print("%d files checked, %d wrong" % (len(sources), len(wrong) + len(unplaced)))
    return 1 if wrong or unplaced or not sources else 0


if __name__ == "__main__":
    sys.exit(main())
