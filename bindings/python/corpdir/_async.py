"""The client for asyncio."""

import asyncio
import contextlib
from types import TracebackType
from typing import AsyncIterator, Callable, Iterable, List, Optional, Type, TypeVar, Union

from ._client import Check, Client, OnEvent
from ._request import Password, Request, Texts
from ._stream import Stream
from ._types import Code, CorpdirError, Event, Path, Result, Trust

_T = TypeVar("_T")


async def _in_executor(call: Callable[[], _T]) -> _T:
    """Runs a call that may block in the default executor. When the task is cancelled meanwhile, the
    cancellation waits for the call's end."""
    future = asyncio.get_running_loop().run_in_executor(None, call)
    cancelled = None
    while not future.done():
        try:
            await asyncio.wait({future})
        except asyncio.CancelledError as error:
            cancelled = error
    if cancelled is None:
        return future.result()
    future.exception()  # looked at, so that the loop does not report it
    try:
        raise cancelled
    finally:
        cancelled = None  # it refers to this frame: a cycle


async def _wait(stream: Stream, deadline: Optional[float]) -> bool:
    """Waits for an event or the end of the request; False at the deadline."""
    loop = asyncio.get_running_loop()
    woken = loop.create_future()

    def wake() -> None:
        if not woken.done():
            woken.set_result(None)

    loop.add_reader(stream.readable, wake)
    loop.add_reader(stream.over, wake)
    try:
        left = None if deadline is None else max(0.0, deadline - loop.time())
        await asyncio.wait({woken}, timeout=left)
    finally:
        loop.remove_reader(stream.readable)
        loop.remove_reader(stream.over)
    return woken.done()


class AsyncClient:
    """An open service for asyncio; `async with` opens and closes it.

        async with corpdir.AsyncClient() as client:
            result = await client.fetch(servers=["ftp1.example.com"], ...)

    The arguments are those of Client. Opening raises CorpdirError, with Code.BUSY when the process
    has an open client already, and OSError when the C library cannot be loaded.

    Use it in one event loop. The calls that may block run in the loop's default executor; the
    events are taken when the descriptor of the C library is readable, without a thread. No request
    is under way when a fetch() or watch() has ended, was cancelled, or failed.
    """

    def __init__(self, log_dir: Optional[Path] = None, log_level: int = 0,
                 log_max_file_bytes: int = 0, log_max_files: int = 0) -> None:
        self._log = (log_dir, log_level, log_max_file_bytes, log_max_files)
        self._client: Optional[Client] = None

    async def __aenter__(self) -> "AsyncClient":
        # Here, because Python 3.9 binds them to the loop when they are made.
        self._turn = asyncio.Lock()  # held by a fetch, and while a watch begins
        self._settled = asyncio.Event()  # no request begins, so that taking an event cannot block
        self._settled.set()
        opened: List[Client] = []
        try:
            await _in_executor(lambda: opened.append(Client(*self._log)))
        except asyncio.CancelledError:
            for client in opened:
                await _in_executor(client.close)
            raise
        self._client = opened[0]
        return self

    async def __aexit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                        traceback: Optional[TracebackType]) -> None:
        await self.close()

    async def close(self) -> None:
        """Stops the service; a transfer under way is cancelled. A watch() of another task ends, and
        its fetch() fails with Code.CLIENT. A second call has no effect."""
        client, self._client = self._client, None
        if client is not None:
            await _in_executor(client.close)

    def set_ciphers(self, suites: Iterable[int]) -> None:
        """Sets the TLS cipher suites of later requests (IANA numbers); empty: the default again."""
        self._opened().set_ciphers(suites)

    def add_cipher(self, suite: int) -> None:
        """Appends a cipher suite, to the default ones when none were set."""
        self._opened().add_cipher(suite)

    def check_now(self) -> None:
        """Has the watch() under way check now. A check under way goes on, and another one follows
        it. Raises CorpdirError, with Code.NOT_STARTED when no request is under way."""
        self._opened().check_now()

    async def fetch(self, *, servers: Texts, user: str, password: Password, version_file: Path,
                    directory_file: Path, directory_dir: Path,
                    directory_name: Optional[Path] = None, version_dir: Optional[Path] = None,
                    version_name: Optional[Path] = None, local_address: Optional[str] = None,
                    trust: Union[None, Path, Trust] = None, certificate_names: Texts = (),
                    port: int = 0, plain: bool = False, verify: bool = True,
                    max_file_bytes: int = 0, connect_seconds: int = 0, retry_seconds: int = 0,
                    timeout: Optional[float] = 60.0,
                    on_event: Optional[OnEvent] = None) -> Result:
        """Checks once, and fetches the directory file when the version changed; the arguments are
        those of Client.start().

        Raises CorpdirError when the check failed, with the last failure's code, server and reason,
        and with Code.TIMEOUT when it has not ended after `timeout` seconds (None: no limit).
        on_event is called for each event, in the loop; its exceptions are raised. Cancelling the
        task cancels the transfer.

        Replaces a watch() of another task, which ends. Waits for another task's fetch() to end,
        before its `timeout` begins.
        """
        request = Request(
            servers=servers, user=user, password=password, version_file=version_file,
            directory_file=directory_file, directory_dir=directory_dir,
            directory_name=directory_name, version_dir=version_dir, version_name=version_name,
            local_address=local_address, trust=trust, certificate_names=certificate_names,
            port=port, plain=plain, verify=verify, max_file_bytes=max_file_bytes,
            connect_seconds=connect_seconds, retry_seconds=retry_seconds)
        client = self._opened()
        check = Check(timeout)
        async with self._turn:
            deadline = None if timeout is None else asyncio.get_running_loop().time() + timeout
            async with self._under_way(client, request) as stream:
                while True:
                    event = await self._next(client, stream, deadline)
                    if event is None:
                        raise check.unfinished(stream.ended)
                    if on_event is not None:
                        on_event(event)
                    result = check.add(event)
                    if result is not None:
                        return result

    async def watch(self, *, servers: Texts, user: str, password: Password, version_file: Path,
                    directory_file: Path, directory_dir: Path,
                    directory_name: Optional[Path] = None, version_dir: Optional[Path] = None,
                    version_name: Optional[Path] = None, local_address: Optional[str] = None,
                    trust: Union[None, Path, Trust] = None, certificate_names: Texts = (),
                    port: int = 0, plain: bool = False, verify: bool = True,
                    max_file_bytes: int = 0, connect_seconds: int = 0,
                    retry_seconds: int = 0) -> AsyncIterator[Event]:
        """Keeps the directory file current, and iterates over the events: a check now, then one
        every ten minutes; the arguments are those of Client.start().

            async for event in client.watch(servers=["ftp1.example.com"], ...):
                if event.kind == corpdir.EventKind.DELIVERED:
                    load(event.path)

        The request begins with the first step, which raises CorpdirError when the request cannot be
        used. It ends when the loop over it is left or its task cancelled; the iterator ends when
        the client is closed, or when a fetch() or watch() of any task replaces this one. Leaving
        the loop by break ends the request when the iterator is released, soon afterwards: use
        contextlib.aclosing (Python 3.10) to have it end at once. While the loop's body runs, up to
        1,000 events wait.
        """
        request = Request(
            servers=servers, user=user, password=password, version_file=version_file,
            directory_file=directory_file, directory_dir=directory_dir,
            directory_name=directory_name, version_dir=version_dir, version_name=version_name,
            local_address=local_address, trust=trust, certificate_names=certificate_names,
            port=port, plain=plain, verify=verify, max_file_bytes=max_file_bytes,
            connect_seconds=connect_seconds, retry_seconds=retry_seconds)
        client = self._opened()
        async with contextlib.AsyncExitStack() as stack:
            async with self._turn:
                stream = await stack.enter_async_context(self._under_way(client, request))
            while True:
                event = await self._next(client, stream, None)
                if event is None:
                    return
                yield event

    def _opened(self) -> Client:
        if self._client is None:
            raise CorpdirError(Code.CLIENT, "the client is not open")
        return self._client

    @contextlib.asynccontextmanager
    async def _under_way(self, client: Client, request: Request) -> AsyncIterator[Stream]:
        """Starts a request, and stops it when the block is left and no other has replaced it."""
        begun: List[Stream] = []
        try:
            self._settled.clear()
            try:
                await _in_executor(lambda: begun.append(client.begin(request, None)))
            finally:
                self._settled.set()
            yield begun[0]
        finally:
            for stream in begun:
                await _in_executor(lambda: client.end(stream))

    async def _next(self, client: Client, stream: Stream,
                    deadline: Optional[float]) -> Optional[Event]:
        """The next event of a stream; None at its end and at the deadline."""
        while True:
            await self._settled.wait()
            event = client.take(stream, 0)
            if event is not None or stream.ended or not await _wait(stream, deadline):
                return event
