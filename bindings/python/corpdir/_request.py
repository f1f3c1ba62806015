"""A request as the application states it, and as the C library takes it."""

import contextlib
import ctypes
import dataclasses
import os
from typing import Iterator, Optional, Sequence, Union

from ._library import RequestRecord
from ._types import Code, CorpdirError, Path, Trust

Password = Union[str, bytes, bytearray]
Texts = Union[str, Sequence[str]]


def text(name: str, value: Optional[Path]) -> Optional[bytes]:
    """A text for the C library; a zero byte would truncate it."""
    if value is None:
        return None
    encoded = os.fsencode(value)
    if b"\0" in encoded:
        raise ValueError("%s contains a zero byte" % name)
    return encoded


def number(name: str, value: int, bits: int = 32) -> int:
    """A number for the C library, which would see one that is too large modulo 2**bits."""
    if not 0 <= value < 2 ** bits:
        raise ValueError("%s is out of range: %d" % (name, value))
    return value


def _joined(name: str, value: Texts, code: Code) -> str:
    """A list as the C library takes it. A text is such a list already."""
    if isinstance(value, str):
        return value
    for entry in value:
        if not entry or ";" in entry:
            raise CorpdirError(code, '%s has an entry that is empty or contains ";": %r'
                               % (name, entry))
    return ";".join(value)


def _secret(password: Password) -> bytearray:
    """A terminated copy of the password that can be wiped."""
    secret = bytearray(os.fsencode(password) if isinstance(password, str) else password)
    try:
        if 0 in secret:
            raise ValueError("password contains a zero byte")
        # Allocated with the terminator, so that growing it leaves no copy behind.
        terminated = bytearray(len(secret) + 1)
        terminated[:-1] = secret
        return terminated
    finally:
        _wipe(secret)


def _wipe(secret: bytearray) -> None:
    for i in range(len(secret)):
        secret[i] = 0


@dataclasses.dataclass
class Request:
    """The arguments of Client.start, which explains them."""

    servers: Texts
    user: str
    password: Password = dataclasses.field(repr=False)
    version_file: Path
    directory_file: Path
    directory_dir: Path
    directory_name: Optional[Path]
    version_dir: Optional[Path]
    version_name: Optional[Path]
    local_address: Optional[str]
    trust: Union[None, Path, Trust]
    certificate_names: Texts
    port: int
    plain: bool
    verify: bool
    max_file_bytes: int
    connect_seconds: int
    retry_seconds: int

    @contextlib.contextmanager
    def record(self) -> Iterator[RequestRecord]:
        """The record, valid within the block; the copy of the password in it is wiped after it."""
        for name in ("servers", "user", "password"):
            if getattr(self, name) is None:
                raise TypeError("%s is None" % name)
        trust = self.trust.text() if isinstance(self.trust, Trust) else self.trust
        texts = {"servers": _joined("servers", self.servers, Code.SERVERS), "user": self.user,
                 "version_file": self.version_file, "directory_file": self.directory_file,
                 "directory_dir": self.directory_dir, "directory_name": self.directory_name,
                 "version_dir": self.version_dir, "version_name": self.version_name,
                 "local_address": self.local_address, "trust": trust,
                 "certificate_names": _joined("certificate_names", self.certificate_names,
                                              Code.NAMES)}
        numbers = {"port": 32, "max_file_bytes": 64, "connect_seconds": 32, "retry_seconds": 32}
        record = RequestRecord(
            size=ctypes.sizeof(RequestRecord), mode=1 if self.plain else 0,
            without_verification=0 if self.verify else 1,
            **{name: text(name, value) for name, value in texts.items()},
            **{name: number(name, getattr(self, name), bits) for name, bits in numbers.items()})
        secret = _secret(self.password)
        try:
            held = (ctypes.c_char * len(secret)).from_buffer(secret)
            record.password = ctypes.addressof(held)
            yield record
        finally:
            _wipe(secret)
