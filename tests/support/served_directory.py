"""A directory that ftp_server.py serves over FTPS, with certificates made for it, for scripts that
run a client against it. Needs Debian's Python, openssl, and port 21 of a loopback address.
"""

import contextlib
import fcntl
import os
import pathlib
import random
import secrets
import shutil
import socket
import struct
import subprocess
import sys
import threading

from certificates import make_certificates

SERVER = pathlib.Path(__file__).resolve().parent / "ftp_server.py"
PYTHON = "/usr/bin/python3"  # the one for which python3-pyftpdlib is installed
USER = "directory"
DIRECTORY_BYTES = 3_000_000


def may_listen():
    """Whether this process may listen on port 21."""
    with socket.socket() as probe:
        try:
            probe.bind(("127.0.0.1", 21))
        except PermissionError:
            return False
        except OSError:
            pass  # taken: not refused
    return True


def be_allowed_to_listen():
    """Where this process may not, runs the script again in a network namespace of its own."""
    if os.environ.pop("CORPDIR_OWN_NETWORK", None):
        set_loopback_up()
        return
    if may_listen():
        return
    os.environ["CORPDIR_OWN_NETWORK"] = "1"
    os.execvp("unshare", ["unshare", "--map-root-user", "--net", sys.executable, *sys.argv])


def set_loopback_up():
    siocgifflags, siocsifflags, iff_up = 0x8913, 0x8914, 1
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        request = struct.pack("16sh14x", b"lo", 0)
        flags = struct.unpack("16sh14x", fcntl.ioctl(control, siocgifflags, request))[1]
        fcntl.ioctl(control, siocsifflags, struct.pack("16sh14x", b"lo", flags | iff_up))


class ServedDirectory:
    """version.txt and directory.csv on port 21 of a random loopback address."""

    def __init__(self, folder):
        self.address = "127.%d.%d.%d" % (random.randint(1, 254), random.randint(0, 255),
                                         random.randint(1, 254))
        self.password = secrets.token_urlsafe(18)
        self.authority = folder / "authority.pem"
        self.files = {"version.txt": b"edition " + secrets.token_hex(8).encode() + b"\n",
                      "directory.csv": secrets.token_hex(DIRECTORY_BYTES // 2).encode()}
        self.folder = folder

    @contextlib.contextmanager
    def serving(self, *options):
        make_certificates(self.folder, "IP:" + self.address)
        root = self.folder / "served"
        root.mkdir()
        for name, content in self.files.items():
            (root / name).write_bytes(content)
        (self.folder / "password").write_text(self.password)
        server = subprocess.Popen(
            [PYTHON, SERVER, "--host", self.address, "--port", "21", "--root", root,
             "--user", USER, "--password-file", self.folder / "password",
             "--tls", "explicit", "--tls-required", "--cert", self.folder / "server.pem",
             "--key", self.folder / "server.key", *options],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            if not server.stdout.readline().startswith(b"READY"):
                raise RuntimeError("the FTPS server did not start")
            yield self
        finally:
            server.stdin.close()
            server.wait()
            server.stdout.close()

    def fetch(self, client, environment=None):
        """Runs the example client and returns its output. A failure or other bytes raise."""
        return self.fetch_as(client, [self.address, USER, self.fetched(), self.authority],
                             environment)

    def stay_current(self, client, environment=None):
        """Runs the example client that stays until the end of its input, and ends that after the
        delivery. A failure, other bytes, or a client that does not stop raise."""
        self.empty_fetched()
        with subprocess.Popen([*client, self.address, USER, self.fetched(), self.authority],
                              env=self.environment(environment), stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            watchdog = threading.Timer(60, process.kill)
            watchdog.start()
            printed = b""
            while b"delivered" not in printed and (line := process.stdout.readline()):
                printed += line
            output, errors = process.communicate()  # closes the input
            watchdog.cancel()
        self.check(process.returncode, printed + output, errors)

    def fetch_with_program(self, program):
        """The same with the command-line program."""
        return self.fetch_as(
            [program, "fetch"],
            ["--servers", self.address, "--user", USER, "--ca", self.authority, "--output-dir",
             self.fetched(), "--version-file", "version.txt", "--directory-file", "directory.csv"])

    def fetched(self):
        return self.folder / "fetched"

    def fetch_as(self, client, arguments, environment=None):
        self.empty_fetched()
        done = subprocess.run([*client, *arguments], env=self.environment(environment),
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=90)
        return self.check(done.returncode, done.stdout, done.stderr)

    def environment(self, more):
        return {**os.environ, **(more or {}), "CORPDIR_PASSWORD": self.password}

    def empty_fetched(self):
        shutil.rmtree(self.fetched(), ignore_errors=True)
        self.fetched().mkdir()

    def check(self, status, output, errors):
        if status != 0:
            raise RuntimeError("the client's status is %d\n%s%s" % (
                status, output.decode(), errors.decode()))
        for name, content in self.files.items():
            if (self.fetched() / name).read_bytes() != content:
                raise RuntimeError("%s is not what is served" % name)
        return output.decode()
