#!/usr/bin/env python3
"""Builds the API reference in a scratch folder and checks it against the headers.

- Doxygen finds nothing to warn of: everything declared is documented.
- Each comment of a header is in the reference, whole, and each name has the comment that stands at it
  in the header. The comments are found here in a simpler way than in the filter, which knows what to
  do with each; this check knows only what must be there.

Usage: check_api_reference.py SOURCE_DIR. Exit status 0, or 1 with one line for each fault.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

SERVICE = "service/im/imcorpdirectory/ftpcorpdirectory/include"
HEADERS = [SERVICE + "/ftpcorpdir.h", SERVICE + "/corpdir_loginfo.h", "bindings/c/corpdir_c.h",
           "platform/include/travex_ftp.h", "platform/include/osak.h", "platform/include/zep.h",
           "platform/include/corpdir_log.h"]

# A field or enumerator with a comment behind it that is complete on one line, the next line being no
# part of it.
MEMBER = re.compile(r"^ +(?:[\w:*<> ]*?[ *])?(\w+)(?:\[\d+\])?(?: = \d+)?[;,]? +(?://|/\*) (.*?)(?: \*/)?$")
# A function with the comment directly before it.
FUNCTION = re.compile(r"((?:^ *//[^\n]*\n)+|^/\*(?:(?!\*/).)*\*/\n)"
                      r"^[^\n#/;(]*?(?:\([^()]*\)\)[^\n;(]*)?(~?\b\w+)\(",
                      re.M | re.S)


def squeezed(text):
    """Without blanks, and without what only marks a word."""
    return re.sub(r"[\s`]", "", text)


def bare(comment):
    """A comment's text without its marks, squeezed."""
    lines = [re.sub(r"^\s*(?://|/\*|\*(?!/) ?)", "", line) for line in comment.split("\n")]
    return squeezed("\n".join(lines).replace("*/", ""))


def comments(source):
    """Every comment by itself, the lines of one column together."""
    pattern = r"/\*.*?\*/|^( *)//[^\n]*\n(?:\1//[^\n]*\n)*|//[^\n]*"
    return (found.group() for found in re.finditer(pattern, source, re.M | re.S))


def described(element):
    """What is said of a thing, and the heading of its group where that is all that is said."""
    return squeezed("".join("".join(part.itertext()) for part in element
                            if part.tag in ("briefdescription", "detaileddescription")))


class Reference:
    def __init__(self, folder):
        self.members = {}  # name: what is said of it, of each of that name
        self.undescribed = []  # Doxygen warns of most of them, but not of enumerators
        self.words = ""    # everything
        for path in sorted(folder.glob("*.xml")):
            for compound in ElementTree.parse(path).getroot().iter("compounddef"):
                self.words += squeezed("".join(compound.itertext()))
                for member in [*compound.iter("memberdef"), *compound.iter("enumvalue")]:
                    said = described(member)
                    self.members.setdefault(member.findtext("name"), set()).add(said)
                    deleted = (member.findtext("argsstring") or "").endswith("=delete")
                    if not said and member.get("prot") != "private" and not deleted:
                        self.undescribed.append(member.findtext("name"))

    def says(self, name, text):
        return any(text in said for said in self.members.get(name, ()))


def build(root, scratch):
    """Runs Doxygen; returns its complaints."""
    settings = (root / "docs/api/Doxyfile").read_text()
    settings += "\nOUTPUT_DIRECTORY = \"%s\"\nGENERATE_XML = YES\nXML_PROGRAMLISTING = NO\n" % scratch
    run = subprocess.run(["doxygen", "-"], input=settings, cwd=root, text=True, capture_output=True,
                         check=False)
    said = (run.stdout + run.stderr).strip()
    if run.returncode != 0 and not said:
        said = "doxygen ended with status %d" % run.returncode
    return said.splitlines()


def faults(header, reference, counts):
    source = header.read_text()
    lines = source.split("\n")
    for line, after in zip(lines, lines[1:]):
        member = MEMBER.match(line)
        if member and not re.match(r"\s*(//|\*)", after) and ("//" in line or "*/" in line):
            counts["members"] += 1
            if not reference.says(member.group(1), squeezed(member.group(2))):
                yield "%s: the comment behind %s is not its own in the reference" % (header.name,
                                                                                   member.group(1))
    for comment, name in FUNCTION.findall(source):
        if name in ("static_assert", "__attribute__"):
            continue
        counts["functions"] += 1
        if not reference.says(name, bare(comment)):
            yield "%s: the comment before %s is not its own in the reference" % (header.name, name)
    for comment in comments(source):
        counts["comments"] += 1
        text = bare(comment)
        if text not in reference.words and text.removesuffix(".") not in reference.words \
                and text != 'extern"C"':
            yield "%s: not in the reference: %s" % (header.name, comment.strip())


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    if shutil.which("doxygen") is None:
        sys.exit("doxygen is missing: scripts/setup test installs it")
    with tempfile.TemporaryDirectory() as scratch:
        found = build(root, scratch)
        if not (pathlib.Path(scratch) / "index.html").exists():
            found.append("no index.html was made")
        reference = Reference(pathlib.Path(scratch) / "xml")
    found += ["%s has no description in the reference" % name for name in reference.undescribed]
    counts = dict.fromkeys(("members", "functions", "comments"), 0)
    for header in HEADERS:
        found += faults(root / header, reference, counts)
    for line in found:
        print(line)
    print("%d comments, of which %d behind members and %d before functions; %d faults"
          % (counts["comments"], counts["members"], counts["functions"], len(found)))
    return 1 if found or not all(counts.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
