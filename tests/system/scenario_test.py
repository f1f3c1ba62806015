#!/usr/bin/env python3
"""One scenario with the program and with the examples in C, C++ and Python: start with a first
server that refuses, update, failure, recovery, unchanged, stop. Each gives the same events in the
same order; prints them as a table.

Usage: scenario_test.py FACE=COMMAND ...    FACE: "program", or the language of an example
"""

import collections
import json
import os
import pathlib
import queue
import re
import shlex
import signal
import subprocess
import sys
import threading

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "program"))

from scene import PASSWORD, USER, Scene, environment  # noqa: E402

PATIENCE = 30  # seconds, for one event
DEAD, ALIVE = "127.0.0.2", "127.0.0.1"
LINE = re.compile(r"(\w+)(?: (\S+):\d+(?= |:|$))?(?: '(.*?)')?(?:: (.*))?$")

Event = collections.namedtuple("Event", "name server version reason")

# What is done, and the events that follow: name, server, version.
STEPS = [
    ("start", [("checking", DEAD, ""), ("failed", DEAD, ""), ("next_server", ALIVE, ""),
               ("checking", ALIVE, ""), ("new_version", ALIVE, "edition 1"),
               ("delivered", ALIVE, "edition 1")]),
    ("update", [("checking", ALIVE, ""), ("new_version", ALIVE, "edition 2"),
                ("delivered", ALIVE, "edition 2")]),
    ("failure", [("checking", ALIVE, ""), ("failed", ALIVE, ""), ("next_server", DEAD, ""),
                 ("checking", DEAD, ""), ("failed", DEAD, ""), ("next_server", ALIVE, ""),
                 ("checking", ALIVE, ""), ("failed", ALIVE, ""), ("no_server_left", "", ""),
                 ("waiting", "", "")]),
    ("recovery", [("checking", DEAD, ""), ("failed", DEAD, ""), ("next_server", ALIVE, ""),
                  ("checking", ALIVE, ""), ("unchanged", ALIVE, "edition 2"),
                  ("recovered", "", "")]),
    ("unchanged", [("checking", ALIVE, ""), ("unchanged", ALIVE, "edition 2")]),
]


def event_of_json(line):
    record = json.loads(line)
    name = {"downloaded": "delivered"}.get(record["event"], record["event"])
    return Event(name, record.get("server") or "", record.get("version", ""),
                 record.get("reason", ""))


def event_of_text(line):
    name, server, version, reason = LINE.match(line).groups()
    # The last failure of a check is the program's line before this one.
    ended = name in ("no_server_left", "check_failed")
    return Event(name, "" if ended else server or "", version or "", reason or "")


class Face:
    """A program that keeps the directory current and reports its events, a line each."""

    def __init__(self, name, command, scene, port, output):
        self.name = name
        self.is_program = name == "program"
        if self.is_program:
            command = command + [
                "watch", "--json", "--no-config", "--servers", DEAD + ";" + ALIVE, "--user", USER,
                "--port", str(port), "--ca", str(scene.authority), "--output-dir", str(output),
                "--version-file", "version.txt", "--directory-file", "directory.csv"]
        else:
            command = command + [DEAD + ";" + ALIVE, USER, str(output), str(scene.authority)]
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, env=environment(
                CORPDIR_PASSWORD=PASSWORD, CORPDIR_PORT=str(port),
                **{name: os.environ[name] for name in ("CORPDIR_LIBRARY", "PYTHONPATH")
                   if name in os.environ}))
        self.lines = queue.Queue()
        self.errors = []
        self.readers = [threading.Thread(target=self.read), threading.Thread(target=self.read_errors)]
        for reader in self.readers:
            reader.start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def read_errors(self):
        self.errors.extend(self.process.stderr)

    def take(self, count):
        """The next events. What comes late is found by the next step, or at the end."""
        events = []
        while len(events) < count:
            try:
                line = self.lines.get(timeout=PATIENCE)
            except queue.Empty:
                line = None
            if line is None:
                raise SystemExit("%s gives no more events after %s\n%s" % (
                    self.name, events, "".join(self.errors[-20:])))
            events.append(event_of_json(line) if self.is_program else event_of_text(line))
        return events

    def check_now(self):
        if self.is_program:
            self.process.send_signal(signal.SIGUSR1)
        else:
            self.process.stdin.write("\n")
            self.process.stdin.flush()

    def stop(self):
        """Returns the exit status and the events that nobody has asked for."""
        if self.is_program:
            self.process.send_signal(signal.SIGTERM)
        self.process.stdin.close()
        status = self.process.wait(PATIENCE)
        for reader in self.readers:
            reader.join()
        self.process.stdout.close()
        self.process.stderr.close()
        late = [line for line in iter(self.lines.get, None)]
        return status, late


def publish(root, edition):
    """Directory file first, each replaced as a whole."""
    for name in ("directory.csv", "version.txt"):
        (root / "new").write_text("edition %d\n" % edition * (1 if name == "version.txt" else 1000))
        (root / "new").replace(root / name)


def play(name, command, scene, certificate):
    root = scene.folder / ("served-" + name)
    output = scene.folder / ("local-" + name)
    root.mkdir()
    output.mkdir()
    publish(root, 1)
    port = scene.serve(root, certificate, "--host", ALIVE)
    face = Face(name, command, scene, port, output)
    change = {"update": lambda: publish(root, 2),
              "failure": (root / "version.txt").unlink,
              "recovery": lambda: publish(root, 2)}
    seen = []
    try:
        for step, expected in STEPS:
            change.get(step, lambda: None)()
            if step != "start":
                face.check_now()
            seen.append((step, face.take(len(expected))))
    finally:
        status, late = face.stop()
    if face.is_program:
        late = [line for line in late if '"stopped"' not in line]
    local = (output / "directory.csv").read_text()
    if (status, late, local) != (0, [], "edition 2\n" * 1000):
        raise SystemExit("%s: status %d, late %s, local %.20s\n%s" % (
            name, status, late, local, "".join(face.errors[-20:])))
    return seen


def main():
    faces = [argument.partition("=")[::2] for argument in sys.argv[1:]]
    if not faces:
        raise SystemExit(__doc__)
    with Scene() as scene:
        certificate = scene.make_certificate("server", "IP:" + ALIVE)
        played = {name: play(name, shlex.split(command), scene, certificate)
                  for name, command in faces}
    names = list(played)
    wrong = 0
    print("%-10s %-38s %s" % ("step", "expected", " ".join("%-8s" % name for name in names)))
    for number, (step, expected) in enumerate(STEPS):
        for place, event in enumerate(expected):
            same = [tuple(played[name][number][1][place][:3]) == event for name in names]
            wrong += same.count(False)
            print("%-10s %-38s %s" % (
                step, " ".join(filter(None, event)),
                " ".join("%-8s" % ("same" if one else "OTHER") for one in same)))
    reasons = {name: [event.reason for _, events in played[name] for event in events
                      if event.name == "failed"] for name in names}
    if len(set(map(str, (re.sub(r"\d{4,}", "N", str(found)) for found in reasons.values())))) != 1:
        raise SystemExit("the reasons differ: %s" % reasons)
    if wrong:
        raise SystemExit("\n".join("%s: %s" % (name, played[name]) for name in names))


if __name__ == "__main__":
    main()
