#!/usr/bin/env python3
"""Fetches the directory once over FTPS: fetch_directory.py SERVERS USER OUTPUT_DIR CA_FILE"""

import os
import sys

import corpdir


def main() -> int:
    if len(sys.argv) != 5 or "CORPDIR_PASSWORD" not in os.environ:
        return 2
    servers, user, output_dir, ca_file = sys.argv[1:]
    try:
        with corpdir.Client() as client:
            result = client.fetch(servers=servers, port=int(os.environ.get("CORPDIR_PORT", "0")),
                                  user=user, password=os.environ["CORPDIR_PASSWORD"], trust=ca_file,
                                  version_file="version.txt", directory_file="directory.csv",
                                  directory_dir=output_dir, timeout=60)
    except corpdir.CorpdirError as error:
        print(error, file=sys.stderr)
        return 1
    print("%s: %d bytes from %s, version %s" % (result.path, result.bytes, result.server,
                                                result.version))
    return 0


if __name__ == "__main__":
    sys.exit(main())
