#!/usr/bin/env python3
"""The blocking client of the Python package, and the examples, against a real FTPS server.

Environment: as for python_fixture.py; CORPDIR_C_EXAMPLE, the program of
examples/fetch_directory.c.
"""

import ctypes
import datetime
import gc
import inspect
import itertools
import os
import pathlib
import re
import selectors
import signal
import subprocess
import sys
import threading
import time
import unittest
from unittest import mock

import corpdir
from corpdir import Code, CorpdirError, EventKind, Step, Trust
from python_fixture import DIRECTORY, PASSWORD, ROOT, PythonTest, Server


class PythonClient(PythonTest):
    def client(self):
        client = corpdir.Client(log_dir=self.log, log_level=2)
        self.addCleanup(client.close)
        return client

    @staticmethod
    def until(client, kind):
        """The kinds of the events up to one of this kind, without PROGRESS."""
        kinds = []
        for event in client.events(timeout=30):
            if event.kind != EventKind.PROGRESS:
                kinds.append(event.kind)
            if event.kind == kind:
                break
        return kinds

    # --- The package ---

    def test_version_is_the_library_s(self):
        self.assertRegex(corpdir.version(), r"^\d+\.\d+\.\d+$")

    def test_numbers_are_the_header_s(self):
        header = (ROOT / "bindings/c/corpdir_c.h").read_text()
        for kinds, name, prefix in ((Code, "code", "(?:ERR_)?"),
                                    (EventKind, "event_kind", "EVENT_"), (Step, "step", "STEP_")):
            declared = re.search(r"enum corpdir_%s\n{(.*?)\n} corpdir_%s;" % (name, name), header,
                                 re.S)[1]
            found = {name: int(number) for name, number in
                     re.findall(r"^    CORPDIR_%s(\w+) = (\d+)" % prefix, declared, re.M)}
            self.assertGreater(len(found), 10)
            self.assertEqual({kind.name: kind.value for kind in kinds}, found)

    def test_names_of_kinds_are_the_library_s(self):
        name = ctypes.CDLL(os.environ["CORPDIR_LIBRARY"]).corpdir_event_name
        name.restype = ctypes.c_char_p
        for kind in EventKind:
            self.assertEqual(name(kind.value).decode(), kind.name.lower())

    def test_a_number_that_a_later_library_adds(self):
        for kinds in (Code, EventKind, Step):
            later = kinds(12345)
            self.assertEqual((later, later.name, kinds), (12345, "UNKNOWN_12345", type(later)))
            with self.assertRaises(ValueError):
                kinds("text")

    def test_all_forms_of_a_request_have_the_same_arguments(self):
        def arguments(function, *own):
            found = inspect.signature(function).parameters
            return {name: (found[name].kind, found[name].default, found[name].annotation)
                    for name in found if name not in ("self", *own)}

        expected = arguments(corpdir.Client.start, "on_event")
        self.assertEqual(len(expected), 18)
        for function in (corpdir.Client.fetch, corpdir.AsyncClient.fetch,
                         corpdir.AsyncClient.watch):
            self.assertEqual(arguments(function, "on_event", "timeout"), expected)

    def test_a_library_that_is_not_there(self):
        found = subprocess.run(
            [sys.executable, "-c", "import corpdir\ntry:\n    corpdir.Client()\n"
             "except OSError as error:\n    print('OSError:', error)"],
            env=dict(os.environ, CORPDIR_LIBRARY="/nonexistent.so"), check=True,
            capture_output=True, text=True)
        self.assertRegex(found.stdout, "^OSError: .*/nonexistent.so: .*CORPDIR_LIBRARY")

    def test_a_library_that_is_too_old(self):
        libc = "libc.so.6"  # has none of the functions
        found = subprocess.run([sys.executable, "-c", "import corpdir; corpdir.version()"],
                               env=dict(os.environ, CORPDIR_LIBRARY=libc), check=False,
                               capture_output=True, text=True)
        self.assertRegex(found.stderr, "OSError: .*libc.so.6 is too old .*corpdir_open")

    def test_trust_as_text(self):
        for trust, text in (
                (Trust(), "ca=system"),
                (Trust("/a b.pem"), "ca=/a b.pem"),
                (Trust(pathlib.Path("/a.pem"), names=["x.example", "y.example"]),
                 "ca=/a.pem;name=x.example,y.example"),
                (Trust(implicit_tls=True), "ca=system;tls=implicit")):
            self.assertEqual(trust.text(), text)
        for trust, error in ((Trust("/a;b"), ValueError), (Trust(names=["a,b"]), ValueError),
                             (Trust(names=[""]), ValueError), (Trust(names="a"), TypeError)):
            with self.subTest(trust), self.assertRaises(error):
                trust.text()

    # --- Fetching ---

    def test_fetch(self):
        seen = []
        with self.client() as client:
            result = client.fetch(**self.request(), on_event=seen.append)
        server = "127.0.0.1:%d" % self.server.port
        path = str(self.output / "directory.csv")
        self.assertEqual(result, corpdir.Result(path, server, len(DIRECTORY), "edition 17", False))
        self.assert_fetched()
        last = seen[-1]
        self.assertEqual([event.kind for event in seen if event.kind != EventKind.PROGRESS],
                         [EventKind.CHECKING, EventKind.NEW_VERSION, EventKind.DELIVERED])
        self.assertEqual((last.server, last.file, last.path, last.version, last.bytes, last.code),
                         (server, "directory.csv", path, "edition 17", len(DIRECTORY), Code.OK))
        age = datetime.datetime.now(datetime.timezone.utc) - last.time
        self.assertLess(abs(age.total_seconds()), 30)
        self.assertEqual([event.file for event in seen if event.kind == EventKind.CHECKING],
                         ["version.txt"])

    def test_fetch_of_a_version_that_is_there(self):
        with self.client() as client:
            self.assertFalse(client.fetch(**self.request()).unchanged)
            before = (self.output / "directory.csv").stat()
            result = client.fetch(**self.request())
        self.assertTrue(result.unchanged)
        self.assertEqual((result.version, result.bytes), ("edition 17", len(DIRECTORY)))
        after = (self.output / "directory.csv").stat()
        self.assertEqual((after.st_ino, after.st_mtime_ns), (before.st_ino, before.st_mtime_ns))

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
        self.assertEqual([(event.code, event.step) for event in failed],
                         [(Code.CONNECT, Step.CONNECT)])
        self.assertEqual([event.kind for event in seen].count(EventKind.NEXT_SERVER), 1)

    def test_a_name_without_an_address_leaves_the_other_servers(self):
        seen = []
        with self.client() as client:
            client.fetch(**self.request(servers=["nowhere.invalid", "127.0.0.1"]),
                         on_event=seen.append)
        self.assert_fetched()
        failed = [event for event in seen if event.kind == EventKind.NAME_FAILED]
        self.assertEqual([(event.code, event.name) for event in failed],
                         [(Code.NAME, "nowhere.invalid")])
        self.assertTrue(failed[0].reason)

    def test_names_and_directories(self):
        versions = pathlib.Path(self.folder.name, "versions")
        versions.mkdir()
        with self.client() as client:
            result = client.fetch(**self.request(directory_name="people.csv",
                                                 version_name="edition",
                                                 version_dir=versions))
        self.assertEqual(result.path, str(self.output / "people.csv"))
        self.assertEqual(sorted(os.listdir(self.output)),
                         [".people.csv.corpdir.json", "people.csv"])
        self.assertEqual(os.listdir(versions), ["edition"])

    def test_password_as_bytes_that_stay_the_caller_s(self):
        secret = bytearray(PASSWORD.encode())
        with self.client() as client:
            client.fetch(**self.request(password=secret))
        self.assertEqual(secret.decode(), PASSWORD)

    def test_the_copies_of_the_password_are_wiped(self):
        copies = []

        def copied(size_or_bytes):
            copies.append(bytearray(size_or_bytes))
            return copies[-1]

        with mock.patch.object(corpdir._request, "bytearray", copied, create=True):
            with self.client() as client:
                client.fetch(**self.request())
                with self.assertRaises(CorpdirError):
                    client.start(**self.request(user=""))
        self.assertEqual([len(copy) for copy in copies],
                         [len(PASSWORD), len(PASSWORD) + 1] * 2)
        self.assertEqual([copy for copy in copies if any(copy)], [])

    def test_trust_and_certificate_names(self):
        authority = self.certificates / "authority.pem"
        with self.client() as client:
            for changes in (dict(trust=Trust(authority, names=["directory.example"])),
                            dict(trust=Trust(authority), certificate_names=["directory.example"]),
                            dict(certificate_names="other.example;directory.example")):
                with self.subTest(changes):
                    client.fetch(**self.request(**changes))
            for changes in (dict(trust=Trust(authority, names=["other.example"])),
                            dict(certificate_names=["other.example"])):
                with self.subTest(changes), self.assertRaises(CorpdirError) as caught:
                    client.fetch(**self.request(**changes))
                self.assertEqual(caught.exception.code, Code.CERTIFICATE)

    def test_status(self):
        path = self.output / "directory.csv"
        with self.assertRaises(CorpdirError) as caught:
            corpdir.status(path)
        self.assertEqual(caught.exception.code, Code.NO_STATE)
        with self.client() as client:
            client.fetch(**self.request())
        state = corpdir.status(path)
        self.assertEqual((state.version, state.bytes, state.server, state.failed, state.failures,
                          state.in_place, state.reason),
                         ("edition 17", len(DIRECTORY), "127.0.0.1", False, 0, True, ""))
        self.assertEqual(state.fetched, state.confirmed)
        self.assertEqual(state.fetched.tzinfo, datetime.timezone.utc)
        with self.client() as client, self.assertRaises(CorpdirError):
            client.fetch(**self.request(password="not this one"))
        path.unlink()
        state = corpdir.status(str(path))
        self.assertEqual((state.failed, state.failures, state.in_place), (True, 1, False))
        self.assertIn("login", state.reason)

    # --- Failures ---

    def fails(self, code, **changes):
        with self.client() as client:
            with self.assertRaises(CorpdirError) as caught:
                client.fetch(**self.request(**changes))
        self.assertEqual(caught.exception.code, code)
        self.assertFalse((self.output / "directory.csv").exists())
        return caught.exception

    def test_no_name_with_an_address(self):
        error = self.fails(Code.NAME, servers="nowhere.invalid")
        self.assertRegex(error.reason, "^nowhere.invalid: .")

    def test_a_file_that_is_too_large(self):
        self.assertIn("1000", self.fails(Code.TOO_LARGE, max_file_bytes=1000).reason)

    def test_an_invalid_version(self):
        self.server.publish("1")
        self.addCleanup(self.server.publish, "edition 17")
        self.fails(Code.VERSION)

    def test_retry_seconds(self):
        with self.client() as client:
            client.start(**self.request(version_file="no-such-file", retry_seconds=77))
            waiting = next(event for event in client.events(timeout=30)
                           if event.kind == EventKind.WAITING)
        self.assertEqual(waiting.seconds, 77)

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
        self.assertIn('"a;b"', self.fails(Code.SERVERS, servers=["127.0.0.1", "a;b"]).reason
                      .replace("'", '"'))
        self.fails(Code.NAMES, certificate_names=[""])
        self.fails(Code.TIMES, connect_seconds=3601)

    def test_arguments_that_c_cannot_see(self):
        client = self.client()
        for changes in (dict(port=-1), dict(port=2 ** 32), dict(max_file_bytes=2 ** 64),
                        dict(user="a\0b"), dict(password="a\0b")):
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
            with self.assertRaises(CorpdirError) as caught:
                client.fetch(**self.request(port=self.silent_port(),
                                            servers=["nowhere.invalid", "127.0.0.1"]), timeout=3)
        self.assertIn("the last failure: nowhere.invalid: ", caught.exception.reason)

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
        with self.assertRaises(CorpdirError):
            client.fileno()
        client.stop()
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

    def test_check_now_and_an_update(self):
        server = Server(self.certificates)
        self.addCleanup(server.close)
        with self.client() as client:
            with self.assertRaises(CorpdirError) as caught:
                client.check_now()
            self.assertEqual(caught.exception.code, Code.NOT_STARTED)
            client.fetch(**self.request(server))
            client.check_now()
            self.assertEqual(self.until(client, EventKind.UNCHANGED),
                             [EventKind.CHECKING, EventKind.UNCHANGED])
            server.publish("edition 18", DIRECTORY[::-1])
            client.check_now()
            self.assertEqual(self.until(client, EventKind.DELIVERED),
                             [EventKind.CHECKING, EventKind.NEW_VERSION, EventKind.DELIVERED])
        self.assertEqual((self.output / "directory.csv").read_bytes(), DIRECTORY[::-1])

    def test_stop(self):
        server = self.slow_server()
        with self.client() as client:
            client.stop()
            client.start(**self.request(server))
            events = client.events(timeout=30)
            next(events)
            client.stop()
            client.stop()
            self.assertEqual(list(events), [])
            self.assertEqual(list(client.events()), [])
            with self.assertRaises(CorpdirError) as caught:
                client.check_now()
            self.assertEqual(caught.exception.code, Code.NOT_STARTED)
            client.fetch(**self.request())
        self.assert_fetched()

    def wakes(self, end, wait):
        """`end` ends the waits of two other threads that have nothing else to wait for."""
        waiting = [threading.Thread(target=wait, daemon=True) for _ in range(2)]
        for thread in waiting:
            thread.start()
        time.sleep(0.2)  # the waits have begun, usually
        began = time.monotonic()
        end()
        for thread in waiting:
            thread.join(10)
        self.assertFalse(any(thread.is_alive() for thread in waiting))
        self.assertLess(time.monotonic() - began, 5)

    def test_close_and_stop_and_start_wake_an_iterator(self):
        request = self.request(port=self.silent_port())
        for end, on_event in itertools.product(("close", "stop", "start"), (None, lambda _: None)):
            with self.subTest(end=end, on_event=on_event), self.client() as client:
                client.start(**request, on_event=on_event)
                self.wakes((lambda: client.start(**request)) if end == "start"
                           else getattr(client, end), lambda: list(client.events()))

    def test_close_wakes_a_fetch(self):
        caught = []

        def fetch():
            try:
                client.fetch(**self.request(port=self.silent_port()))
            except CorpdirError as error:
                caught.append(error.code)

        with self.client() as client:
            self.wakes(client.close, fetch)
        # One fetch was replaced by the other.
        self.assertEqual(caught, [Code.CLIENT] * 2)

    def test_select(self):
        kinds = []
        with self.client() as client, selectors.DefaultSelector() as selector:
            selector.register(client, selectors.EVENT_READ)
            self.assertEqual(selector.select(0), [])
            client.start(**self.request())
            while EventKind.DELIVERED not in kinds:
                self.assertTrue(selector.select(30), "an event within 30 s")
                kinds.extend(event.kind for event in client.events(timeout=0))
            self.assertEqual(selector.select(0.1), [])
            selector.unregister(client)
        self.assertIn(EventKind.CHECKING, kinds)

    def test_clients_leave_no_descriptor_and_no_thread(self):
        def use():
            with self.client() as client:
                client.start(**self.request(), on_event=lambda event: None)
                client.start(**self.request())
                next(client.events(timeout=30))

        use()
        before = self.descriptors(), self.threads()
        for _ in range(30):
            use()
        self.assertEqual((self.descriptors(), self.threads()), before)

    def test_progress_while_it_comes(self):
        server = self.slow_server()
        with self.client() as client:
            client.start(**self.request(server))
            progress = []
            for event in client.events(timeout=30):
                if event.kind == EventKind.PROGRESS and event.file == "directory.csv":
                    self.assertEqual(event.server, "127.0.0.1:%d" % server.port)
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
            kinds = self.until(client, EventKind.DELIVERED)
        self.assertEqual(kinds[-1], EventKind.DELIVERED)

    def test_an_unusable_request_leaves_the_earlier_one_alone(self):
        server = self.slow_server()
        with self.client() as client:
            client.start(**self.request(server))
            with self.assertRaises(CorpdirError):
                client.start(**self.request(user=""))
            progress = (event.bytes for event in client.events(timeout=30)
                        if event.kind == EventKind.PROGRESS and event.file == "directory.csv")
            self.assertEqual(len(set(itertools.islice(progress, 5))), 5)

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
            gc.collect()  # the client keeps what it calls
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
            if event.kind in (EventKind.DELIVERED, EventKind.UNCHANGED):
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

    def test_fetch_within_a_callback(self):
        results = []
        fetched = threading.Event()

        def on_event(event):
            if event.kind == EventKind.DELIVERED:
                results.append(client.fetch(**self.request()))
                fetched.set()

        with self.client() as client:
            client.start(**self.request(), on_event=on_event)
            self.assertTrue(fetched.wait(30))
        self.assertTrue(results[0].unchanged)

    def test_close_and_start_wait_for_a_callback(self):
        for end in (lambda client: client.close(), lambda client: client.stop(),
                    lambda client: client.start(**self.request())):
            called = threading.Event()
            returned = []

            def on_event(_event, called=called, returned=returned):
                called.set()
                time.sleep(0.3)
                returned.append(True)

            with self.client() as client:
                client.start(**self.request(), on_event=on_event)
                self.assertTrue(called.wait(30))
                end(client)
                self.assertEqual(returned, [True])  # and no other call began
                time.sleep(0.5)
                self.assertEqual(returned, [True])

    def test_callbacks_of_two_requests_do_not_overlap(self):
        running = []
        overlaps = []
        delivered = threading.Event()

        def second(event):
            overlaps.extend(running)
            if event.kind in (EventKind.DELIVERED, EventKind.UNCHANGED):
                delivered.set()

        def first(_event):
            running.append(True)
            client.start(**self.request(), on_event=second)
            time.sleep(0.5)
            running.clear()

        with self.client() as client:
            client.start(**self.request(), on_event=first)
            self.assertTrue(delivered.wait(30))
        self.assertEqual(overlaps, [])

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

    def test_a_request_that_was_stopped_is_not_called_back(self):
        """Its first event had been taken, and waited for the callback that stopped it."""
        called = []
        stopped = threading.Event()

        def first(_event):
            client.start(**self.request(), on_event=called.append)
            time.sleep(0.3)  # the event is taken, usually
            client.stop()
            stopped.set()

        with self.client() as client:
            client.start(**self.request(), on_event=first)
            self.assertTrue(stopped.wait(30))
        self.assertEqual(called, [])

    # The program's client has a request under way, with the callback or without it.
    PROGRAM = """
import corpdir, sys, threading, time
client = corpdir.Client()
port, authority, output, password = sys.argv[1:]
request = dict(servers="127.0.0.1", port=int(port), user="ftp", password=password, trust=authority,
               version_file="version.txt", directory_file="directory.csv", directory_dir=output)
"""

    def program(self, lines, port=None):
        return [sys.executable, "-c", self.PROGRAM + lines, str(port or self.server.port),
                str(self.certificates / "authority.pem"), str(self.output), PASSWORD]

    def test_an_interpreter_ends_with_an_open_client(self):
        for start in ("client.start(**request, on_event=lambda event: None)",
                      "client.start(**request, on_event=lambda event: time.sleep(60))",
                      "client.start(**request)\nthreading.Thread(target=lambda: "
                      "list(client.events()), daemon=True).start()"):
            for delay in (0, 0.01, 0.05, 0.2):
                with self.subTest(start=start, delay=delay):
                    ended = subprocess.run(self.program("%s\ntime.sleep(%g)" % (start, delay)),
                                           capture_output=True, text=True, timeout=30)
                    self.assertEqual((ended.returncode, ended.stderr), (0, ""))

    def test_ctrl_c_ends_a_wait(self):
        for wait in ("client.fetch(**request, timeout=None)",
                     "client.start(**request)\nlist(client.events())",
                     "client.start(**request, on_event=print)\nlist(client.events())"):
            with self.subTest(wait):
                waiting = subprocess.Popen(
                    self.program("print('ready', flush=True)\n" + wait, port=self.silent_port()),
                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                self.assertEqual(waiting.stdout.readline(), "ready\n")
                time.sleep(0.5)  # the wait has begun, usually
                began = time.monotonic()
                waiting.send_signal(signal.SIGINT)
                _, errors = waiting.communicate(timeout=30)
                self.assertLess(time.monotonic() - began, 5)
                self.assertIn("KeyboardInterrupt", errors)
                self.assertEqual(waiting.returncode, -signal.SIGINT)

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
