#!/usr/bin/env python3
"""Keeps the directory current: keep_current.py SERVERS USER OUTPUT_DIR CA_FILE

Enter checks now; the end of the input stops.
"""

import asyncio
import os
import sys

import corpdir


def show(event: corpdir.Event) -> None:
    if event.kind == corpdir.EventKind.PROGRESS:
        return
    line = event.kind.name.lower()
    if event.server:
        line += " " + event.server
    if event.version:
        line += " '%s'" % event.version
    if event.reason:
        line += ": " + event.reason
    print(line, flush=True)


async def main() -> int:
    if len(sys.argv) != 5 or "CORPDIR_PASSWORD" not in os.environ:
        return 2
    servers, user, output_dir, ca_file = sys.argv[1:]

    async def watch() -> None:
        async for event in client.watch(
                servers=servers, port=int(os.environ.get("CORPDIR_PORT", "0")), user=user,
                password=os.environ["CORPDIR_PASSWORD"], trust=ca_file, version_file="version.txt",
                directory_file="directory.csv", directory_dir=output_dir):
            show(event)

    def on_input() -> None:
        if os.read(0, 64):
            client.check_now()
        else:
            loop.remove_reader(0)
            watching.cancel()

    loop = asyncio.get_running_loop()
    async with corpdir.AsyncClient() as client:
        watching = asyncio.ensure_future(watch())
        loop.add_reader(0, on_input)
        try:
            await watching
        except asyncio.CancelledError:
            pass
        except corpdir.CorpdirError as error:
            print(error, file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(asyncio.run(main()))
