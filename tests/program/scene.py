"""What the tests of the program share: a scratch folder, certificates, FTP servers on loopback."""

import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile

SUPPORT = pathlib.Path(__file__).resolve().parent.parent / "support"
sys.path.insert(0, str(SUPPORT))

from certificates import Certificates  # noqa: E402

USER = "directory"
PASSWORD = "t0p-Secret"


def python_with_server():
    """Prefers Debian's interpreter, which has the packages; PATH may have another one first."""
    for candidate in ("/usr/bin/python3", "python3"):
        if subprocess.run([candidate, "-c", "import pyftpdlib, OpenSSL"],
                          stderr=subprocess.DEVNULL, check=False).returncode == 0:
            return candidate
    raise SystemExit("no python3 with pyftpdlib and OpenSSL: run scripts/setup")


class Scene:
    """A scratch folder; the servers end and it goes when the `with` is left."""

    def __enter__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="corpdir-program-"))
        certificates = Certificates(self.folder)
        self.key = certificates.key
        self.make_authority = certificates.make_authority
        self.make_certificate = certificates.make_server
        self.authority = self.make_authority()
        self.servers = []
        self.sockets = []
        return self

    def __exit__(self, *failure):
        for server in self.servers:
            server.stdin.close()  # what a server ends with
        for server in self.servers:
            server.wait()
            server.stdout.close()
        for listener in self.sockets:
            listener.close()
        shutil.rmtree(self.folder)

    def write(self, name, text):
        """A file in the folder, with the folders on its way."""
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return path

    # Servers; each returns its port.

    def start(self, script, *arguments):
        server = subprocess.Popen([python_with_server(), str(SUPPORT / script), *map(str, arguments)],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.servers.append(server)
        ready = re.match(r"READY (\d+)$", server.stdout.readline())
        if not ready:
            raise SystemExit("%s did not start" % script)
        return int(ready.group(1))

    def serve(self, root, certificate=None, *options):
        """An FTP server, with explicit and demanded TLS when it has a certificate."""
        arguments = ["--root", root, "--user", USER, "--password", PASSWORD]
        if certificate:
            arguments += ["--cert", certificate, "--key", self.key]
            if "--tls" not in options:
                arguments += ["--tls", "explicit", "--tls-required"]
        return self.start("ftp_server.py", *arguments, *options)

    def closed_port(self):
        """A closed port, which no other process can use during the scene."""
        holder = socket.socket()
        holder.bind(("127.0.0.1", 0))
        self.sockets.append(holder)
        return holder.getsockname()[1]


def environment(**more):
    """What a program may see: none of the settings that whoever runs the tests has made."""
    kept = {name: value for name, value in os.environ.items()
            if name in ("PATH", "HOME", "TMPDIR") or name.endswith("SAN_OPTIONS")}
    return {**kept, "LC_ALL": "C.UTF-8", **more}
