#!/usr/bin/env python3
"""The asyncio client of the Python package against a real FTPS server."""

import asyncio
import contextlib
import gc
import random
import threading
import time
import unittest

import corpdir
from corpdir import Code, CorpdirError, EventKind
from python_fixture import DIRECTORY, PythonTest, Server


@contextlib.asynccontextmanager
async def ticking():
    """A task beside the block; gives the longest time in which the loop did not run it."""
    longest = [0.0]

    async def tick():
        last = time.monotonic()
        while True:
            await asyncio.sleep(0.005)
            now = time.monotonic()
            longest[0] = max(longest[0], now - last)
            last = now

    task = asyncio.create_task(tick())
    await asyncio.sleep(0)  # it begins
    try:
        yield longest
    finally:
        task.cancel()
        with contextlib.suppress(asyncio.CancelledError):
            await task


class PythonAsync(PythonTest):
    BLOCKED = 0.4  # seconds without the loop that count as blocked, on a loaded machine too

    def client(self):
        return corpdir.AsyncClient(log_dir=self.log, log_level=2)

    def silent(self):
        return self.request(port=self.silent_port())

    def assert_stopped(self, client):
        with self.assertRaises(CorpdirError) as caught:
            client.check_now()
        self.assertEqual(caught.exception.code, Code.NOT_STARTED)

    def run_in_loop(self, test):
        async def main():
            async with self.client() as client:
                await test(client)

        asyncio.run(asyncio.wait_for(main(), 120))

    # --- Fetching ---

    def test_fetch(self):
        async def test(client):
            seen = []
            result = await client.fetch(**self.request(), on_event=seen.append)
            self.assertEqual(result, corpdir.Result(
                str(self.output / "directory.csv"), "127.0.0.1:%d" % self.server.port,
                len(DIRECTORY), "edition 17", False))
            self.assert_fetched()
            self.assertEqual([event.kind for event in seen if event.kind != EventKind.PROGRESS],
                             [EventKind.CHECKING, EventKind.NEW_VERSION, EventKind.DELIVERED])
            self.assert_stopped(client)
            self.assertTrue((await client.fetch(**self.request())).unchanged)

        self.run_in_loop(test)

    def test_failures(self):
        async def test(client):
            for code, changes in ((Code.LOGIN, dict(password="not this one")),
                                  (Code.NAME, dict(servers="nowhere.invalid")),
                                  (Code.USER, dict(user="")),
                                  (Code.AUTHORITIES, dict(trust="/nonexistent.pem"))):
                with self.subTest(code), self.assertRaises(CorpdirError) as caught:
                    await client.fetch(**self.request(**changes))
                self.assertEqual(caught.exception.code, code)
                self.assertTrue(caught.exception.reason)
                self.assert_stopped(client)
            with self.assertRaises(CorpdirError) as caught:
                async for _ in client.watch(**self.request(user="")):
                    self.fail("an event of a request that was refused")
            self.assertEqual(caught.exception.code, Code.USER)

        self.run_in_loop(test)

    def test_timeout(self):
        async def test(client):
            with self.assertRaises(CorpdirError) as caught:
                await client.fetch(**self.silent(), timeout=0.2)
            self.assertEqual(caught.exception.code, Code.TIMEOUT)
            self.assert_stopped(client)

        self.run_in_loop(test)

    def test_an_exception_of_on_event(self):
        def on_event(_event):
            raise KeyError("of the callback")

        async def test(client):
            with self.assertRaisesRegex(KeyError, "of the callback"):
                await client.fetch(**self.request(), on_event=on_event)
            self.assert_stopped(client)

        self.run_in_loop(test)

    def test_two_tasks_fetch_one_after_the_other(self):
        async def test(client):
            other = self.output / "other"
            other.mkdir()
            results = await asyncio.gather(client.fetch(**self.request()),
                                           client.fetch(**self.request(directory_dir=other)))
            self.assertEqual([result.path for result in results],
                             [str(self.output / "directory.csv"), str(other / "directory.csv")])

        self.run_in_loop(test)

    # --- Watching ---

    def test_watch(self):
        server = Server(self.certificates)
        self.addCleanup(server.close)

        async def test(client):
            kinds = []
            async for event in client.watch(**self.request(server)):
                if event.kind == EventKind.PROGRESS:
                    continue
                kinds.append(event.kind)
                if event.kind == EventKind.DELIVERED and event.version == "edition 17":
                    client.check_now()
                elif event.kind == EventKind.UNCHANGED:
                    server.publish("edition 18", DIRECTORY[::-1])
                    client.check_now()
                elif event.kind == EventKind.DELIVERED:
                    break
            self.assertEqual(kinds, [
                EventKind.CHECKING, EventKind.NEW_VERSION, EventKind.DELIVERED,
                EventKind.CHECKING, EventKind.UNCHANGED,
                EventKind.CHECKING, EventKind.NEW_VERSION, EventKind.DELIVERED])
            self.assertEqual((self.output / "directory.csv").read_bytes(), DIRECTORY[::-1])
            # The request ends soon after the break, without anything that waits for it.
            for _ in range(500):
                try:
                    client.check_now()
                except CorpdirError:
                    break
                await asyncio.sleep(0.01)
            self.assert_stopped(client)

        self.run_in_loop(test)

    def test_a_fetch_follows_a_break_at_once(self):
        async def test(client):
            for _ in range(20):
                async for _ in client.watch(**self.silent()):
                    break
                await client.fetch(**self.request())

        self.run_in_loop(test)

    def test_a_fetch_replaces_a_watch(self):
        async def test(client):
            async def watch():
                return [event.kind async for event in client.watch(**self.silent())]

            watching = asyncio.create_task(watch())
            await asyncio.sleep(0.2)
            await client.fetch(**self.request())
            self.assertEqual(await watching, [EventKind.CHECKING])
            # Within the body of the loop too.
            async for _ in client.watch(**self.silent()):
                await client.fetch(**self.request())

        self.run_in_loop(test)

    def test_a_request_that_is_refused_leaves_a_watch_alone(self):
        server = self.slow_server()

        async def test(client):
            seen = []
            refused = False
            async for event in client.watch(**self.request(server)):
                seen.append(event)
                if not refused:
                    refused = True
                    with self.assertRaises(CorpdirError):
                        await client.fetch(**self.request(user=""))
                if len(seen) == 10:
                    break
            self.assertGreater(seen[-1].bytes, 0)

        self.run_in_loop(test)

    # --- Opening, closing ---

    def test_one_client_at_a_time(self):
        async def test(_client):
            for other in (self.client(), self.client()):
                with self.assertRaises(CorpdirError) as caught:
                    async with other:
                        self.fail("a second client")
                self.assertEqual(caught.exception.code, Code.BUSY)

        self.run_in_loop(test)

    def test_a_client_that_is_not_open(self):
        async def main():
            client = self.client()
            for _ in range(2):
                with self.assertRaises(CorpdirError) as caught:
                    await client.fetch(**self.request())
                self.assertEqual(caught.exception.code, Code.CLIENT)
                await client.close()
                async with client:
                    await client.fetch(**self.request())

        asyncio.run(main())

    def test_close_ends_a_fetch_and_a_watch(self):
        async def test(client):
            fetching = asyncio.create_task(client.fetch(**self.silent()))
            await asyncio.sleep(0.2)
            await client.close()
            with self.assertRaises(CorpdirError) as caught:
                await fetching
            self.assertEqual(caught.exception.code, Code.CLIENT)
            async with client:
                async for _ in client.watch(**self.silent()):
                    await client.close()

        self.run_in_loop(test)

    def test_ciphers(self):
        async def test(client):
            client.set_ciphers([0xfffe])
            with self.assertRaises(CorpdirError) as caught:
                await client.fetch(**self.request())
            self.assertEqual(caught.exception.code, Code.CIPHER)
            client.set_ciphers([])
            client.add_cipher(0x1302)
            await client.fetch(**self.request())

        self.run_in_loop(test)

    # --- The loop ---

    def test_the_loop_is_never_blocked(self):
        """Not while a name is looked up, nor by a request that takes its time, nor by a close."""
        async def main():
            async with ticking() as longest:
                async with self.client() as client:
                    with self.assertRaises(CorpdirError):
                        await client.fetch(**self.request(servers="nowhere.invalid"))
                    with self.assertRaises(CorpdirError):
                        await client.fetch(**self.silent(), timeout=0.3)
                    await client.fetch(**self.request())
                    watching = asyncio.create_task(client.fetch(**self.silent()))
                    await asyncio.sleep(0.1)
                await asyncio.gather(watching, return_exceptions=True)
            self.assertLess(longest[0], self.BLOCKED)

        asyncio.run(main())

    def test_a_call_that_blocks_in_c_does_not_block_the_loop(self):
        async def test(client):
            blocking = client._client
            for name in ("begin", "end", "close"):
                before = getattr(blocking, name)
                setattr(blocking, name,
                        lambda *arguments, before=before: (time.sleep(0.5), before(*arguments))[1])
            async with ticking() as longest:
                began = time.monotonic()
                await client.fetch(**self.request())
                await client.close()
            self.assertGreater(time.monotonic() - began, 1.5)
            self.assertLess(longest[0], self.BLOCKED)

        self.run_in_loop(test)

    @staticmethod
    def count_looks(client):
        """Counts how often the client looks for an event from now on."""
        blocking = client._client
        take = blocking.take
        looks = []

        def counted(*arguments):
            looks.append(time.monotonic())
            return take(*arguments)

        blocking.take = counted
        return looks

    def test_a_waiting_loop_uses_no_time(self):
        async def test(client):
            watching = asyncio.create_task(client.fetch(**self.silent()))
            await asyncio.sleep(0.3)
            looks = self.count_looks(client)
            await asyncio.sleep(0.5)
            self.assertEqual(looks, [])
            watching.cancel()

        self.run_in_loop(test)

    def test_a_watch_waits_while_another_request_begins(self):
        server = self.slow_server()

        async def test(client):
            blocking = client._client
            replace = blocking._replace
            begun = threading.Event()

            def slowly(call, *arguments):
                def slow_call():
                    begun.set()
                    time.sleep(0.7)
                    return call()
                return replace(slow_call, *arguments)

            async def watch():
                async for _ in client.watch(**self.request(server)):
                    blocking._replace = slowly

            watching = asyncio.create_task(watch())
            await asyncio.sleep(0.3)
            looks = self.count_looks(client)
            fetching = asyncio.create_task(client.fetch(**self.request()))
            while not begun.is_set():
                await asyncio.sleep(0.01)
            looks.clear()
            await asyncio.sleep(0.5)
            self.assertEqual(looks, [])
            await asyncio.gather(fetching, watching)

        self.run_in_loop(test)

    # --- Cancellation ---

    def test_cancellation_is_quick_and_leaves_nothing_under_way(self):
        server = self.slow_server()

        async def test(client):
            for request in (self.silent(), self.request(server)):
                fetching = asyncio.create_task(client.fetch(**request))
                await asyncio.sleep(0.3)
                began = time.monotonic()
                fetching.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await fetching
                self.assertLess(time.monotonic() - began, 2)
                self.assert_stopped(client)
                self.assertFalse((self.output / "directory.csv").exists())
            await client.fetch(**self.request())
            self.assert_fetched()

        self.run_in_loop(test)

    def test_cancellation_of_an_opening(self):
        async def main():
            for delay in (0, 0.001, 0.002, 0.005):
                entering = asyncio.create_task(self.client().__aenter__())
                await asyncio.sleep(delay)
                entering.cancel()
                with contextlib.suppress(asyncio.CancelledError):
                    await (await entering).close()
            async with self.client() as client:
                await client.fetch(**self.request())

        asyncio.run(main())

    def test_a_thousand_cancelled_tasks(self):
        """Cancelled in all phases, one after the other and all at once."""
        phases = random.Random(7)

        async def cancelled(client, request, count):
            for _ in range(count):
                task = asyncio.create_task(client.fetch(**request))
                await asyncio.sleep(phases.choice((0, 0.0005, 0.002, 0.01)))
                task.cancel()
                with contextlib.suppress(asyncio.CancelledError):
                    await task

        async def at_once(client, request, count):
            tasks = [asyncio.create_task(client.fetch(**request)) for _ in range(count)]
            await asyncio.sleep(0.1)
            for task in tasks:
                task.cancel()
            done = await asyncio.gather(*tasks, return_exceptions=True)
            self.assertTrue(all(isinstance(end, asyncio.CancelledError) for end in done))

        async def test(client):
            request = self.request(self.slow_server())

            async def counts():
                # The service's threads of the last request have ended, and Python's garbage too.
                for _ in range(200):
                    gc.collect()
                    # The executor's threads are Python's, and stay.
                    found = self.descriptors(), self.threads() - threading.active_count()
                    if found == before:
                        break
                    await asyncio.sleep(0.01)
                return found

            before = None
            await cancelled(client, request, 100)
            await at_once(client, request, 500)
            before = await counts()
            memory = self.resident_bytes()
            await cancelled(client, request, 500)
            await at_once(client, request, 500)
            self.assertEqual(await counts(), before)
            self.assertLess(self.resident_bytes() - memory, 4_000_000)
            await client.fetch(**self.request())
            self.assert_fetched()

        self.run_in_loop(test)
        self.assertEqual(threading.active_count(), 1)


if __name__ == "__main__":
    unittest.main()
