#!/usr/bin/env python3
"""Builds the API reference in a scratch folder and checks it against the public headers.

- Doxygen has no warning, and every declaration and enumerator has a description.
- Every line of a documentation comment is in the reference, as it is in the header.
- A comment with // alone is a heading, with an empty line after it: one that is meant for the
  reference begins with ///.

Usage: check_api_reference.py SOURCE_DIR. Exit status 0, or 1 with one line for each fault.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

HEADERS = ["service/im/imcorpdirectory/ftpcorpdirectory/include/ftpcorpdir.h",
           "service/im/imcorpdirectory/ftpcorpdirectory/include/corpdir_loginfo.h",
           "bindings/c/corpdir_c.h", "bindings/cpp/corpdir.hpp", "platform/include/travex_ftp.h",
           "platform/include/osak.h", "platform/include/zep.h", "platform/include/corpdir_log.h"]

COMMENT = re.compile(r"///<?([^\n]*)|/\*\*<?(.*?)\*/", re.S)
COMMAND = re.compile(r"@(?:file|name|\{|\})")
NOT_A_HEADING = re.compile(r"^ *//(?!/)[^\n]*\n(?=[^\n])", re.M)


def squeezed(text):
    """Without blanks, and without what marks code."""
    return re.sub(r"[\s`]", "", text)


def build(root, scratch):
    """Runs Doxygen; returns its messages."""
    settings = (root / "docs/api/Doxyfile").read_text()
    settings += "\nOUTPUT_DIRECTORY = \"%s\"\nGENERATE_XML = YES\nXML_PROGRAMLISTING = NO\n" % scratch
    run = subprocess.run(["doxygen", "-"], input=settings, cwd=root, text=True, capture_output=True,
                         check=False)
    messages = (run.stdout + run.stderr).strip()
    if run.returncode != 0 and not messages:
        messages = "doxygen ended with status %d" % run.returncode
    return messages.splitlines()


class Reference:
    def __init__(self, folder):
        self.words = ""         # everything
        self.files = set()
        self.undescribed = []   # Doxygen does not warn of enumerators
        for path in sorted(folder.glob("*.xml")):
            for compound in ElementTree.parse(path).getroot().iter("compounddef"):
                self.words += squeezed("".join(compound.itertext()))
                self.files.add(compound.findtext("compoundname"))
                for member in [*compound.iter("memberdef"), *compound.iter("enumvalue")]:
                    description = "".join("".join(member.find(part).itertext())
                                          for part in ("briefdescription", "detaileddescription"))
                    if not description.strip() and member.get("prot") != "private":
                        self.undescribed.append(member.findtext("name"))


def faults(header, reference):
    source = header.read_text()
    if header.name not in reference.files:
        yield "%s is not in the reference" % header.name
    for comment in COMMENT.finditer(source):
        for line in (comment.group(1) or comment.group(2) or "").split("\n"):
            text = COMMAND.sub("", line.strip().removeprefix("*"))
            if squeezed(text) not in reference.words:
                yield "%s: not in the reference: %s" % (header.name, text.strip())
    for comment in NOT_A_HEADING.finditer(source):
        yield "%s: /// is missing, or an empty line after: %s" % (header.name,
                                                                  comment.group().strip())


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    if shutil.which("doxygen") is None:
        sys.exit("doxygen is missing: scripts/setup test installs it")
    with tempfile.TemporaryDirectory() as scratch:
        found = build(root, scratch)
        if not (pathlib.Path(scratch) / "index.html").exists():
            found.append("no index.html was made")
        reference = Reference(pathlib.Path(scratch) / "xml")
    found += ["%s has no description" % name for name in reference.undescribed]
    for header in HEADERS:
        found += faults(root / header, reference)
    for line in found:
        print(line)
    print("%d headers, %d faults" % (len(HEADERS), len(found)))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
