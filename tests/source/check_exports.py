#!/usr/bin/env python3
"""Checks that a shared library exports what it is to export, and nothing else.

Usage: check_exports.py NM LIBRARY NAME...
A name that ends in ".h" means the functions that this header declares with CORPDIR_API.
"""

import pathlib
import re
import subprocess
import sys


def declared(header):
    text = pathlib.Path(header).read_text()
    names = set(re.findall(r"^CORPDIR_API [^(;]*?(\w+)\(", text, re.M))
    if not names:
        sys.exit(header + " declares nothing")
    return names


nm, library, *expected = sys.argv[1:]
wanted = set().union(*(declared(name) if name.endswith(".h") else {name} for name in expected))
listing = subprocess.run([nm, "-D", "--defined-only", "--format=posix", library],
                         check=True, capture_output=True, text=True).stdout
exported = {line.split()[0].split("@")[0] for line in listing.splitlines()
            if line.split()[1] != "A"}  # "A" is the version's own name
if exported != wanted:
    sys.exit("exported: %s\nwanted: %s" % (" ".join(sorted(exported)), " ".join(sorted(wanted))))
print("exported: " + " ".join(sorted(exported)))
