#!/usr/bin/env python3
"""The Python client and the examples against a real FTPS server.

Environment: CORPDIR_LIBRARY, the C library; CORPDIR_C_EXAMPLE, the program of
examples/fetch_directory.c; PYTHONPATH, the folder of corpdir.py.
"""

import contextlib
import gc
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import threading
import unittest

import corpdir
from corpdir import Code, CorpdirError, EventKind

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
        root = pathlib.Path(self.folder.name)
        (root / "version.txt").write_text("edition 17\n")
        (root / "directory.csv").write_bytes(DIRECTORY * (200 if rate else 1))
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

    def close(self):
        self.process.stdin.close()
        self.process.wait(20)
        self.process.stdout.close()
        self.folder.cleanup()


class PythonClient(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.certificate_folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.certificate_folder.cleanup)
        cls.certificates = pathlib.Path(cls.certificate_folder.name)
        make_certificates(cls.certificates, "IP:127.0.0.1").make_authority("other")
        cls.server = Server(cls.certificates)
        cls.addClassCleanup(cls.server.close)

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.output = pathlib.Path(self.folder.name, "out")
        self.output.mkdir()
        self.log = pathlib.Path(self.folder.name, "log")
        self.log.mkdir()

    def client(self):
        client = corpdir.Client(log_dir=self.log, log_level=2)
        self.addCleanup(client.close)
        return client

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

    # --- The module ---

    def test_version_is_the_library_s(self):
        self.assertRegex(corpdir.version(), r"^\d+\.\d+\.\d+$")

    def test_codes_and_kinds_are_the_header_s(self):
        header = (ROOT / "bindings/c/corpdir_c.h").read_text()
        for kinds, pattern in ((Code, r"^    CORPDIR_(?:ERR_)?(\w+) = (\d+)"),
                               (EventKind, r"^    CORPDIR_EVENT_(\w+) = (\d+)")):
            found = {name: int(number) for name, number in re.findall(pattern, header, re.M)}
            if kinds is Code:
                found = {name: number for name, number in found.items()
                         if not name.startswith(("EVENT_", "MODE_"))}
            self.assertEqual({kind.name: kind.value for kind in kinds}, found)

    def test_a_library_that_is_not_there(self):
        found = subprocess.run(
            [sys.executable, "-c", "import corpdir\ntry:\n    corpdir.Client()\n"
             "except OSError as error:\n    print('OSError:', error)"],
            env=dict(os.environ, CORPDIR_LIBRARY="/nonexistent.so"), check=True,
            capture_output=True, text=True)
        self.assertIn("OSError: /nonexistent.so", found.stdout)

    # --- Fetching ---

    def test_fetch(self):
        seen = []
        with self.client() as client:
            result = client.fetch(**self.request(), on_event=seen.append)
        self.assertEqual(result.path, str(self.output / "directory.csv"))
        self.assertEqual(result.bytes, len(DIRECTORY))
        self.assertEqual(result.server, "127.0.0.1:%d" % self.server.port)
        self.assert_fetched()
        self.assertEqual(seen[-1].kind, EventKind.DELIVERED)
        self.assertEqual([event.file for event in seen if event.kind == EventKind.TRANSFERRED],
                         ["version.txt", "directory.csv"])

    def test_fetch_again_with_the_same_client_and_with_another(self):
        for _ in range(3):
            with self.client() as client:
                for _ in range(3):
                    client.fetch(**self.request())
                    self.assert_fetched()
                    (self.output / "directory.csv").unlink()

    def test_fetch_from_the_second_server(self):
        seen = []
        with self.client() as client:
            client.fetch(**self.request(servers="127.0.0.2;127.0.0.1"), on_event=seen.append)
        self.assert_fetched()
        failed = [event for event in seen if event.kind == EventKind.FAILED]
        self.assertEqual([event.code for event in failed], [Code.CONNECT])

    def test_a_name_without_an_address_is_a_server_that_failed(self):
        seen = []
        with self.client() as client:
            client.fetch(**self.request(servers=["nowhere.invalid", "127.0.0.1"]),
                         on_event=seen.append)
        self.assert_fetched()
        failed = [event for event in seen if event.kind == EventKind.FAILED]
        self.assertEqual([(event.code, event.server) for event in failed],
                         [(Code.CONNECT, "nowhere.invalid")])

    def test_names_and_directories(self):
        versions = pathlib.Path(self.folder.name, "versions")
        versions.mkdir()
        with self.client() as client:
            result = client.fetch(**self.request(directory_name="people.csv",
                                                 version_name="edition",
                                                 version_dir=versions))
        self.assertEqual(result.path, str(self.output / "people.csv"))
        self.assertEqual(os.listdir(self.output), ["people.csv"])
        self.assertEqual(os.listdir(versions), ["edition"])

    def test_password_as_bytes_that_stay_the_caller_s(self):
        secret = bytearray(PASSWORD.encode())
        with self.client() as client:
            client.fetch(**self.request(password=secret))
        self.assertEqual(secret.decode(), PASSWORD)

    # --- Failures ---

    def fails(self, code, **changes):
        with self.client() as client:
            with self.assertRaises(CorpdirError) as caught:
                client.fetch(**self.request(**changes))
        self.assertEqual(caught.exception.code, code)
        self.assertEqual(os.listdir(self.output), [])
        return caught.exception

    def test_no_name_with_an_address(self):
        error = self.fails(Code.NOT_STARTED, servers="nowhere.invalid")
        self.assertRegex(error.reason, "^nowhere.invalid: .")

    def test_wrong_password(self):
        error = self.fails(Code.LOGIN, password="not this one")
        self.assertIn("127.0.0.1:%d" % self.server.port, error.reason)
        self.assertIn("(LOGIN)", str(error))

    def test_unknown_authority(self):
        error = self.fails(Code.CERTIFICATE, trust=str(self.certificates / "other.pem"))
        self.assertIn("certificate", error.reason)

    def test_missing_version_file(self):
        self.fails(Code.FILE, version_file="no-such-file")

    def test_missing_directory_file(self):
        with self.client() as client:
            with self.assertRaises(CorpdirError) as caught:
                client.fetch(**self.request(directory_file="no-such-file"))
        self.assertEqual(caught.exception.code, Code.FILE)

    def test_start_that_is_refused_says_why(self):
        error = self.fails(Code.AUTHORITIES, trust="/nonexistent.pem")
        self.assertIn("/nonexistent.pem", error.reason)
        error = self.fails(Code.USER, user="u" * 128)
        self.assertIn("127", error.reason)
        self.fails(Code.SERVERS, servers=[])

    def test_arguments_that_c_cannot_see(self):
        client = self.client()
        for changes in (dict(port=-1), dict(port=2 ** 32), dict(user="a\0b"),
                        dict(password="a\0b")):
            with self.subTest(changes), self.assertRaises(ValueError):
                client.start(**self.request(**changes))
        with self.assertRaises(TypeError):
            client.start(**self.request(password=None))
        with self.assertRaises(ValueError):
            client.add_cipher(0x10000)
        with self.assertRaises(ValueError):
            corpdir.Client(log_level=2 ** 32)

    def test_timeout(self):
        server = self.slow_server()
        with self.client() as client:
            with self.assertRaises(CorpdirError) as caught:
                client.fetch(**self.request(server), timeout=0.3)
        self.assertEqual(caught.exception.code, Code.TIMEOUT)

    def test_one_client_at_a_time(self):
        with self.client():
            with self.assertRaises(CorpdirError) as caught:
                corpdir.Client()
            self.assertEqual(caught.exception.code, Code.BUSY)

    def test_closed_client(self):
        client = self.client()
        client.close()
        client.close()
        for call in (lambda: client.fetch(**self.request()), lambda: client.add_cipher(0x1302)):
            with self.assertRaises(CorpdirError) as caught:
                call()
            self.assertEqual(caught.exception.code, Code.CLIENT)
        self.assertEqual(list(client.events()), [])

    # --- Events ---

    def test_events(self):
        with self.client() as client:
            client.start(**self.request())
            kinds = []
            for event in client.events(timeout=30):
                kinds.append(event.kind)
                if event.kind == EventKind.DELIVERED:
                    client.close()
        self.assertEqual(kinds[-1], EventKind.DELIVERED)

    def test_progress_while_it_comes(self):
        server = self.slow_server()
        with self.client() as client:
            client.start(**self.request(server))
            progress = []
            for event in client.events(timeout=30):
                if event.kind == EventKind.PROGRESS and event.file == "directory.csv":
                    progress.append(event)
                if len(progress) == 2:
                    break
        self.assertLess(progress[0].bytes, progress[1].bytes)
        self.assertEqual(progress[1].total, 200 * len(DIRECTORY))

    def test_a_second_start_ends_the_first_one_s_events(self):
        server = self.slow_server()
        with self.client() as client:
            client.start(**self.request(server))
            first = client.events(timeout=30)
            next(first)
            client.start(**self.request())
            for event in first:
                self.assertNotIn(event.kind, (EventKind.DELIVERED, EventKind.FAILED))
            kinds = self.until_delivered(client)
        self.assertEqual(kinds[-1], EventKind.DELIVERED)

    @staticmethod
    def until_delivered(client):
        kinds = []
        for event in client.events(timeout=30):
            kinds.append(event.kind)
            if event.kind == EventKind.DELIVERED:
                break
        return kinds

    def test_an_unusable_request_leaves_the_earlier_one_alone(self):
        server = self.slow_server()
        with self.client() as client:
            client.start(**self.request(server))
            with self.assertRaises(CorpdirError):
                client.start(**self.request(user=""))
            kinds = [event.kind for _, event in zip(range(3), client.events(timeout=30))]
        self.assertEqual(len(kinds), 3)

    def test_callback(self):
        delivered = threading.Event()
        threads = set()

        def on_event(event):
            threads.add(threading.get_ident())
            if event.kind == EventKind.DELIVERED:
                delivered.set()

        with self.client() as client:
            client.start(**self.request(), on_event=on_event)
            del on_event
            gc.collect()  # what C calls must be kept by the client
            self.assertTrue(delivered.wait(30))
        self.assertEqual(len(threads), 1)
        self.assertNotIn(threading.get_ident(), threads)
        self.assert_fetched()

    def test_callback_closes_and_another_client_follows(self):
        for _ in range(10):
            closed = threading.Event()
            client = corpdir.Client(log_dir=self.log)

            def on_event(_event, client=client, closed=closed):
                if not closed.is_set():
                    client.close()
                    closed.set()

            client.start(**self.request(), on_event=on_event)
            del client, on_event
            gc.collect()
            self.assertTrue(closed.wait(30))
        with self.client() as client:
            client.fetch(**self.request())
        self.assert_fetched()

    def test_callback_starts_again(self):
        delivered = threading.Event()
        rounds = []

        def on_event(event):
            if event.kind == EventKind.DELIVERED:
                rounds.append(event)
                if len(rounds) < 5:
                    client.start(**self.request(), on_event=on_event)
                    gc.collect()
                else:
                    delivered.set()

        with self.client() as client:
            client.start(**self.request(), on_event=on_event)
            self.assertTrue(delivered.wait(30))

    def test_an_exception_in_a_callback_is_not_lost(self):
        hooked = []
        before, threading.excepthook = threading.excepthook, hooked.append
        self.addCleanup(setattr, threading, "excepthook", before)

        def on_event(_event):
            raise KeyError("of the callback")

        with self.client() as client:
            client.start(**self.request(), on_event=on_event)
            with self.assertRaisesRegex(KeyError, "of the callback"):
                next(client.events(timeout=30))
        self.assertIs(hooked[0].exc_type, KeyError)

    def test_an_exception_in_the_callback_of_a_fetch(self):
        def on_event(_event):
            raise KeyError("of the callback")

        with self.client() as client:
            with self.assertRaisesRegex(KeyError, "of the callback"):
                client.fetch(**self.request(), on_event=on_event)

    def test_fetch_within_a_callback_is_refused(self):
        refused = threading.Event()

        def on_event(_event):
            try:
                client.fetch(**self.request())
            except RuntimeError:
                refused.set()

        with self.client() as client:
            client.start(**self.request(), on_event=on_event)
            self.assertTrue(refused.wait(30))

    def test_ciphers(self):
        with self.client() as client:
            client.set_ciphers([0x1302])
            client.fetch(**self.request())
            client.set_ciphers([0xfffe])
            with self.assertRaises(CorpdirError) as caught:
                client.fetch(**self.request())
            self.assertEqual(caught.exception.code, Code.CIPHER)
            client.set_ciphers([])
            client.add_cipher(0x1302)
            client.fetch(**self.request())
        self.assertIn("TLSv1.3", (self.log / "corpdir.log").read_text())

    # --- The end of the interpreter ---

    def test_an_interpreter_ends_with_an_open_client(self):
        program = ("import corpdir, os, sys\n"
                   "client = corpdir.Client()\n"
                   "client.start(servers='127.0.0.1', port=%d, user='ftp', password='%s',\n"
                   "    trust=sys.argv[1], version_file='version.txt', on_event=lambda event: None,\n"
                   "    directory_file='directory.csv', directory_dir=sys.argv[2])\n"
                   % (self.server.port, PASSWORD))
        for delay in (0, 0.01, 0.05, 0.2):
            ended = subprocess.run(
                [sys.executable, "-c", program + "import time; time.sleep(%g)" % delay,
                 self.certificates / "authority.pem", self.output],
                capture_output=True, text=True, timeout=30)
            self.assertEqual((ended.returncode, ended.stderr), (0, ""))

    # --- The examples ---

    def example(self, *command, password=PASSWORD):
        return subprocess.run(
            [*command, "127.0.0.1", "ftp", self.output, self.certificates / "authority.pem"],
            env=dict(os.environ, CORPDIR_PASSWORD=password, CORPDIR_PORT=str(self.server.port)),
            capture_output=True, text=True, timeout=60)

    def test_the_python_example(self):
        run_example = (sys.executable, ROOT / "examples/fetch_directory.py")
        fetched = self.example(*run_example)
        self.assertEqual((fetched.returncode, fetched.stderr), (0, ""))
        self.assertIn("%d bytes" % len(DIRECTORY), fetched.stdout)
        self.assert_fetched()
        failed = self.example(*run_example, password="not this one")
        self.assertEqual(failed.returncode, 1)
        self.assertIn("LOGIN", failed.stderr)

    def test_the_c_example(self):
        fetched = self.example(os.environ["CORPDIR_C_EXAMPLE"])
        self.assertEqual(fetched.returncode, 0, fetched.stderr)
        self.assert_fetched()


if __name__ == "__main__":
    unittest.main()
