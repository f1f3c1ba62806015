"""Values that the clients take and give; corpdir_c.h explains each number."""

import dataclasses
import enum
import os
from datetime import datetime, timezone
from typing import Optional, Sequence, Union

Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]


class _Number(enum.IntEnum):
    """A number of the C library. One that a later library adds gets the name UNKNOWN_number."""

    @classmethod
    def _missing_(cls, value: object) -> "Optional[_Number]":
        if not isinstance(value, int):
            return None
        member = int.__new__(cls, value)
        member._name_ = "UNKNOWN_%d" % value
        member._value_ = value
        return member


class Code(_Number):
    """Why a call or a transfer failed."""

    OK = 0
    ARGUMENT = 1
    CLIENT = 2
    BUSY = 3
    MEMORY = 4
    LOG = 5
    SERVICE = 6
    NOT_STARTED = 7
    NO_EVENT = 8
    NO_STATE = 9
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
    NAME = 27
    VERSION = 28
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
    NAMES = 64
    TIMES = 65


class EventKind(_Number):
    """Kinds of event. A check begins with CHECKING, and ends with DELIVERED, UNCHANGED,
    NO_SERVER_LEFT or CHECK_FAILED."""

    PROGRESS = 1          # bytes of a file have arrived
    TRANSFERRED = 2       # not sent to this package
    FAILED = 3            # a transfer failed; the next server may be asked next
    REFUSED = 4           # not sent to this package
    DELIVERED = 5         # a new directory file is complete under its local name
    LOST = 6              # events before this one are missing
    CHECKING = 7          # a server is asked for the version file
    NEXT_SERVER = 8       # the server before failed
    NEW_VERSION = 9       # the directory file follows
    UNCHANGED = 10        # the local directory file has the server's version
    INVALID_VERSION = 11  # the version file is not valid
    NAME_FAILED = 12      # a server's name has no address
    NO_SERVER_LEFT = 13   # the check failed: all servers did
    CHECK_FAILED = 14     # the check failed for another reason
    RECOVERED = 15        # the check succeeded after some that failed
    WAITING = 16          # until the next check after a failure
    WARNING = 17          # something to look at; the check goes on
    START_FAILED = 18     # the service could not be started again; CHECK_FAILED follows


class Step(_Number):
    """Steps of a transfer, in their order."""

    NONE = 0
    LOCAL_FILE = 1
    CONNECT = 2
    GREETING = 3
    AUTH = 4
    TLS = 5
    LOGIN = 6
    PROTECT = 7
    TYPE = 8
    PASSIVE = 9
    DATA_CONNECT = 10
    SIZE = 11
    RETRIEVE = 12
    DATA_TLS = 13
    RECEIVE = 14
    CONFIRM = 15


class CorpdirError(Exception):
    """A call or a fetch failed. `reason` is a sentence."""

    def __init__(self, code: int, reason: str) -> None:
        super().__init__(code, reason)
        self.code = Code(code)
        self.reason = reason

    def __str__(self) -> str:
        return "%s (%s)" % (self.reason, self.code.name)


@dataclasses.dataclass(frozen=True)
class Event:
    """One event. The members that its kind does not set have the values given here."""

    kind: EventKind
    server: str = ""             # "192.0.2.1:21" or "[2001:db8::1]:21"
    file: str = ""               # on the server
    bytes: int = 0               # received so far, or the size of the directory file
    total: Optional[int] = None  # size that the server announced
    code: Code = Code.OK         # of a failure
    reason: str = ""             # of a failure or warning, in words, without the server
    name: str = ""               # host name by which the server is listed
    version: str = ""            # as in the version file's first line
    path: str = ""               # of the local directory file
    time: datetime = datetime.fromtimestamp(0, timezone.utc)  # of the event, in UTC
    step: Step = Step.NONE       # of a failure
    reply: int = 0               # number of the server's reply that caused the failure
    failures: int = 0            # checks that failed in a row
    seconds: int = 0             # until the next check, at most


@dataclasses.dataclass(frozen=True)
class Result:
    """A fetched directory file. unchanged: the local file had the server's version already, and
    was left as it is."""

    path: str
    server: str
    bytes: int
    version: str
    unchanged: bool


@dataclasses.dataclass(frozen=True)
class State:
    """What is known of a local directory file. Times are in UTC; None: never."""

    version: str                   # of the directory file; "": it was never fetched
    bytes: int                     # its size when it was fetched
    sha256: str                    # 64 lower-case hexadecimal digits, or ""
    server: str                    # that gave it: "192.0.2.1", or "192.0.2.1 (host name)"
    fetched: Optional[datetime]    # when it was fetched
    confirmed: Optional[datetime]  # end of the last check that fetched it or found it unchanged
    checked: Optional[datetime]    # end of the last check
    failed: bool                   # the last check failed
    failures: int                  # checks that failed in a row
    in_place: bool                 # the local file exists and has the size that was fetched
    reason: str                    # why the last check failed; may be cut


@dataclasses.dataclass(frozen=True)
class Trust:
    """Which server certificates to accept.

    authorities: path of a PEM file or directory of certification authorities, or "system".
    names: DNS names; each certificate must carry one of them, whatever is listed in servers.
    implicit_tls: TLS from the first byte, on any port.
    """

    authorities: Path = "system"
    names: Sequence[str] = ()
    implicit_tls: bool = False

    def text(self) -> str:
        """The text form of the C interface. Raises ValueError for what it cannot express."""
        authorities = os.fsdecode(self.authorities)
        if ";" in authorities:
            raise ValueError('authorities contains ";": %s' % authorities)
        if isinstance(self.names, str):
            raise TypeError("names is a text, not a sequence of names")
        for name in self.names:
            if not name or set(name) & set(",;"):
                raise ValueError("not a DNS name: %r" % name)
        return ("ca=" + authorities + (";name=" + ",".join(self.names) if self.names else "")
                + (";tls=implicit" if self.implicit_tls else ""))
