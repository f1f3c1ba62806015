#!/usr/bin/env python3
"""Measures what a fleet of clients costs a server, and how well a model predicts it.

    bench/fleet.py [--quick | --long] [--build DIR] [--vsftpd FILE] [FILE]

Calibrates the model's constants with 100 clients, then compares its predictions with runs of 100, 250
and 500, in which a new version is published. Replaces the part of FILE (docs/capacity.md by default)
between the two marks. --quick measures less, --long one run of 500 clients for ten intervals of a
minute; both print what they saw, and write no file unless one is named. DIR is a release build with
CORPDIR_BENCH.

As a module: measure(work, build, vsftpd, plan) gives the figures as a dict, report(figures) Markdown,
and replace_block(path, text) puts it into the page. `work` is a folder with ca.pem, server.pem and
server.key of 127.0.0.1, as make_certificates(work) leaves it. alone() first keeps the bytes of other
programs out of the figures.
"""
import argparse
import asyncio
import collections
import contextlib
import ctypes
import fcntl
import ftplib
import json
import os
import pathlib
import re
import shutil
import socket
import ssl
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

from ftp_site import PASSWORD, ROOT, VERSION, VSFTPD, configure, free_port, make_certificates

DIRECTORY = "directory.dat"
REAL_INTERVAL, REAL_IDLE = 600, 15
SMALL, MIDDLE, LARGE = 65536, 1 << 20, 5 << 20
PROGRAMS = 10
# Data ports of a server behind the counting proxy: below those that the system gives out.
PASSIVE = range(20100, 20164)
DELAY = 0.01  # seconds one way
BEGIN, END = "<!-- measured -->", "<!-- end -->"

Plan = collections.namedtuple("Plan", "calibrate interval rounds sizes test_interval test_rounds")
FULL = Plan(calibrate=100, interval=10, rounds=3, sizes=(100, 250, 500), test_interval=20,
            test_rounds=3)
QUICK = Plan(calibrate=50, interval=1, rounds=1, sizes=(100,), test_interval=2, test_rounds=2)
LONG = FULL._replace(sizes=(500,), test_interval=60, test_rounds=10)


class Bench:
    """Where everything is."""

    def __init__(self, work, build, vsftpd):
        self.work, self.build, self.vsftpd = (pathlib.Path(part) for part in (work, build, vsftpd))
        for folder in ("empty", "served", "clients"):
            (self.work / folder).mkdir(exist_ok=True)
        (self.work / "passwords").write_text(PASSWORD + "\n")
        self.edition = 0

    @property
    def version(self):
        return "edition %d of today" % self.edition

    def publish(self, size=None):
        """A new version as a publisher should do it: the directory file first, each by rename."""
        self.edition += 1
        if size is not None:
            self.replace(DIRECTORY, os.urandom(size))
        self.replace(VERSION, (self.version + "\n").encode())

    def replace(self, name, content):
        fresh = self.work / "fresh"
        fresh.write_bytes(content)
        fresh.rename(self.work / "served" / name)


def stat_fields(pid):
    """The fields of /proc/PID/stat after the name: state, parent, ... Empty when it is gone."""
    try:
        with open("/proc/%d/stat" % pid, encoding="utf-8", errors="replace") as file:
            return file.read().rsplit(")", 1)[1].split()
    except OSError:
        return []


class Server:
    """vsftpd, which demands that data channels resume the session. As a context; afterwards
    cpu_seconds is what it and all its sessions took."""

    def __init__(self, bench, tls, address="127.0.0.1", **more):
        self.bench, self.port, self.address = bench, free_port(), address
        self.cpu_seconds = None
        self.parents = {}
        self.configuration = configure(bench.work, tls, address, self.port, **more)

    def __enter__(self):
        self.process = subprocess.Popen([self.bench.vsftpd, self.configuration],
                                        stdout=subprocess.DEVNULL)
        for _ in range(200):
            with contextlib.suppress(OSError), \
                    socket.create_connection((self.address, self.port)) as client:
                client.recv(100)
                return self
            time.sleep(0.02)
        self.__exit__()
        raise RuntimeError("vsftpd does not answer")

    def __exit__(self, *_):
        # A session counts once it has ended and was waited for.
        deadline = time.monotonic() + 10
        while self.processes() and time.monotonic() < deadline:
            time.sleep(0.02)
        self.process.terminate()
        _, status, usage = os.wait4(self.process.pid, 0)
        self.process.returncode = os.waitstatus_to_exitcode(status)
        self.cpu_seconds = usage.ru_utime + usage.ru_stime

    def processes(self):
        """The sessions' processes, each with its parent."""
        alive = {int(name) for name in os.listdir("/proc") if name.isdigit()}
        self.parents = {pid: parent for pid, parent in self.parents.items() if pid in alive}
        for pid in alive - self.parents.keys():
            fields = stat_fields(pid)
            if fields:
                self.parents[pid] = int(fields[1])
        found = {}
        for pid in sorted(alive):
            parent = self.parents.get(pid)
            if parent == self.process.pid or parent in found:
                found[pid] = parent
        return found

    def sessions(self):
        return sum(parent == self.process.pid for parent in self.processes().values())


class Sampler(threading.Thread):
    """How many sessions the server has, ten times a second."""

    def __init__(self, server):
        super().__init__()
        self.server, self.counts, self.ended = server, [], threading.Event()

    def run(self):
        while not self.ended.wait(0.1):
            self.counts.append(self.server.sessions())


class Program(threading.Thread):
    """The real program once an interval, until the time is over."""

    def __init__(self, bench, port, tls, number, interval, until):
        super().__init__()
        output = bench.work / ("program-%d" % number)
        output.mkdir(exist_ok=True)
        self.command = [bench.build / "tools/corpdir/corpdir", "fetch", "--quiet", "--servers",
                        "127.0.0.1", "--port", port, "--local-ip", "127.9.0.%d" % (number + 1),
                        "--user", "ftp", "--version-file", VERSION, "--directory-file", DIRECTORY,
                        "--output-dir", output]
        self.command += ["--ca", bench.work / "ca.pem"] if tls else ["--plain"]
        self.due = time.monotonic() + interval * number / PROGRAMS
        self.interval, self.until = interval, until
        self.fetched, self.failed, self.cpu_seconds = 0, 0, 0

    def run(self):
        environment = dict(os.environ, CORPDIR_PASSWORD=PASSWORD)
        while self.due < self.until:
            time.sleep(max(0, self.due - time.monotonic()))
            process = subprocess.Popen([str(part) for part in self.command], env=environment,
                                       stdin=subprocess.DEVNULL)
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            self.fetched += process.returncode == 0
            self.failed += process.returncode != 0
            self.cpu_seconds += usage.ru_utime + usage.ru_stime
            self.due += self.interval


def alone():
    """Moves the calling thread, with all that it starts from now on, into a network of its own, whose
    loopback no other program uses. False where the system does not allow it."""
    new_user, new_network, up_and_running = 0x10000000, 0x40000000, 0x41
    user = os.getuid()
    if ctypes.CDLL(None).unshare(new_network | (new_user if user else 0)) != 0:
        return False
    if user:
        pathlib.Path("/proc/self/uid_map").write_text("%d %d 1" % (user, user))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        set_flags = 0x8914
        fcntl.ioctl(any_socket, set_flags, struct.pack("16sh22x", b"lo", up_and_running))
    return True


def loopback_bytes():
    """Everything that has gone over loopback, headers included: each packet once."""
    with open("/proc/thread-self/net/dev", encoding="ascii") as file:
        return next(int(line.split(":")[1].split()[0]) for line in file if line.strip().startswith("lo:"))


def start_fleet(bench, port, tls, clients, interval, rounds, accepted, seed=0):
    shutil.rmtree(bench.work / "clients")
    command = [bench.build / "bench/fleet", "--port", port, "--clients", clients, "--interval",
               interval, "--duration", interval * rounds, "--work-dir", bench.work / "clients",
               "--accepted", accepted, "--seed", seed]
    if tls:
        command += ["--ca", bench.work / "ca.pem"]
    return subprocess.Popen([str(part) for part in command], stdout=subprocess.PIPE, text=True,
                            env=dict(os.environ, CORPDIR_PASSWORD=PASSWORD))


def end_fleet(process):
    figures = json.loads(process.communicate()[0])
    if process.returncode != 0:
        print("fleet.py: not all checks went well: %d failed %s, %d skipped, %d unfinished"
              % (figures["failed"], figures["failures"], figures["skipped"], figures["unfinished"]),
              file=sys.stderr)
    return figures


def drive(bench, tls, clients, interval, rounds, size, published, programs=0, seed=0):
    """One run. `published`: the rounds at whose start a new version appears. Gives the fleet's own
    figures and the server's."""
    bench.publish(size)
    content = os.urandom(size)
    with Server(bench, tls) as server:
        before = loopback_bytes()
        sampler = Sampler(server)
        sampler.start()
        accepted = bench.version
        if 0 in published:
            bench.publish()
        begin = time.monotonic()
        published_at = []
        fleet = start_fleet(bench, server.port, tls, clients, interval, rounds, accepted,
                            seed)
        loops = [Program(bench, server.port, tls, number, interval, begin + interval * rounds)
                 for number in range(programs)]
        for loop in loops:
            loop.start()
        for number in sorted(set(published) - {0}):
            time.sleep(max(0, begin + interval * number - time.monotonic()))
            bench.replace(DIRECTORY, content)
            bench.publish()
            published_at.append(time.time())
        figures = end_fleet(fleet)
        for loop in loops:
            loop.join()
        sampler.ended.set()
        sampler.join()
        figures["wire_bytes"] = loopback_bytes() - before
    figures["published_at"] = [at - figures["started_at"] for at in published_at]
    figures["server_cpu"] = server.cpu_seconds
    ticks = sampler.counts[:round(interval * rounds / 0.1)]
    figures["sessions_mean"], figures["sessions_max"] = statistics.mean(ticks), max(ticks)
    figures["programs_fetched"] = sum(loop.fetched for loop in loops)
    figures["programs_failed"] = sum(loop.failed for loop in loops)
    figures["size"] = size
    return figures


class Proxy:
    """Counts connections and bytes between 127.0.0.1, where the clients call, and a server on
    127.0.0.2, data channels too. `delay` holds up each piece, in seconds one way. As a context."""

    def __init__(self, server, delay=0):
        self.port, self.delay = server.port, delay
        self.connections = collections.Counter()  # "control", "data"
        self.sent = collections.Counter()         # the same, by the clients
        self.received = collections.Counter()
        self.loop = asyncio.new_event_loop()
        self.thread = threading.Thread(target=self.loop.run_forever, daemon=True)

    def __enter__(self):
        self.thread.start()
        asyncio.run_coroutine_threadsafe(self.listen(), self.loop).result()
        return self

    def __exit__(self, *_):
        asyncio.run_coroutine_threadsafe(self.close(), self.loop).result()
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join()
        self.loop.close()

    async def close(self):
        for listener in self.listeners:
            listener.close()
            await listener.wait_closed()

    async def listen(self):
        self.listeners = [await asyncio.start_server(self.connected, "127.0.0.1", port)
                          for port in [self.port, *PASSIVE]]

    async def connected(self, reader, writer):
        port = writer.get_extra_info("sockname")[1]
        kind = "control" if port == self.port else "data"
        self.connections[kind] += 1
        # The server wants the data channel to come from where the control channel does.
        source = (writer.get_extra_info("peername")[0], 0)
        far_reader, far_writer = await asyncio.open_connection("127.0.0.2", port, local_addr=source)
        await asyncio.gather(self.pump(reader, far_writer, self.sent, kind),
                             self.pump(far_reader, writer, self.received, kind))

    async def pump(self, reader, writer, counter, kind):
        under_way = asyncio.Queue()
        delivery = asyncio.create_task(self.deliver(under_way, writer))
        piece = b"more"
        while piece:
            try:
                piece = await reader.read(65536)
            except OSError:
                piece = b""
            counter[kind] += len(piece)
            under_way.put_nowait((self.loop.time() + self.delay, piece))
        await delivery

    async def deliver(self, under_way, writer):
        while True:
            due, piece = await under_way.get()
            await asyncio.sleep(due - self.loop.time())
            if not piece:
                writer.close()
                return
            writer.write(piece)


def count(bench, tls, clients=10, interval=0.5, delay=0):
    """The parts of a check and of a check with a directory file, at the server's log and at the
    proxy."""
    found = {}
    for kind, published in (("check", ()), ("with directory", (0,))):
        log = bench.work / "protocol.log"
        log.unlink(missing_ok=True)
        bench.publish(SMALL)
        accepted = bench.version
        if published:
            bench.publish()
        with Server(bench, tls, "127.0.0.2", pasv_min_port=PASSIVE[0], pasv_max_port=PASSIVE[-1],
                    xferlog_enable="YES", log_ftp_protocol="YES", vsftpd_log_file=log) as server, \
                Proxy(server, delay) as proxy:
            fleet = end_fleet(start_fleet(bench, server.port, tls, clients, interval, 1, accepted))
        checks = fleet["checks"]
        commands = re.findall(r'FTP command: Client "127\.1\.[\d.]+", "(\w+)', log.read_text())
        found[kind] = {
            "checks": checks, "milliseconds": fleet["latency_ms"]["median"],
            "commands": len(commands) / checks,
            "kinds": " ".join(dict.fromkeys(commands)),
            "control connections": proxy.connections["control"] / checks,
            "data connections": proxy.connections["data"] / checks,
            "control sent": proxy.sent["control"] / checks,
            "control received": proxy.received["control"] / checks,
            "data sent": proxy.sent["data"] / checks,
            "data received": proxy.received["data"] / checks,
        }
    return found


def round_trips(near, far):
    """How many times the way to the server and back is waited for. The proxy delays what is said,
    but takes connections at once: each is one more."""
    return {kind: (far[kind]["milliseconds"] - near[kind]["milliseconds"]) / (2000 * DELAY) +
            near[kind]["control connections"] + near[kind]["data connections"] for kind in near}


def session_memory(bench, tls, sessions=10):
    """Bytes that an idle session takes of the server's memory, its part of shared pages included,
    and its processes."""
    with Server(bench, tls) as server, contextlib.ExitStack() as stack:
        for _ in range(sessions):
            context = ssl.create_default_context(cafile=bench.work / "ca.pem") if tls else None
            client = stack.enter_context(ftplib.FTP_TLS(context=context) if tls else ftplib.FTP())
            client.connect("127.0.0.1", server.port)
            client.login("ftp", PASSWORD)
        processes = server.processes()
        total = 0
        for pid in processes:
            with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as file:
                total += next(int(line.split()[1]) for line in file if line.startswith("Pss:"))
        return {"bytes": total * 1024 / sessions, "processes": len(processes) / sessions}


def calibrate(bench, tls, plan):
    """The model's constants, from runs of one number of clients."""
    with Server(bench, tls) as idle:
        pass

    def per_check(size, published):
        run = drive(bench, tls, plan.calibrate, plan.interval, plan.rounds, size, published)
        return {"cpu": (run["server_cpu"] - idle.cpu_seconds) / run["checks"],
                "wire": run["wire_bytes"] / run["checks"],
                "seconds": run["latency_ms"]["mean"] / 1000}

    every = range(plan.rounds)
    check, small, large = per_check(SMALL, ()), per_check(SMALL, every), per_check(LARGE, every)
    constants = {"start": idle.cpu_seconds}
    for cost, value in check.items():
        by_byte = (large[cost] - small[cost]) / (LARGE - SMALL)
        constants[cost] = {"check": value, "byte": by_byte,
                           "directory": small[cost] - value - by_byte * SMALL}
    return constants


def cost(constants, name, checks, directories, size):
    price = constants[name]
    return checks * price["check"] + directories * (price["directory"] + size * price["byte"])


def test_model(bench, tls, plan, constants, clients):
    """One run with the programs beside it, first checks at random, and a new version at the second
    interval: what was predicted, and what was measured."""
    interval, rounds, size = plan.test_interval, plan.test_rounds, MIDDLE
    run = drive(bench, tls, clients, interval, rounds, size, (1,), PROGRAMS, seed=clients)
    # A program is a check with a directory each time, and leaves at once.
    programs = PROGRAMS * rounds
    checks, directories = clients * rounds + programs, clients + programs
    seconds = interval * rounds
    busy = cost(constants, "seconds", checks, directories, size)
    at = [moment - run["published_at"][0] for moment in run["directories_at"]]
    predicted = {
        "checks a second": checks / seconds,
        "server CPU, s": constants["start"] + cost(constants, "cpu", checks, directories, size),
        "bytes on the wire, MB": cost(constants, "wire", checks, directories, size) / 1e6,
        "connections at a time": (busy + clients * rounds * run["idle"]) / seconds,
        "directory files": directories,
        "surge, MB/s": clients * size / interval / 1e6,
        "half of the clients have it after, s": interval / 2,
        "all have it after, s": interval,
    }
    measured = {
        "checks a second": (run["checks"] + run["programs_fetched"]) / seconds,
        "server CPU, s": run["server_cpu"],
        "bytes on the wire, MB": run["wire_bytes"] / 1e6,
        "connections at a time": run["sessions_mean"],
        "directory files": run["directories"] + run["programs_fetched"],
        "surge, MB/s": sum(0 <= moment <= interval for moment in at) * size / interval / 1e6,
        "half of the clients have it after, s": statistics.median(at),
        "all have it after, s": max(at),
    }
    return {"clients": clients, "predicted": predicted, "measured": measured, "run": run}


def measure(work, build, vsftpd, plan=FULL, say=lambda text: None):
    """All figures, by "plain" and "TLS"."""
    bench = Bench(work, build, vsftpd)
    figures = {"plan": plan._asdict()}
    for kind in ("plain", "TLS"):
        tls = kind == "TLS"
        say("%s: counting" % kind)
        counted = count(bench, tls)
        turns = round_trips(counted, count(bench, tls, 2, 1.2, DELAY))
        memory = session_memory(bench, tls)
        say("%s: calibrating" % kind)
        constants = calibrate(bench, tls, plan)
        tests = []
        for clients in plan.sizes:
            say("%s: %d clients" % (kind, clients))
            tests.append(test_model(bench, tls, plan, constants, clients))
        figures[kind] = {"counted": counted, "turns": turns, "memory": memory,
                         "constants": constants, "tests": tests}
    return figures


def markdown(header, rows):
    lines = ["| %s |" % " | ".join(header), "|%s" % ("---|" * len(header))]
    return "\n".join(lines + ["| %s |" % " | ".join(row) for row in rows]) + "\n"


def number(value):
    """Three digits; little is said as such."""
    if 0 < value < 0.001:
        return "< 0.001"
    return "{:,.0f}".format(value) if value >= 100 else "%.3g" % value


def counted_table(figures):
    rows = []
    for what in ("control connections", "data connections", "commands", "control sent",
                 "control received", "data sent", "data received"):
        rows.append([what + (", bytes" if what.endswith(("sent", "received")) else "")] +
                    [number(figures[kind]["counted"][check][what])
                     for kind in ("plain", "TLS") for check in ("check", "with directory")])
    rows.append(["round trips waited for"] + [number(figures[kind]["turns"][check]) for kind in
                ("plain", "TLS") for check in ("check", "with directory")])
    return markdown(["one check", "plain", "with a 64 KB directory", "TLS",
                     "with a 64 KB directory"], rows)


def constants_table(figures):
    rows = []
    for kind in ("plain", "TLS"):
        constants, memory = figures[kind]["constants"], figures[kind]["memory"]
        for name, text, factor, unit in (("cpu", "server CPU", 1e3, "ms"),
                                         ("wire", "bytes on the wire", 1e-3, "KB"),
                                         ("seconds", "time on loopback", 1e3, "ms")):
            price = constants[name]
            rows.append([kind + ": " + text, "%.2f %s" % (price["check"] * factor, unit),
                         "%.2f %s" % (price["directory"] * factor, unit),
                         "%.2f %s" % (price["byte"] * factor * 1e6, unit)])
        rows.append(["%s: memory of a connection" % kind, "%.0f KB in %.0f process"
                     % (memory["bytes"] / 1e3, memory["processes"]), "-", "-"])
    return markdown(["", "a check", "a directory file", "and each MB of it"], rows)


def test_table(tests):
    rows = []
    for what in tests[0]["predicted"]:
        cells = []
        for test in tests:
            predicted, measured = test["predicted"][what], test["measured"][what]
            cells.append("%s / %s (%+d %%)" % (number(predicted), number(measured),
                                               round((measured / predicted - 1) * 100)))
        rows.append([what, *cells])
    return markdown(["predicted / measured (off by)"] +
                    ["%d clients" % test["clients"] for test in tests], rows)


def generator_table(tests):
    rows = []
    for test in tests:
        run = test["run"]
        latency, late = run["latency_ms"], run["late_ms"]
        seconds = run["duration"]
        rows.append(["%d" % run["clients"], "%g s" % run["interval"], "%d" % run["checks"],
                     "%d + %d + %d" % (run["failed"], run["skipped"], run["unfinished"]),
                     "%d + %d" % (run["programs_fetched"], run["programs_failed"]),
                     " / ".join(number(latency[name]) for name in ("median", "p99", "max")),
                     " / ".join(number(late[name]) for name in ("median", "p99", "max")),
                     "%.0f %%" % (run["cpu_seconds"] / seconds * 100),
                     "%d" % run["sessions_max"]])
    return markdown(["clients", "interval", "checks", "failed + skipped + unfinished",
                     "programs' fetches + failures", "a check took, ms (median / 99 % / max)",
                     "begun late, ms (median / 99 % / max)", "generator, of a core",
                     "most connections"], rows)


def forecast(figures, kind, clients):
    """The model for ten minutes and 15 s."""
    constants, turns = figures[kind]["constants"], figures[kind]["turns"]
    rate = clients / REAL_INTERVAL
    price = {name: constants[name] for name in ("cpu", "wire", "seconds")}
    near = rate * (REAL_IDLE + price["seconds"]["check"])
    surges = []
    for size in (SMALL, LARGE):
        surges += [
            "%s" % number(rate * (price["cpu"]["directory"] + size * price["cpu"]["byte"])),
            "%s" % number(rate * (price["wire"]["directory"] + size * price["wire"]["byte"]) * 8 / 1e6)]
    return [kind, "{:,}".format(clients), number(rate), number(rate * price["cpu"]["check"]),
            number(rate * price["wire"]["check"] * 8 / 1e6), number(near),
            number(near + rate * turns["check"] * 0.1),
            number(near * figures[kind]["memory"]["bytes"] / 1e6), *surges]


def report(figures):
    plan = figures["plan"]
    parts = ["What a check is made of, at a counting proxy and in the server's log:\n",
             counted_table(figures),
             "The model's constants, from %d clients with a check every %g s:\n"
             % (plan["calibrate"], plan["interval"]), constants_table(figures)]
    for kind in ("plain", "TLS"):
        tests = figures[kind]["tests"]
        parts += ["Predictions and runs, %s, %d programs beside the clients, a directory of 1 MB, a new "
                  "version at the second interval:\n" % (kind, PROGRAMS), test_table(tests),
                  "The same runs, the generator's side:\n", generator_table(tests)]
    parts += ["The model for ten minutes and 15 s; cores are this machine's, the surge comes on top for "
              "the ten minutes after a new version:\n",
              markdown(["", "clients", "checks a second", "cores", "Mbit/s", "connections",
                        "with 100 ms to and fro", "their memory, MB", "surge of 64 KB: cores", "Mbit/s",
                        "of 5 MB: cores", "Mbit/s"],
                       [forecast(figures, kind, 10 ** power) for kind in ("plain", "TLS")
                        for power in (3, 4, 5, 6)])]
    return "\n".join(parts)


def replace_block(path, text):
    page = pathlib.Path(path).read_text(encoding="utf-8")
    before, _, rest = page.partition(BEGIN)
    _, _, after = rest.partition(END)
    pathlib.Path(path).write_text(before + BEGIN + "\n" + text + END + after, encoding="utf-8")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--long", action="store_true")
    parser.add_argument("--build", default=ROOT / "build/bench", type=pathlib.Path)
    parser.add_argument("--vsftpd", default=VSFTPD)
    parser.add_argument("file", nargs="?")
    options = parser.parse_args()
    plan = QUICK if options.quick else LONG if options.long else FULL
    if not alone():
        print("fleet.py: other programs' bytes on loopback will be counted, too", file=sys.stderr)
    with tempfile.TemporaryDirectory(prefix="fleet-") as name:
        work = pathlib.Path(name)
        make_certificates(work)
        figures = measure(work, options.build.absolute(), options.vsftpd, plan,
                          lambda text: print("...", text, file=sys.stderr))
    text = report(figures)
    print(text)
    target = options.file or (None if options.quick or options.long else ROOT / "docs/capacity.md")
    if target:
        replace_block(target, text)


if __name__ == "__main__":
    main()
