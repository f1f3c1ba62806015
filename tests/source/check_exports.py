#!/usr/bin/env python3
"""Checks that a shared library exports GetCorpDirInstance and nothing else: check_exports.py NM LIBRARY"""

import subprocess
import sys

nm, library = sys.argv[1:]
listing = subprocess.run([nm, "-D", "--defined-only", "--format=posix", library],
                         check=True, capture_output=True, text=True).stdout
exported = {line.split()[0].split("@")[0] for line in listing.splitlines()
            if line.split()[1] != "A"}  # "A" is the version's own name
if exported != {"GetCorpDirInstance"}:
    sys.exit("exported: " + " ".join(sorted(exported)))
print("exported: GetCorpDirInstance")
