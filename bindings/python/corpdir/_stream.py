"""The events of one request, as threads and event loops wait for them."""

import os
import queue
import select
import time
from typing import Callable, Optional


class Descriptor:
    """Owns a file descriptor, and closes it with the last reference: what waits for it keeps it
    open, and so never waits for another file that got its number."""

    def __init__(self, number: int) -> None:
        self._number = number

    def fileno(self) -> int:
        return self._number

    def __del__(self, close: Callable[[int], None] = os.close) -> None:
        close(self._number)


class Stream:
    """One request's events. `readable` can be read while an event waits in the C library, `over`
    once the request has ended."""

    def __init__(self, event_descriptor: int) -> None:
        # The C library closes its own descriptor.
        self.readable = Descriptor(os.dup(event_descriptor))
        over, self._end = map(Descriptor, os.pipe())
        self.over = over
        self.ended = False
        # Exceptions of the callback, and None at the end; None for a request without a callback.
        self.errors: Optional["queue.SimpleQueue[Optional[BaseException]]"] = None

    def end(self) -> None:
        """Wakes all that wait; there is no further event. Any thread."""
        self.ended = True
        # Not a close: the child of a fork may have the other end of the pipe open too.
        os.write(self._end.fileno(), b"\0")
        if self.errors is not None:
            self.errors.put(None)

    def wait(self, deadline: Optional[float]) -> bool:
        """Waits for an event or the end of the request; False at the end and at the deadline."""
        if self.ended:
            return False
        poll = select.poll()
        poll.register(self.readable, select.POLLIN)
        poll.register(self.over, select.POLLIN)
        left = seconds_left(deadline)
        ready = poll.poll(None if left is None else left * 1000)
        return bool(ready) and not self.ended


def seconds_left(deadline: Optional[float]) -> Optional[float]:
    """Until a deadline of time.monotonic(); None: there is none."""
    return None if deadline is None else max(0.0, deadline - time.monotonic())
