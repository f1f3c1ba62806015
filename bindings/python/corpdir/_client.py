"""The blocking client."""

import ctypes
import os
import sys
import threading
import time
from datetime import datetime, timezone
from queue import Empty, SimpleQueue
from types import TracebackType
from typing import Callable, Iterable, Iterator, Optional, Type, Union

from ._library import SIZE_UNKNOWN, EventRecord, LogSettings, StateRecord, library
from ._request import Password, Request, Texts, number, text
from ._stream import Stream, seconds_left
from ._types import Code, CorpdirError, Event, EventKind, Path, Result, State, Step, Trust

OnEvent = Callable[[Event], object]


def version() -> str:
    """The C library's version."""
    found: bytes = library().corpdir_version()
    return found.decode()


def status(path: Path) -> State:
    """What is known of the local directory file at `path`, from the state beside it. Needs no
    client; another process may keep the file current. Raises CorpdirError, with Code.NO_STATE when
    no check of the file has ended yet."""
    record = StateRecord(size=ctypes.sizeof(StateRecord))
    code = library().corpdir_status(text("path", path), ctypes.byref(record))
    _check(code, os.fsdecode(record.reason))
    return State(version=os.fsdecode(record.version), bytes=record.bytes,
                 sha256=os.fsdecode(record.sha256), server=os.fsdecode(record.server),
                 fetched=_time(record.fetched), confirmed=_time(record.confirmed),
                 checked=_time(record.checked), failed=bool(record.failed),
                 failures=record.failures, in_place=bool(record.in_place),
                 reason=os.fsdecode(record.reason))


def _check(code: int, reason: str = "") -> None:
    if code != Code.OK:
        words: bytes = library().corpdir_error_text(code)
        raise CorpdirError(code, reason or words.decode())


def _time(seconds: int) -> Optional[datetime]:
    return datetime.fromtimestamp(seconds, timezone.utc) if seconds else None


def _event_of(record: EventRecord) -> Event:
    return Event(kind=EventKind(record.kind), server=os.fsdecode(record.server),
                 file=os.fsdecode(record.file), bytes=record.bytes,
                 total=None if record.total == SIZE_UNKNOWN else record.total,
                 code=Code(record.code), reason=os.fsdecode(record.reason),
                 name=os.fsdecode(record.name), version=os.fsdecode(record.version),
                 path=os.fsdecode(record.path),
                 time=datetime.fromtimestamp(record.time, timezone.utc), step=Step(record.step),
                 reply=record.reply, failures=record.failures, seconds=record.seconds)


def _failure(event: Event) -> str:
    place = event.server or event.name
    return "%s: %s" % (place, event.reason) if place else event.reason


class Check:
    """Follows the first check of a fetch to its end."""

    def __init__(self, timeout: Optional[float]) -> None:
        self._timeout = timeout
        self._last = ""

    def add(self, event: Event) -> Optional[Result]:
        """The result, when the event is the one that ends a successful check. Raises CorpdirError
        when it ends a failed one."""
        if event.kind in (EventKind.DELIVERED, EventKind.UNCHANGED):
            return Result(event.path, event.server, event.bytes, event.version,
                          event.kind == EventKind.UNCHANGED)
        if event.kind in (EventKind.NO_SERVER_LEFT, EventKind.CHECK_FAILED):
            raise CorpdirError(event.code, _failure(event))
        if event.kind in (EventKind.FAILED, EventKind.INVALID_VERSION, EventKind.NAME_FAILED):
            self._last = _failure(event)
        return None

    def unfinished(self, ended: bool) -> CorpdirError:
        """The failure when no event came. ended: because the request has ended."""
        if ended:
            return CorpdirError(Code.CLIENT, "the client was closed, or the request was replaced")
        reason = "timed out after %g s" % (self._timeout or 0)
        if self._last:
            reason += "; the last failure: " + self._last
        return CorpdirError(Code.TIMEOUT, reason)


class _CallbackThread(threading.Thread):
    """Calls on_event with the events of one request."""


def _join(thread: Optional[threading.Thread]) -> None:
    """Waits for a callback in progress, unless this is called within a callback."""
    if thread is not None and not isinstance(threading.current_thread(), _CallbackThread):
        thread.join()


class Client:
    """An open service; a context manager that closes it.

    log_dir: directory of the log; None: standard error. log_level: highest level written, 0 errors,
    1 fallbacks too, 2 everything. Raises CorpdirError, with Code.BUSY when the process has an open
    client already, and OSError when the C library cannot be loaded. A client that is not closed
    stays open until the process ends, which needs no close.

    Every method may be called on any thread. Ctrl-C ends a waiting fetch() or step of events().
    """

    def __init__(self, log_dir: Optional[Path] = None, log_level: int = 0,
                 log_max_file_bytes: int = 0, log_max_files: int = 0) -> None:
        self._c = library()
        self._one_start = threading.Lock()     # held while a request begins or is stopped
        self._changed = threading.Condition()  # guards what follows
        self._stream: Optional[Stream] = None  # of the request under way
        self._thread: Optional[threading.Thread] = None  # calls the last on_event
        self._replacing = False  # the next event may be of either request
        self._closed = False
        self._client = ctypes.c_void_p()
        log = LogSettings(ctypes.sizeof(LogSettings), text("log_dir", log_dir),
                          number("log_level", log_level),
                          number("log_max_file_bytes", log_max_file_bytes),
                          number("log_max_files", log_max_files), 0)
        _check(self._c.corpdir_open(ctypes.byref(log), ctypes.byref(self._client)))

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()

    def close(self) -> None:
        """Stops the service; a transfer under way is cancelled. A second call has no effect.

        The iterators of events() end, and a fetch() on another thread fails with Code.CLIENT. Waits
        for a callback in progress, unless it is called within that callback, which is then the last
        one.
        """
        with self._changed:
            # From here on no thread reads texts of the C library, which the close frees.
            self._closed = True
            stream, self._stream = self._stream, None
            thread = self._thread
            self._changed.notify_all()
        if stream is not None:
            stream.end()
        self._c.corpdir_close(self._client)
        _join(thread)

    def set_ciphers(self, suites: Iterable[int]) -> None:
        """Sets the TLS cipher suites of later requests (IANA numbers); empty: the default again."""
        numbers = [number("cipher suite", suite, 16) for suite in suites]
        array = (ctypes.c_uint16 * len(numbers))(*numbers)
        _check(self._c.corpdir_set_ciphers(self._client, array, len(numbers)))

    def add_cipher(self, suite: int) -> None:
        """Appends a cipher suite, to the default ones when none were set."""
        _check(self._c.corpdir_add_cipher(self._client, number("cipher suite", suite, 16)))

    def start(self, *, servers: Texts, user: str, password: Password, version_file: Path,
              directory_file: Path, directory_dir: Path, directory_name: Optional[Path] = None,
              version_dir: Optional[Path] = None, version_name: Optional[Path] = None,
              local_address: Optional[str] = None, trust: Union[None, Path, Trust] = None,
              certificate_names: Texts = (), port: int = 0, plain: bool = False,
              verify: bool = True, max_file_bytes: int = 0, connect_seconds: int = 0,
              retry_seconds: int = 0, on_event: Optional[OnEvent] = None) -> None:
        """Starts a request: a check now, then one every ten minutes. Replaces an earlier request.

        servers: a list of addresses or host names, or one text separated by ";". The certificate of
        a server must carry the name or address by which it is listed. password: str, bytes or
        bytearray; a bytearray can be wiped afterwards, and the copies made of it here are wiped.
        version_file, directory_file: on the server. directory_dir: existing local directory for the
        directory file; version_dir: for the version file, by default the same. directory_name,
        version_name: local names, by default the server's. local_address: to connect from.

        trust: a Trust, or "system" (default), the path of a PEM file or directory of authorities,
        or "ca=...;name=...". certificate_names: a list of DNS names, or one text separated by ";";
        each certificate must carry one of them, whatever is listed. port: 0 is 21. plain: FTP
        without encryption. verify: check the server's certificate. max_file_bytes: largest file
        that is accepted; 0: 16 GiB. connect_seconds: for each connection; 0: 10. retry_seconds:
        until the next check when one failed before a version was read, or for a version, a
        directory file or a local file; 0: 60. When later all servers fail, and after a refused
        login, it is ten minutes.

        on_event: called with each Event on a daemon thread of this client, one call at a time;
        every method may be called within. The thread ends with the request, at close() at the
        latest. An exception that on_event raises goes to threading.excepthook, and is raised by the
        next step of events(). Without on_event the events wait for events(), the last 1,000 of
        them.

        Raises CorpdirError; an earlier request then goes on, except after Code.LOG, SERVICE and
        MEMORY. Waits for a callback in progress of the earlier request, unless it is called within
        that callback.
        """
        self.begin(Request(
            servers=servers, user=user, password=password, version_file=version_file,
            directory_file=directory_file, directory_dir=directory_dir,
            directory_name=directory_name, version_dir=version_dir, version_name=version_name,
            local_address=local_address, trust=trust, certificate_names=certificate_names,
            port=port, plain=plain, verify=verify, max_file_bytes=max_file_bytes,
            connect_seconds=connect_seconds, retry_seconds=retry_seconds), on_event)

    def stop(self) -> None:
        """Ends the request under way; the client stays open. A transfer under way is cancelled, and
        the iterators of events() end. Without a request it has no effect. Waits for a callback in
        progress, unless it is called within that callback."""
        self.end(None)

    def check_now(self) -> None:
        """Checks now. A check under way goes on, and another one follows it. Raises CorpdirError,
        with Code.NOT_STARTED when no request is under way."""
        _check(self._c.corpdir_check_now(self._client))

    def events(self, timeout: Optional[float] = None) -> Iterator[Event]:
        """Iterates over the events of the request under way.

        Ends when the client is closed, when the request is replaced or stopped, or when no event
        came for `timeout` seconds. Each event is given once. The events of a request with on_event
        go there, and not here; then a step raises the next exception of on_event.
        """
        with self._changed:
            stream = self._stream
        if stream is None:
            return
        if stream.errors is not None:
            _raise_next(stream.errors, timeout)
            return
        yield from self.events_of(stream, timeout)

    def fileno(self) -> int:
        """A descriptor that can be read while an event waits: for select, and for the event loops
        of other frameworks. Take the events with events(timeout=0); do not read or close the
        descriptor. It is valid until close(): remove it from the loop before."""
        with self._changed:
            descriptor = -1 if self._closed else int(self._c.corpdir_event_fd(self._client))
        if descriptor < 0:
            _check(Code.CLIENT)
        return descriptor

    def fetch(self, *, servers: Texts, user: str, password: Password, version_file: Path,
              directory_file: Path, directory_dir: Path, directory_name: Optional[Path] = None,
              version_dir: Optional[Path] = None, version_name: Optional[Path] = None,
              local_address: Optional[str] = None, trust: Union[None, Path, Trust] = None,
              certificate_names: Texts = (), port: int = 0, plain: bool = False,
              verify: bool = True, max_file_bytes: int = 0, connect_seconds: int = 0,
              retry_seconds: int = 0, timeout: Optional[float] = 60.0,
              on_event: Optional[OnEvent] = None) -> Result:
        """Starts a request and waits for the end of its first check; the arguments are those of
        start().

        Raises CorpdirError when the check failed, with the last failure's code, server and reason,
        and with Code.TIMEOUT when it has not ended after `timeout` seconds (None: no limit).
        on_event is called for each event, on this thread; its exceptions are raised.

        The request stays under way: checks follow, and their events wait for events(). stop() ends
        it.
        """
        deadline = None if timeout is None else time.monotonic() + timeout
        stream = self.begin(Request(
            servers=servers, user=user, password=password, version_file=version_file,
            directory_file=directory_file, directory_dir=directory_dir,
            directory_name=directory_name, version_dir=version_dir, version_name=version_name,
            local_address=local_address, trust=trust, certificate_names=certificate_names,
            port=port, plain=plain, verify=verify, max_file_bytes=max_file_bytes,
            connect_seconds=connect_seconds, retry_seconds=retry_seconds), None)
        check = Check(timeout)
        while True:
            event = self._next(stream, deadline)
            if event is None:
                raise check.unfinished(stream.ended)
            if on_event is not None:
                on_event(event)
            result = check.add(event)
            if result is not None:
                return result

    # The rest is for this package.

    def begin(self, request: Request, on_event: Optional[OnEvent]) -> Stream:
        """Starts a request; see start()."""
        with request.record() as record, self._one_start:
            with self._changed:
                stream = Stream(self.fileno())
            before = self._thread
            thread = None
            if on_event is not None:
                stream.errors = SimpleQueue()
                thread = _CallbackThread(name="corpdir-events", daemon=True, target=self._call_back,
                                         args=(stream, stream.errors, on_event, before))
            code = self._replace(
                lambda: int(self._c.corpdir_start(self._client, ctypes.byref(record))), stream,
                thread)
            reason = self._start_reason() if code != Code.OK else ""
        _check(code, reason)
        _join(before)
        return stream

    def end(self, stream: Optional[Stream]) -> None:
        """Stops the request of the stream if it is the one under way; None: any request."""
        with self._one_start:
            with self._changed:
                if self._closed or stream not in (None, self._stream):
                    return
            before = self._thread
            code = self._replace(lambda: int(self._c.corpdir_stop(self._client)), None, None)
        if code not in (Code.NOT_STARTED, Code.CLIENT):
            _check(code)
        _join(before)

    def take(self, stream: Stream, timeout: Optional[float]) -> Optional[Event]:
        """The next waiting event of a stream. While another request begins, waits for the outcome,
        at most for `timeout` seconds."""
        with self._changed:
            settled = self._changed.wait_for(lambda: not self._replacing or self._closed, timeout)
            if not settled or self._stream is not stream:
                return None
            record = EventRecord(size=ctypes.sizeof(EventRecord))
            code = self._c.corpdir_next_event(self._client, ctypes.byref(record))
            if code == Code.NO_EVENT:
                return None
            _check(code)
            return _event_of(record)

    def events_of(self, stream: Stream, timeout: Optional[float]) -> Iterator[Event]:
        """The events of a stream up to its end, or until none came for `timeout` seconds."""
        while True:
            event = self._next(stream, None if timeout is None else time.monotonic() + timeout)
            if event is None:
                return
            yield event

    def _next(self, stream: Stream, deadline: Optional[float]) -> Optional[Event]:
        """The next event of a stream; None at its end and at the deadline."""
        while True:
            event = self.take(stream, seconds_left(deadline))
            if event is not None or not stream.wait(deadline):
                return event

    def _replace(self, call: Callable[[], int], stream: Optional[Stream],
                 thread: Optional[threading.Thread]) -> int:
        """Has the C library replace the request under way by that of the stream, or by none.
        thread: calls on_event for the stream. Returns the code of the call."""
        code: Optional[int] = Code.ARGUMENT  # C was not called
        try:
            with self._changed:
                self._replacing = True
            if thread is not None:
                thread.start()
            code = None
            code = call()
            return code
        finally:
            over = []
            with self._changed:
                self._replacing = False
                # None: interrupted by a signal, so that the call may have succeeded.
                if code in (Code.OK, Code.LOG, Code.SERVICE, Code.MEMORY, Code.NOT_STARTED, None):
                    over.append(self._stream)
                    self._stream = None
                if code == Code.OK and not self._closed:
                    self._stream = stream
                    self._thread = thread or self._thread
                else:
                    over.append(stream)
                self._changed.notify_all()
            for ended in over:
                if ended is not None:
                    ended.end()

    def _call_back(self, stream: Stream, errors: "SimpleQueue[Optional[BaseException]]",
                   on_event: OnEvent, before: Optional[threading.Thread]) -> None:
        for event in self.events_of(stream, None):
            if before is not None:
                # The callback that started this request may still run.
                before.join()
                before = None
            if stream.ended:
                return
            try:
                on_event(event)
            except BaseException as error:  # pylint: disable=broad-except
                errors.put(error)
                threading.excepthook(threading.ExceptHookArgs(
                    (*sys.exc_info(), threading.current_thread())))

    def _start_reason(self) -> str:
        buffer = ctypes.create_string_buffer(512)
        self._c.corpdir_start_reason(self._client, buffer, len(buffer))
        return os.fsdecode(buffer.value)


def _raise_next(errors: "SimpleQueue[Optional[BaseException]]", timeout: Optional[float]) -> None:
    """Raises the next exception of a callback; returns at the end of its request."""
    try:
        error = errors.get(timeout=timeout)
    except Empty:
        return
    if error is None:
        errors.put(None)  # for other iterators
    else:
        raise error
