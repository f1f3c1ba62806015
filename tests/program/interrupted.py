#!/usr/bin/env python3
"""Kills and crowds of the program beside a publisher: the local files stay whole and in step.

The publisher replaces the directory file and then the version file, many times a second. At every
moment the local directory file is one that was published, the local version is at most as new, and a
run that has ended leaves three files: both, and the state.

Usage: interrupted.py PROGRAM [--kills N] [--crowd SECONDS]. Prints figures; status 1 with one line for
each fault.
"""

import argparse
import contextlib
import os
import pathlib
import random
import signal
import subprocess
import sys
import threading
import time

from scene import PASSWORD, USER, Scene, environment

LINES = 20_000  # of the directory file, all alike
NAMES = {"directory.csv", "version.txt", ".directory.csv.corpdir.json"}


class Publisher:
    """Publishes an edition every 20 ms while the `with` lasts."""

    def __init__(self, root):
        self.root = root
        self.editions = 0
        self.stop = threading.Event()
        self.thread = threading.Thread(target=self.run)

    def put(self, name, text):
        new = self.root / (name + ".new")
        new.write_text(text)
        new.rename(self.root / name)

    def publish(self):
        self.editions += 1
        edition = "edition %06d\n" % self.editions
        self.put("directory.csv", edition * LINES)
        self.put("version.txt", edition)

    def run(self):
        while not self.stop.wait(0.02):
            self.publish()

    def __enter__(self):
        self.publish()
        self.thread.start()
        return self

    def __exit__(self, *failure):
        self.stop.set()
        self.thread.join()


class Local:
    """The output directory, and what is wrong with it."""

    def __init__(self, folder):
        self.folder = folder
        self.checks = 0
        self.behind = 0  # pairs in which the directory file was newer
        self.faults = []

    def read(self, name):
        try:
            return (self.folder / name).read_text()
        except FileNotFoundError:
            return ""

    def check(self, when):
        """The version file must not change while the directory file is read."""
        version = self.read("version.txt")
        directory = self.read("directory.csv")
        if self.read("version.txt") != version:
            return
        self.checks += 1
        edition = directory.partition("\n")[0] + "\n"
        if directory and directory != edition * LINES:
            self.faults.append("%s: the directory file is mixed or cut" % when)
        if version > edition and version:
            self.faults.append("%s: version %r is ahead of the directory file, %r" % (when, version, edition))
        self.behind += version < edition

    def check_names(self, when):
        names = set(os.listdir(self.folder))
        if names != NAMES:
            self.faults.append("%s: the files are %s" % (when, sorted(names)))


class Program:
    def __init__(self, path, scene, port, output):
        self.line = [path, "%s", "--servers=127.0.0.1", "--port=%d" % port, "--user=" + USER,
                     "--version-file=version.txt", "--directory-file=directory.csv",
                     "--output-dir=%s" % output, "--ca=%s" % scene.authority]
        self.environment = environment(CORPDIR_PASSWORD=PASSWORD)

    def start(self, command, **streams):
        line = [word % command if word == "%s" else word for word in self.line]
        return subprocess.Popen(line, env=self.environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, **streams)

    def fetch(self, faults):
        process = self.start("fetch", stderr=subprocess.PIPE, text=True)
        _, messages = process.communicate(timeout=60)
        if process.returncode != 0:
            faults.append("fetch ended with %d: %s" % (process.returncode, messages))


def kill(program, local, count):
    """SIGKILL at random moments of fetch and watch, each followed by a run that ends."""
    began = time.monotonic()
    program.fetch(local.faults)
    usual = time.monotonic() - began
    left = 0
    for number in range(count):
        command = ("fetch", "watch")[number % 2]
        process = program.start(command, stderr=subprocess.DEVNULL)
        time.sleep(random.uniform(0, 1.5 * usual))
        process.kill()
        process.wait()
        when = "after kill %d, of %s" % (number + 1, command)
        local.check(when)
        left += set(os.listdir(local.folder)) != NAMES
        program.fetch(local.faults)
        local.check(when)
        local.check_names(when + ", and a whole run")
    print("%d kills within %.0f ms: %d left files, %d pairs checked, %d with a newer directory file" %
          (count, 1500 * usual, left, local.checks, local.behind))
    if left == 0 and count > 0:
        local.faults.append("no kill left a file: they came at the wrong moments")


def crowd(program, local, seconds):
    """Four times fetch again and again, beside four watches that check all the time."""
    before = local.checks
    runs = 0
    end = time.monotonic() + seconds
    faults = []

    def fetch_again():
        nonlocal runs
        while time.monotonic() < end:
            program.fetch(faults)
            runs += 1

    with contextlib.ExitStack() as stack:
        watches = [program.start("watch", stderr=subprocess.DEVNULL) for _ in range(4)]
        stack.callback(lambda: [(watch.kill(), watch.wait()) for watch in watches])
        fetches = [threading.Thread(target=fetch_again) for _ in range(4)]
        time.sleep(1)  # before it handles its signals, one would end a watch
        for thread in fetches:
            thread.start()
        signals = 0
        while time.monotonic() < end:
            for watch in watches:
                watch.send_signal(signal.SIGUSR1)
                signals += 1
            local.check("in the crowd")
        for thread in fetches:
            thread.join()
        for watch in watches:
            watch.send_signal(signal.SIGTERM)
            if watch.wait(timeout=60) != 0:
                faults.append("a watch ended with %d" % watch.returncode)
    local.faults += faults
    local.check("after the crowd")
    local.check_names("after the crowd")
    print("crowd of 8 for %d s: %d fetches, %d checks asked for, %d pairs checked" %
          (seconds, runs, signals, local.checks - before))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--kills", type=int, default=20)
    parser.add_argument("--crowd", type=int, default=3)
    arguments = parser.parse_args()
    with Scene() as scene:
        root = scene.folder / "served"
        output = scene.folder / "output"
        root.mkdir()
        output.mkdir()
        port = scene.serve(root, scene.make_certificate("server", "IP:127.0.0.1"))
        local = Local(pathlib.Path(output))
        with Publisher(root) as publisher:
            program = Program(arguments.program, scene, port, output)
            kill(program, local, arguments.kills)
            if arguments.crowd:
                crowd(program, local, arguments.crowd)
            print("%d editions published" % publisher.editions)
    for fault in local.faults[:20]:
        print(fault)
    return 1 if local.faults else 0


if __name__ == "__main__":
    sys.exit(main())
