"""The C library: its records, its functions, and where it is found."""

import ctypes
import os
import threading
from ctypes import POINTER, c_char, c_char_p, c_int, c_int64, c_size_t, c_uint16, c_uint32, c_uint64
from ctypes import c_void_p
from typing import Any, List, Optional, Tuple

SONAME = "libcorpdir_c.so.1"
SIZE_UNKNOWN = 2 ** 64 - 1


class LogSettings(ctypes.Structure):
    """corpdir_log_settings"""

    _fields_ = [("size", c_size_t), ("directory", c_char_p), ("level", c_uint32),
                ("max_file_bytes", c_uint32), ("max_files", c_uint32), ("reserved", c_uint32)]


class EventRecord(ctypes.Structure):
    """corpdir_event"""

    _fields_ = [("size", c_size_t), ("kind", c_uint32), ("code", c_uint32), ("server", c_char_p),
                ("file", c_char_p), ("reason", c_char_p), ("bytes", c_uint64),
                ("total", c_uint64), ("name", c_char_p), ("version", c_char_p),
                ("path", c_char_p), ("time", c_int64), ("step", c_uint32), ("reply", c_uint32),
                ("failures", c_uint32), ("seconds", c_uint32)]


class RequestRecord(ctypes.Structure):
    """corpdir_request. on_event stays NULL: the events are taken with corpdir_next_event, so that C
    never calls into the interpreter."""

    _fields_ = [("size", c_size_t), ("servers", c_char_p), ("user", c_char_p),
                ("password", c_void_p), ("version_file", c_char_p), ("directory_file", c_char_p),
                ("directory_dir", c_char_p), ("directory_name", c_char_p),
                ("version_dir", c_char_p), ("version_name", c_char_p),
                ("local_address", c_char_p), ("trust", c_char_p), ("port", c_uint32),
                ("mode", c_uint32), ("without_verification", c_uint32), ("reserved", c_uint32),
                ("on_event", c_void_p), ("user_data", c_void_p), ("certificate_names", c_char_p),
                ("max_file_bytes", c_uint64), ("connect_seconds", c_uint32),
                ("retry_seconds", c_uint32)]


class StateRecord(ctypes.Structure):
    """corpdir_state"""

    _fields_ = [("size", c_size_t), ("bytes", c_uint64), ("fetched", c_int64),
                ("confirmed", c_int64), ("checked", c_int64), ("failed", c_uint32),
                ("failures", c_uint32), ("in_place", c_uint32), ("reserved", c_uint32),
                ("version", c_char * 64), ("sha256", c_char * 72), ("server", c_char * 320),
                ("reason", c_char * 512)]


FUNCTIONS: Tuple[Tuple[str, Any, List[Any]], ...] = (
    ("corpdir_open", c_int, [POINTER(LogSettings), POINTER(c_void_p)]),
    ("corpdir_close", None, [c_void_p]),
    ("corpdir_start", c_int, [c_void_p, POINTER(RequestRecord)]),
    ("corpdir_start_reason", c_size_t, [c_void_p, c_char_p, c_size_t]),
    ("corpdir_stop", c_int, [c_void_p]),
    ("corpdir_check_now", c_int, [c_void_p]),
    ("corpdir_event_fd", c_int, [c_void_p]),
    ("corpdir_next_event", c_int, [c_void_p, POINTER(EventRecord)]),
    ("corpdir_status", c_int, [c_char_p, POINTER(StateRecord)]),
    ("corpdir_set_ciphers", c_int, [c_void_p, POINTER(c_uint16), c_size_t]),
    ("corpdir_add_cipher", c_int, [c_void_p, c_uint16]),
    ("corpdir_error_text", c_char_p, [c_uint32]),
    ("corpdir_version", c_char_p, []),
)


def _candidates() -> List[str]:
    """Where the library may be, the first choice first."""
    chosen = os.environ.get("CORPDIR_LIBRARY")
    if chosen:
        return [chosen]
    beside = os.path.join(os.path.dirname(os.path.abspath(__file__)), SONAME)
    return [beside, SONAME] if os.path.exists(beside) else [SONAME]


def _load() -> ctypes.CDLL:
    failures = []
    for candidate in _candidates():
        try:
            found = ctypes.CDLL(candidate)
            for name, result, arguments in FUNCTIONS:
                function = getattr(found, name)
                function.restype = result
                function.argtypes = arguments
            return found
        except OSError as error:
            failures.append(str(error))
        except AttributeError as error:
            failures.append("%s is too old for this package: %s" % (candidate, error))
    raise OSError("the C library of corpdir cannot be loaded (%s); install the package libcorpdir1 "
                  "or set CORPDIR_LIBRARY to the path of %s" % ("; ".join(failures), SONAME))


_library: Optional[ctypes.CDLL] = None
_library_lock = threading.Lock()


def library() -> ctypes.CDLL:
    """The loaded C library. Raises OSError."""
    global _library
    with _library_lock:
        if _library is None:
            _library = _load()
        return _library
