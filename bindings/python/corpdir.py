"""Client of the corporate-directory download service.

The service fetches a small version file from an FTP or FTPS server and, when its first line
changed, the directory file. It repeats the check every ten minutes, tries the next server when
one fails, and reports to the application by events.

    import corpdir

    with corpdir.Client(log_dir="/var/log/directory") as client:
        result = client.fetch(servers=["ftp1.example.com"], user="directory", password=password,
                              version_file="version.txt", directory_file="directory.csv",
                              directory_dir="/var/lib/directory", timeout=60)
        print(result.path, result.bytes)

To stay current, start() a request and receive its events in a callback or from events().

The C library is found by its soname, or at the path in the environment variable CORPDIR_LIBRARY. A
process has one client at a time. Every method may be called on any thread; start() and fetch() by
one thread at a time.
"""

import atexit
import ctypes
import dataclasses
import enum
import os
import queue
import sys
import threading
import time
from typing import Optional

__all__ = ["Client", "CorpdirError", "Code", "Event", "EventKind", "Result", "version"]

SONAME = "libcorpdir_c.so.1"
SIZE_UNKNOWN = 2 ** 64 - 1


class Code(enum.IntEnum):
    """Why a call or a transfer failed; corpdir_c.h explains each."""

    OK = 0
    ARGUMENT = 1
    CLIENT = 2
    BUSY = 3
    MEMORY = 4
    LOG = 5
    SERVICE = 6
    NOT_STARTED = 7
    CONNECT = 16
    TLS = 17
    CERTIFICATE = 18
    LOGIN = 19
    FILE = 20
    REPLY = 21
    TIMEOUT = 22
    PARTIAL = 23
    TOO_LARGE = 24
    LOCAL_FILE = 25
    TRANSFER = 26
    REFUSED = 32
    CIPHER = 33
    AUTHORITIES = 34
    SYSTEM = 35
    SERVERS = 48
    USER = 49
    PASSWORD = 50
    VERSION_FILE = 51
    DIRECTORY_FILE = 52
    VERSION_DIR = 53
    VERSION_NAME = 54
    DIRECTORY_DIR = 55
    DIRECTORY_NAME = 56
    LOCAL_ADDRESS = 57
    TRUST = 58
    PORT = 59
    MODE = 60
    VERIFICATION = 61
    LOG_DIR = 62
    LOG_LEVEL = 63


class EventKind(enum.IntEnum):
    """Kinds of event."""

    PROGRESS = 1     # bytes of a file have arrived
    TRANSFERRED = 2  # a file is complete and in place
    FAILED = 3       # a transfer failed; the next server may be tried next
    REFUSED = 4      # a transfer could not begin
    DELIVERED = 5    # the directory file is complete
    LOST = 6         # memory ran out: events before this one are missing


class CorpdirError(Exception):
    """A call or a fetch failed. `code`: a Code, or an unknown number; `reason`: a sentence."""

    def __init__(self, code, reason):
        super().__init__(reason)
        self.code = _known(Code, code)
        self.reason = reason

    def __str__(self):
        name = self.code.name if isinstance(self.code, Code) else str(self.code)
        return "%s (%s)" % (self.reason, name)


@dataclasses.dataclass(frozen=True)
class Event:
    """One event. `total` is None until the server announced the size."""

    kind: EventKind
    server: str = ""
    file: str = ""
    bytes: int = 0
    total: Optional[int] = None
    code: Code = Code.OK
    reason: str = ""


@dataclasses.dataclass(frozen=True)
class Result:
    """A fetched directory file: its path, its server and its size."""

    path: str
    server: str
    bytes: int


class _LogSettings(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("directory", ctypes.c_char_p),
                ("level", ctypes.c_uint32), ("max_file_bytes", ctypes.c_uint32),
                ("max_files", ctypes.c_uint32), ("reserved", ctypes.c_uint32)]


class _Event(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("kind", ctypes.c_uint32), ("code", ctypes.c_uint32),
                ("server", ctypes.c_char_p), ("file", ctypes.c_char_p),
                ("reason", ctypes.c_char_p), ("bytes", ctypes.c_uint64),
                ("total", ctypes.c_uint64)]


_EventFunction = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(_Event))


class _Request(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("servers", ctypes.c_char_p),
                ("user", ctypes.c_char_p), ("password", ctypes.c_void_p),
                ("version_file", ctypes.c_char_p), ("directory_file", ctypes.c_char_p),
                ("directory_dir", ctypes.c_char_p), ("directory_name", ctypes.c_char_p),
                ("version_dir", ctypes.c_char_p), ("version_name", ctypes.c_char_p),
                ("local_address", ctypes.c_char_p), ("trust", ctypes.c_char_p),
                ("port", ctypes.c_uint32), ("mode", ctypes.c_uint32),
                ("without_verification", ctypes.c_uint32), ("reserved", ctypes.c_uint32),
                ("on_event", _EventFunction), ("user_data", ctypes.c_void_p)]


def _load():
    library = ctypes.CDLL(os.environ.get("CORPDIR_LIBRARY") or SONAME)
    client = ctypes.c_void_p
    for name, result, arguments in (
            ("corpdir_open", ctypes.c_int, [ctypes.POINTER(_LogSettings), ctypes.POINTER(client)]),
            ("corpdir_close", None, [client]),
            ("corpdir_start", ctypes.c_int, [client, ctypes.POINTER(_Request)]),
            ("corpdir_start_reason", ctypes.c_size_t, [client, ctypes.c_char_p, ctypes.c_size_t]),
            ("corpdir_set_ciphers", ctypes.c_int,
             [client, ctypes.POINTER(ctypes.c_uint16), ctypes.c_size_t]),
            ("corpdir_add_cipher", ctypes.c_int, [client, ctypes.c_uint16]),
            ("corpdir_error_text", ctypes.c_char_p, [ctypes.c_uint32]),
            ("corpdir_version", ctypes.c_char_p, [])):
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    return library


_library = None
_library_lock = threading.Lock()


def _c():
    global _library
    with _library_lock:
        if _library is None:
            _library = _load()
        return _library


def version():
    """The C library's version."""
    return _c().corpdir_version().decode()


def _known(kinds, number):
    """The member of an enumeration, or the number when a later library has added it."""
    try:
        return kinds(number)
    except ValueError:
        return int(number)


def _text(name, value):
    """A text for the C library; a zero byte would truncate it."""
    if value is None:
        return None
    encoded = os.fsencode(value)
    if b"\0" in encoded:
        raise ValueError("%s contains a zero byte" % name)
    return encoded


def _servers(servers):
    return servers if isinstance(servers, str) else ";".join(servers)


def _secret(password):
    """A terminated copy of the password that can be wiped."""
    secret = bytearray(os.fsencode(password) if isinstance(password, str) else password)
    if 0 in secret:
        raise ValueError("password contains a zero byte")
    # Allocated with the terminator, so that growing it leaves no copy behind.
    terminated = bytearray(len(secret) + 1)
    terminated[:-1] = secret
    _wipe(secret)
    return terminated


def _wipe(secret):
    for i in range(len(secret)):
        secret[i] = 0


def _number(name, value, bits=32):
    if not 0 <= value < 2 ** bits:
        raise ValueError("%s is out of range: %d" % (name, value))
    return value


def _event_of(record):
    return Event(kind=_known(EventKind, record.kind), server=os.fsdecode(record.server),
                 file=os.fsdecode(record.file), bytes=record.bytes,
                 total=None if record.total == SIZE_UNKNOWN else record.total,
                 code=_known(Code, record.code), reason=os.fsdecode(record.reason))


_thread = threading.local()


def _in_callback():
    return getattr(_thread, "in_callback", False)


class _Listener:
    """Receives one request's events. C calls its function, so it must outlive C's calls."""

    def __init__(self, on_event):
        self.on_event = on_event
        self.events = queue.SimpleQueue()  # of Event, an exception, or None for the end
        self.started = False
        self.dropping = False  # further events are not read
        self.function = _EventFunction(self._receive)

    def _receive(self, _user, record):
        _thread.in_callback = True
        # An exception cannot leave a C callback: ctypes would print it and go on.
        try:
            event = _event_of(record.contents)
            if self.on_event is not None:
                self.on_event(event)
            elif not self.dropping:
                self.events.put(event)
        except BaseException as error:  # pylint: disable=broad-except
            self.events.put(error)
            threading.excepthook(threading.ExceptHookArgs(
                (*sys.exc_info(), threading.current_thread())))

    def end(self):
        self.events.put(None)


def _describe(event):
    return "%s: %s" % (event.server, event.reason) if event.server else event.reason


class _Outcome:
    """Follows one pass through the servers and detects its failure."""

    def __init__(self, servers, version_file):
        # The service asks a single server twice.
        self.left = max(2, len(servers.split(";")))
        self.version_file = os.fsdecode(version_file)
        self.last = None
        self.version_came = False

    def add(self, event):
        """Raises CorpdirError when no more events follow before the next check."""
        if event.kind == EventKind.TRANSFERRED:
            self.version_came = True
        if event.kind not in (EventKind.FAILED, EventKind.REFUSED):
            return
        self.last = event
        self.left -= 1
        if event.kind == EventKind.REFUSED or event.file != self.version_file or self.left == 0:
            raise CorpdirError(event.code, _describe(event))

    def when_late(self, timeout):
        reason = "timed out after %g s" % timeout
        if self.last is not None:
            reason += "; the last failure: " + _describe(self.last)
        elif self.version_came:
            reason += "; the version file has come: does its first line have 5 bytes at least?"
        return reason


class Client:
    """An open service; a context manager that closes it.

    log_dir: directory of the log; None: standard error. log_level: highest level written, 0 errors,
    1 fallbacks too, 2 everything. Raises CorpdirError, with Code.BUSY when the process has an open
    client already, and OSError when the C library cannot be loaded. A client that is not closed
    stays open until the interpreter ends.
    """

    def __init__(self, log_dir=None, log_level=0, log_max_file_bytes=0, log_max_files=0):
        self._c = _c()
        self._lock = threading.Lock()
        self._listener = None
        self._kept = []  # listeners that C may call, or is calling
        self._closed = False
        self._client = ctypes.c_void_p()
        log = _LogSettings(ctypes.sizeof(_LogSettings), _text("log_dir", log_dir),
                           _number("log_level", log_level),
                           _number("log_max_file_bytes", log_max_file_bytes),
                           _number("log_max_files", log_max_files), 0)
        self._check(self._c.corpdir_open(ctypes.byref(log), ctypes.byref(self._client)))
        # C must not call into an interpreter that has ended.
        atexit.register(self.close)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Stops the service; a transfer under way is cancelled. A second call has no effect.

        Waits for a callback in progress, unless it is called within that callback, which is then
        the last one. Afterwards events() ends.
        """
        self._c.corpdir_close(self._client)
        if not _in_callback():
            # Only now has C left all callbacks; until then the exit handler keeps this object.
            atexit.unregister(self.close)
        with self._lock:
            self._closed = True
            listener, self._listener = self._listener, None
            if not _in_callback():
                self._kept.clear()
        if listener is not None:
            listener.end()

    def set_ciphers(self, suites):
        """Sets the TLS cipher suites of later requests (IANA numbers); empty: the default again."""
        suites = [_number("cipher suite", suite, 16) for suite in suites]
        array = (ctypes.c_uint16 * len(suites))(*suites)
        self._check(self._c.corpdir_set_ciphers(self._client, array, len(suites)))

    def add_cipher(self, suite):
        """Appends a cipher suite, to the default ones when none were set."""
        self._check(self._c.corpdir_add_cipher(self._client, _number("cipher suite", suite, 16)))

    def start(self, *, servers, user, password, version_file, directory_file, directory_dir,
              directory_name=None, version_dir=None, version_name=None, local_address=None,
              trust=None, port=0, plain=False, verify=True, on_event=None):
        """Starts a request: a check now, then one every ten minutes. Replaces an earlier request.

        servers: a list of addresses or host names, or one text separated by ";". password: str,
        bytes or bytearray; a bytearray can be wiped afterwards, and the copies made of it here are
        wiped. directory_dir: existing local directory for the directory file; version_dir: for the
        version file, by default the same. directory_name, version_name: local names, by default the
        server's. local_address: to connect from. trust: "system" (default), the path of a PEM file
        or directory of authorities, or "ca=...;name=...". plain: FTP without encryption. verify:
        check the server's certificate, which must be for the name or address by which the server
        is listed, or for one of the names of trust.

        on_event: called with each Event on a thread of the library's own, one call at a time; every
        method may be called within. An exception that it raises goes to threading.excepthook, and
        is raised by the next step of events(). Without on_event the events wait for events().

        Raises CorpdirError; the request is then not under way. Waits for a callback in progress of
        the earlier request, unless it is called within that callback.
        """
        for name, value in (("servers", servers), ("user", user), ("password", password)):
            if value is None:
                raise TypeError("%s is None" % name)
        texts = {"servers": _servers(servers), "user": user, "version_file": version_file,
                 "directory_file": directory_file, "directory_dir": directory_dir,
                 "directory_name": directory_name, "version_dir": version_dir,
                 "version_name": version_name, "local_address": local_address, "trust": trust}
        listener = _Listener(on_event)
        record = _Request(size=ctypes.sizeof(_Request), port=_number("port", port),
                          mode=1 if plain else 0, without_verification=0 if verify else 1,
                          on_event=listener.function,
                          **{name: _text(name, value) for name, value in texts.items()})
        secret = _secret(password)
        try:
            held = (ctypes.c_char * len(secret)).from_buffer(secret)
            record.password = ctypes.addressof(held)
            self._begin(listener, record)
        finally:
            _wipe(secret)

    def events(self, timeout=None):
        """Iterates over the events of the request under way, which was started without on_event.

        Ends when the client is closed, when another request replaces this one, or when no event
        came for `timeout` seconds. Raises the exception of a callback. Each event is given once.
        """
        with self._lock:
            listener = self._listener
        while listener is not None:
            try:
                item = listener.events.get(timeout=timeout)
            except queue.Empty:
                return
            if item is None:
                return
            if isinstance(item, BaseException):
                raise item
            yield item

    def fetch(self, *, timeout=60.0, on_event=None, **request):
        """Fetches the directory file and returns a Result; `request` is as for start().

        Takes the version file from the first server that sends it, and the directory file from the
        same server. Raises CorpdirError with the last failure's code and reason when no server
        sends the version file or that server does not send the directory file, and with
        Code.TIMEOUT when the fetch times out after `timeout` seconds. on_event is called for each
        event, on this thread; its exceptions are raised.

        The request stays under way: checks follow, and their events are dropped. close() the
        client, or start() a request to stay current and receive events. Not within a callback: its
        events would wait for that callback.
        """
        if _in_callback():
            raise RuntimeError("fetch() within a callback would wait for itself")
        deadline = time.monotonic() + timeout
        if "servers" in request:
            request["servers"] = _servers(request["servers"])
        self.start(**request)
        with self._lock:
            listener = self._listener
        if listener is None:
            raise CorpdirError(Code.CLIENT, "the client was closed")
        try:
            return self._wait(listener, deadline, timeout, on_event, request)
        finally:
            listener.dropping = True

    def _wait(self, listener, deadline, timeout, on_event, request):
        outcome = _Outcome(request["servers"], request["version_file"])
        while True:
            try:
                event = listener.events.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                raise CorpdirError(Code.TIMEOUT, outcome.when_late(timeout)) from None
            if event is None:
                raise CorpdirError(Code.CLIENT, "the client was closed, or another request made")
            if isinstance(event, BaseException):
                raise event
            if on_event is not None:
                on_event(event)
            if event.kind == EventKind.DELIVERED:
                return Result(_path(request), event.server, event.bytes)
            outcome.add(event)

    # A listener is dropped when C will not call it again: after a start that replaced it, on
    # another thread than C's own. Another start may be under way, with its listener in use: that
    # listener is not marked as started before this call.
    def _begin(self, listener, record):
        with self._lock:
            replaced = [kept for kept in self._kept if kept.started]
            self._kept.append(listener)
        code = self._c.corpdir_start(self._client, ctypes.byref(record))
        # Whether the earlier request is over: a request that cannot be used does not end it.
        over = code == Code.OK or Code.MEMORY <= code < Code.SERVERS
        with self._lock:
            before = self._listener if over else None
            if code == Code.OK:
                listener.started = True
            elif listener in self._kept:
                self._kept.remove(listener)
            if over:
                self._listener = listener if code == Code.OK and not self._closed else None
            if over and not _in_callback():
                self._kept = [kept for kept in self._kept if kept not in replaced]
        if before is not None:
            before.end()
        self._check(code, self._start_reason)

    def _start_reason(self):
        buffer = ctypes.create_string_buffer(512)
        self._c.corpdir_start_reason(self._client, buffer, len(buffer))
        return os.fsdecode(buffer.value)

    def _check(self, code, reason=None):
        if code != Code.OK:
            words = reason() if reason is not None else ""
            raise CorpdirError(code, words or self._c.corpdir_error_text(code).decode())


def _path(request):
    name = request.get("directory_name") or os.path.basename(os.fspath(request["directory_file"]))
    return os.path.join(os.fspath(request["directory_dir"]), name)
