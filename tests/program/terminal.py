#!/usr/bin/env python3
"""The program's progress on a real terminal, in tmux, while a server sends slowly.

- At 40, 80 and 200 columns: one progress line, no wider than the window, that moves forward; its rate
  is the server's, and the time left follows from it; nothing of it stays at the end.
- While the window is made narrower and wider: no pieces of an earlier line stay.
- In a pipe, with --json and on a dumb terminal: no escape sequences. With NO_COLOR: no colours.

Usage: terminal.py PROGRAM [--document FILE] [--screenshots DIR]
--document: the screens that it shows must look as the ones seen. --screenshots: writes those, one file
for each width. Exit status 0, or 1 with what was wrong.
"""

import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

from scene import PASSWORD, USER, Scene, environment

RATE = 1000000   # bytes a second that the server sends
SIZE = 11000000  # more than two intervals of 5 s, after which a pipe gets a line
WIDTHS = [40, 80, 200]
PATIENCE = 90    # seconds for a download, on a busy machine
REDRAWN = 3      # seconds in which a window that was resized has to be in order again

BAR = re.compile(r"(version|directory) \[(=*>? *)\] +(\d+)%"
                 r"(?:  ([\d.]+) (bytes|kB|MB) of ([\d.]+) (bytes|kB|MB))?"
                 r"(?:  ([\d.]+) (bytes|kB|MB)/s)?(?:  (\d+):(\d\d) left)?$")
WORDS = re.compile(r"(version|directory): .* \(\d+%\)")
UNITS = {"bytes": 1, "kB": 1000, "MB": 1000000}
COLOUR = re.compile(r"\x1b\[[0-9;]*3[0-9][0-9;]*m")

# In the document a screen is the block after such a mark, and the line above it gives the width.
SCREEN = re.compile(r"(\d+) columns:?\n+<!-- run: elsewhere tests/program/terminal.py -->\n+```text\n(.*?)```\n",
                    re.S)


def columns_of(terminal):
    with open(terminal, "rb", buffering=0) as file:
        return os.get_terminal_size(file.fileno()).columns


class Tmux:
    """A tmux of its own, without the user's settings."""

    def __init__(self, scene):
        self.scene = scene
        self.base = ["tmux", "-S", str(scene.folder / "tmux"), "-f", "/dev/null"]
        self.environment = environment(TERM="xterm-256color")

    def call(self, *arguments, check=True):
        done = subprocess.run([*self.base, *arguments], env=self.environment, check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if check and done.returncode != 0:
            raise SystemExit("tmux %s: %s" % (arguments[0], done.stderr))
        return done.stdout

    def end(self):
        self.call("kill-server", check=False)


class Window:
    """A window of tmux with one run of the program in it; it begins when start() is called."""

    def __init__(self, tmux, name, width, command, above=8):
        """above: number of lines above those of the program."""
        self.tmux, self.name = tmux, name
        self.raw_file = tmux.scene.folder / (name + ".raw")
        script = tmux.scene.write(name + ".sh", "stty -echo; seq -f 'earlier %%g' %d; read go\n%s\n"
                                  "echo \"[exit status $?]\"; exec sleep 600\n" % (above, command))
        tmux.call("new-session", "-d", "-s", name, "-x", str(width), "-y", "10", "sh %s" % script)
        tmux.call("set-option", "-t", name, "status", "off")
        tmux.call("set-option", "-t", name, "window-size", "manual")
        self.width = width
        tmux.call("pipe-pane", "-t", name, "cat > %s" % self.raw_file)
        self.lines = []  # the samples' progress lines, with the width at the time
        self.last_screen = []

    def start(self):
        self.tmux.call("send-keys", "-t", self.name, "Enter")

    def resize(self, width):
        """Stops the program during the change: tmux wraps its lines shortly before it reports the new
        width, and the program would still draw for the old one."""
        held = self.program_ids()
        for number in held:
            os.kill(number, signal.SIGSTOP)
        self.width = width
        self.tmux.call("resize-window", "-t", self.name, "-x", str(width), "-y", "10")
        terminal = self.tmux.call("display-message", "-p", "-t", self.name, "#{pane_tty}").strip()
        deadline = time.monotonic() + PATIENCE
        while columns_of(terminal) != width and time.monotonic() < deadline:
            time.sleep(0.01)
        for number in held:
            os.kill(number, signal.SIGCONT)

    def program_ids(self):
        shell = self.tmux.call("display-message", "-p", "-t", self.name, "#{pane_pid}").strip()
        children = pathlib.Path("/proc/%s/task/%s/children" % (shell, shell)).read_text()
        return [int(number) for number in children.split()]

    def screen(self, *options):
        """The rows that are not empty, without those that were there before."""
        text = self.tmux.call("capture-pane", "-p", *options, "-t", self.name)
        return [row.rstrip() for row in text.splitlines()
                if row.strip() and not row.startswith("earlier ")]

    def ended(self):
        return any("[exit status " in row for row in self.last_screen)

    def sample(self):
        """What is wrong with the screen as it is now."""
        rows = self.last_screen = self.screen()
        if any(row.startswith("version: ") for row in rows):
            return []  # the end, which check_end() looks at
        bars = [row for row in rows if BAR.match(row)]
        if len(bars) == 1:
            self.lines.append((self.width, bars[0]))
        if len(bars) > 1 or any(row not in bars for row in rows):
            return ["%s: more than a progress line on the screen:\n%s" % (self.name, "\n".join(rows))]
        # The last column stays empty: some terminals begin the next line there.
        return ["%s: %d columns in a window of %d:\n%s" % (self.name, len(bar), self.width, bar)
                for bar in bars if len(bar) >= self.width]

    def raw(self):
        return self.raw_file.read_bytes().decode()


class Test:
    def __init__(self, scene, program):
        self.scene, self.program = scene, program
        self.wrong = []
        scene.write("srv/version.txt", "2026-11-21 17:30\n")
        scene.write("srv/directory.csv", b"number,name,telephone,mail\n" * (SIZE // 27))
        scene.write("password", PASSWORD + "\n")
        self.port = scene.serve(scene.folder / "srv", scene.make_certificate("server", "IP:127.0.0.1"),
                                "--rate", str(RATE))
        self.tmux = Tmux(scene)

    def command(self, name, *more):
        """A command line of the shell that fetches into a folder of its own."""
        output = self.scene.folder / ("out-" + name)
        output.mkdir()
        return " ".join(["%s fetch --servers 127.0.0.1 --port %d --user %s" % (self.program, self.port, USER),
                         "--version-file version.txt --directory-file directory.csv",
                         "--output-dir %s --ca %s" % (output, self.scene.authority),
                         "--password-file %s" % (self.scene.folder / "password"), *more])

    def say(self, problem):
        self.wrong.append(problem)

    def expect(self, condition, problem):
        if not condition:
            self.say(problem)

    # All at the same time, since each takes eleven seconds.

    def run(self):
        dead = "--servers '127.0.0.2;127.0.0.1'"  # nothing listens on the first one
        windows = {name: Window(self.tmux, name, width, command, 0 if name == "first-row" else 8)
                   for name, width, command in [
            *[("w%d" % width, width, self.command("w%d" % width)) for width in WIDTHS],
            ("resized", 120, self.command("resized")),
            ("first-row", 80, self.command("first-row")),
            ("json", 80, self.command("json", "--json >%s" % (self.scene.folder / "json"))),
            ("plain", 80, "NO_COLOR=1 " + self.command("plain").replace("--servers 127.0.0.1", dead)),
            ("colour", 80, self.command("colour").replace("--servers 127.0.0.1", dead)),
            ("dumb", 80, "TERM=dumb " + self.command("dumb"))]}
        pipes = {name: subprocess.Popen(self.command(name, *more), shell=True, text=True,
                                        env=environment(TERM="xterm"), stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE)
                 for name, more in [("pipe", []), ("json-pipe", ["--json"])]}
        for window in windows.values():
            window.start()
        self.watch(windows)
        self.check_windows(windows)
        self.check_pipes({name: pipe.communicate() for name, pipe in pipes.items()})
        return {width: windows["w%d" % width] for width in WIDTHS}

    def watch(self, windows):
        """Watches the screens until all programs have ended, and resizes a window during this time."""
        sampled = [windows[name] for name in ["w%d" % width for width in WIDTHS] + ["resized"]]
        sizes = [50, 120, 50, 120]
        resized, unrest_until, began = windows["resized"], 0.0, time.monotonic()
        while not all(window.ended() for window in windows.values()):
            now = time.monotonic()
            if now - began > PATIENCE:
                self.say("no end: " + ", ".join(n for n, w in windows.items() if not w.ended()))
                return
            for window in sampled:
                problems = window.sample()
                if window is resized and now < unrest_until:
                    # In order for now; from here on it has to stay so.
                    unrest_until = now if not problems and window.lines[-1:] else unrest_until
                else:
                    self.wrong += problems
            for window in set(windows.values()) - set(sampled):
                window.last_screen = window.screen()
            if sizes and len(resized.lines) >= 8 * (5 - len(sizes)) and now >= unrest_until:
                resized.resize(sizes.pop(0))
                unrest_until = time.monotonic() + REDRAWN
            time.sleep(0.05)
        self.expect(not sizes, "the window was not resized often enough")

    def check_windows(self, windows):
        for width in WIDTHS:
            self.check_course(windows["w%d" % width])
        self.check_course(windows["resized"])
        for name in ["w%d" % width for width in WIDTHS] + ["resized"]:
            self.check_end(windows[name])
        # When the progress is in the first row, tmux keeps what is cleared from there on.
        self.check_end(windows["first-row"], "-S", "-")
        self.check_json((self.scene.folder / "json").read_text(), "--json on a terminal")
        self.expect(any(COLOUR.search(row) for row in windows["colour"].raw().splitlines()),
                    "no colour without NO_COLOR, so that its test shows nothing")
        self.expect(not COLOUR.search(windows["plain"].raw()), "a colour in spite of NO_COLOR")
        self.expect("\x1b[J" in windows["plain"].raw(), "no progress line with NO_COLOR")
        dumb = windows["dumb"].raw()
        self.check_words(dumb.replace("\r\n", "\n"), "a dumb terminal")

    def check_course(self, window):
        """Forward, at the server's rate."""
        found = [BAR.match(line) for _, line in window.lines]
        found = [bar for bar in found if bar.group(1) == "directory"]
        percents = [int(bar.group(3)) for bar in found]
        self.expect(len(set(percents)) >= 10, "%s: only %d different progress lines"
                    % (window.name, len(set(percents))))
        self.expect(percents == sorted(percents), "%s: not forward: %s" % (window.name, percents))
        for bar in found:
            inner = bar.group(2)
            done = inner.count("=") / len(inner)
            self.expect(abs(done - int(bar.group(3)) / 100) <= 1 / len(inner) + 0.01,
                        "%s: bar and percent differ: %s" % (window.name, bar.group()))
        # The first seconds' rate is that of the buffers on the way.
        for bar in [bar for bar in found if int(bar.group(3)) >= 40]:
            self.check_figures(window, bar)

    def check_figures(self, window, bar):
        share, rate = int(bar.group(3)) / 100, RATE
        if bar.group(4):
            total = float(bar.group(6)) * UNITS[bar.group(7)]
            part = float(bar.group(4)) * UNITS[bar.group(5)]
            self.expect(abs(total - SIZE) < SIZE / 50 and abs(part / total - share) < 0.03,
                        "%s: amount and percent differ: %s" % (window.name, bar.group()))
        if bar.group(8):
            rate = float(bar.group(8)) * UNITS[bar.group(9)]
            self.expect(RATE / 3 < rate < RATE * 2, "%s: rate: %s" % (window.name, bar.group()))
        if bar.group(10):
            left = int(bar.group(10)) * 60 + int(bar.group(11))
            due = SIZE * (1 - share) / rate
            # At 40 columns there is no rate beside it.
            slack = 1.5 if bar.group(8) else 2 * due + 2
            self.expect(abs(left - due) <= slack, "%s: time left: %s" % (window.name, bar.group()))

    def check_end(self, window, *options):
        rows = window.screen("-J", *options)  # lines that the window's width has broken, joined
        output = self.scene.folder / ("out-" + window.name) / "directory.csv"
        size = output.stat().st_size if output.exists() else 0
        expected = ["version: 2026-11-21 17:30", "directory: %s (%d bytes)" % (output, size),
                    "[exit status 0]"]
        self.expect(rows == expected, "%s: at the end:\n%s" % (window.name, "\n".join(rows)))

    def check_words(self, text, where):
        self.expect(not re.search(r"[\x00-\x09\x0b-\x1f]", text), "%s: control bytes: %r" % (where, text))
        self.expect(any(WORDS.match(line) for line in text.splitlines()), "%s: no progress: %r" % (where, text))

    def check_json(self, text, where):
        self.expect(len(text.splitlines()) == 1 and json.loads(text)["fetched"], "%s: %r" % (where, text))

    def check_pipes(self, outputs):
        self.check_words("".join(outputs["pipe"]), "a pipe")
        self.check_words(outputs["json-pipe"][1], "--json, standard error")
        self.check_json(outputs["json-pipe"][0], "--json in a pipe")


def typical(window):
    """A line from the middle of the download."""
    return next((line for _, line in window.lines if 60 <= int(BAR.match(line).group(3)) < 90), "")


def fields(line):
    """Which figures a line has."""
    found = BAR.match(line)
    return [group is not None for group in found.groups()] if found else None


def check_document(text, seen):
    screens = {int(width): screen.strip("\n") for width, screen in SCREEN.findall(text)}
    if sorted(screens) != WIDTHS:
        yield "the document shows screens of %s columns" % sorted(screens)
        return
    for width, line in screens.items():
        if len(line) >= width or fields(line) is None or fields(line) != fields(typical(seen[width])):
            yield "the document's screen of %d columns is not as seen:\n%s" % (width, typical(seen[width]))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program", type=pathlib.Path)
    parser.add_argument("--document", type=pathlib.Path)
    parser.add_argument("--screenshots", type=pathlib.Path)
    arguments = parser.parse_args()
    if shutil.which("tmux") is None:
        raise SystemExit("no tmux: run scripts/setup")
    with Scene() as scene:
        test = Test(scene, arguments.program.resolve())
        try:
            seen = test.run()
        finally:
            test.tmux.end()
    if arguments.document:
        test.wrong += check_document(arguments.document.read_text(), seen)
    if arguments.screenshots:
        arguments.screenshots.mkdir(exist_ok=True)
        for width, window in seen.items():
            (arguments.screenshots / ("%d.txt" % width)).write_text(typical(window) + "\n")
    for problem in test.wrong:
        print(problem)
    print("; ".join("%s: %d screens" % (window.name, len(window.lines)) for window in seen.values()))
    return 1 if test.wrong else 0


if __name__ == "__main__":
    sys.exit(main())
