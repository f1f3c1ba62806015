#!/usr/bin/env python3
"""Checks that the examples in the pages are the ones that are compiled and run.

Usage: check_examples.py SOURCE_DIR
"""

import pathlib
import sys

EXAMPLES = [("README.md", "cpp", "examples/minimal.cpp"),
            ("docs/library.md", "cpp", "examples/service_fetch.cpp"),
            ("docs/bindings.md", "c", "examples/keep_current.c"),
            ("docs/bindings.md", "cpp", "examples/keep_current.cpp"),
            ("docs/bindings.md", "python", "examples/keep_current.py"),
            ("docs/bindings.md", "python", "examples/fetch_directory.py")]

root = pathlib.Path(sys.argv[1])
for page, language, example in EXAMPLES:
    compiled = (root / example).read_text().strip()
    blocks = (root / page).read_text().split("```%s\n" % language)[1:]
    if compiled not in [block.split("```")[0].strip() for block in blocks]:
        sys.exit("%s does not show %s as it is" % (page, example))
    print("%s shows %s" % (page, example))
