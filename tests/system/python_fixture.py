"""Fixture of the tests of the Python package: real FTPS servers, and a folder for each test.

Environment: CORPDIR_LIBRARY, the C library; PYTHONPATH, the folder of the package.
"""

import contextlib
import os
import pathlib
import random
import socket
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/support"))

from certificates import make_certificates  # noqa: E402

PASSWORD = "throw-away-17"
DIRECTORY = random.Random(5).randbytes(200000)


def python_with_server():
    """The interpreter that the test server's packages are for; another may be first in PATH."""
    for candidate in ("/usr/bin/python3", "python3"):
        with contextlib.suppress(OSError):
            if subprocess.run([candidate, "-c", "import pyftpdlib, OpenSSL"],
                              stderr=subprocess.DEVNULL).returncode == 0:
                return candidate
    raise RuntimeError("no python3 with pyftpdlib and OpenSSL: run scripts/setup")


class Server:
    """FTPS with both files; it ends when its standard input is closed."""

    def __init__(self, certificates, rate=0):
        self.folder = tempfile.TemporaryDirectory()
        self.root = root = pathlib.Path(self.folder.name)
        self.publish("edition 17", DIRECTORY * (200 if rate else 1))
        self.process = subprocess.Popen(
            [python_with_server(), ROOT / "tests/support/ftp_server.py", "--root", root,
             "--user", "ftp", "--password", PASSWORD, "--tls", "explicit", "--tls-required",
             "--cert", certificates / "server.pem", "--key", certificates / "server.key",
             "--rate", str(rate)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
            env={key: value for key, value in os.environ.items() if key != "PYTHONPATH"})
        ready = self.process.stdout.readline()
        if not ready.startswith("READY "):
            raise RuntimeError("the server does not start")
        self.port = int(ready.split()[1])

    def publish(self, version, directory=DIRECTORY):
        (self.root / "directory.csv").write_bytes(directory)
        (self.root / "version.txt").write_text(version + "\n")

    def close(self):
        self.process.stdin.close()
        self.process.wait(20)
        self.process.stdout.close()
        self.folder.cleanup()


class PythonTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.certificate_folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.certificate_folder.cleanup)
        cls.certificates = pathlib.Path(cls.certificate_folder.name)
        make_certificates(cls.certificates, "IP:127.0.0.1,DNS:directory.example").make_authority(
            "other")
        cls.server = Server(cls.certificates)
        cls.addClassCleanup(cls.server.close)

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.output = pathlib.Path(self.folder.name, "out")
        self.output.mkdir()
        self.log = pathlib.Path(self.folder.name, "log")
        self.log.mkdir()

    def request(self, server=None, **changes):
        request = dict(servers=["127.0.0.1"], port=(server or self.server).port, user="ftp",
                       password=PASSWORD, trust=str(self.certificates / "authority.pem"),
                       version_file="version.txt", directory_file="directory.csv",
                       directory_dir=self.output)
        request.update(changes)
        return request

    def assert_fetched(self):
        self.assertEqual((self.output / "directory.csv").read_bytes(), DIRECTORY)

    def slow_server(self):
        server = Server(self.certificates, rate=500000)
        self.addCleanup(server.close)
        return server

    def silent_port(self):
        """A port where connections are accepted and nothing is ever said."""
        listening = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listening.close)
        return listening.getsockname()[1]

    @staticmethod
    def descriptors():
        return len(os.listdir("/proc/self/fd"))

    @staticmethod
    def threads():
        return len(os.listdir("/proc/self/task"))

    @staticmethod
    def resident_bytes():
        pages = pathlib.Path("/proc/self/statm").read_text().split()[1]
        return int(pages) * os.sysconf("SC_PAGE_SIZE")
