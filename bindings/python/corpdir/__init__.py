"""Client of the corporate-directory download service.

The service fetches a small version file from an FTP or FTPS server and, when its first line
changed, the directory file. It repeats the check every ten minutes, asks the next server when one
fails, and reports to the application through events.

    import corpdir

    with corpdir.Client(log_dir="/var/log/directory") as client:
        result = client.fetch(servers=["ftp1.example.com"], user="directory", password=password,
                              version_file="version.txt", directory_file="directory.csv",
                              directory_dir="/var/lib/directory", timeout=60)
        print(result.path, result.bytes, result.unchanged)

To stay current, start() a request and iterate over its events():

        client.start(servers=["ftp1.example.com", "ftp2.example.com"], ...)
        for event in client.events():
            if event.kind == corpdir.EventKind.DELIVERED:
                load(event.path)

AsyncClient does the same in asyncio:

    async with corpdir.AsyncClient() as client:
        result = await client.fetch(servers=["ftp1.example.com"], ...)
        async for event in client.watch(servers=["ftp1.example.com"], ...):
            ...

The C library is the one at the path in the environment variable CORPDIR_LIBRARY, else the file
libcorpdir_c.so.1 in this package's folder, else the one that the system's loader finds. A process
has one open client at a time. After a fork the child must not use the package.
"""

from ._async import AsyncClient
from ._client import Client, status, version
from ._types import Code, CorpdirError, Event, EventKind, Result, State, Step, Trust

__all__ = ["AsyncClient", "Client", "Code", "CorpdirError", "Event", "EventKind", "Result",
           "State", "Step", "Trust", "status", "version"]
