"""A closed port of 127.0.0.1, and runs of the program against it."""

import contextlib
import select
import signal
import socket
import subprocess
import time

PATIENCE = 60  # seconds; under a sanitizer everything takes its time


@contextlib.contextmanager
def closed_port():
    """Bound, so that no other process gets it, but not listening."""
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        yield taken.getsockname()[1]


def run(*call):
    return subprocess.run(call, capture_output=True, text=True, timeout=PATIENCE, stdin=subprocess.DEVNULL)


def watch_until(text, *call):
    """(output, exit status) of a watch that is asked to stop after a line with this text."""
    deadline = time.monotonic() + PATIENCE
    lines = []
    with subprocess.Popen(call, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, bufsize=0) as process:
        try:
            while not lines or text not in lines[-1]:
                ready, _, _ = select.select([process.stdout], [], [], max(0, deadline - time.monotonic()))
                line = process.stdout.readline().decode() if ready else ""
                if not line:
                    raise SystemExit("%s: no '%s' in\n%s" % (" ".join(call), text, "".join(lines)))
                lines.append(line)
            process.send_signal(signal.SIGTERM)
            rest = process.communicate(timeout=PATIENCE)[0].decode()
        finally:
            process.kill()
    return "".join(lines) + rest, process.returncode
