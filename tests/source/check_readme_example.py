#!/usr/bin/env python3
"""Checks that the client example in README.md is the one that is compiled: check_readme_example.py SOURCE_DIR"""

import pathlib
import sys

root = pathlib.Path(sys.argv[1])
compiled = (root / "examples/fetch_directory.cpp").read_text().strip()
blocks = (root / "README.md").read_text().split("```cpp\n")[1:]
shown = [block.split("```")[0].strip() for block in blocks]
if compiled not in shown:
    sys.exit("README.md does not show examples/fetch_directory.cpp as it is")
print("README.md shows the compiled example")
