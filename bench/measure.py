"""Runs programs in turn and keeps the cost of each."""
import hashlib
import os
import random
import shutil
import statistics
import subprocess
import sys
import time

from ftp_site import PASSWORD

ENVIRONMENT = dict(os.environ, CORPDIR_PASSWORD=PASSWORD)


class Figures:
    """Samples of one contestant: seconds, seconds of CPU with those of its children, MB at the peak."""

    def __init__(self, wall=(), cpu=()):
        self.wall, self.cpu, self.memory = list(wall), list(cpu), []

    def median(self, measure):
        values = getattr(self, measure)
        return statistics.median(values) if values else None


def strings(command):
    return [str(part) for part in command]


def take(command, environment=ENVIRONMENT, expected=0):
    """(seconds, seconds of CPU) of one run."""
    begin = time.perf_counter()
    process = subprocess.Popen(strings(command), env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.perf_counter() - begin
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != expected:
        sys.exit("%s ended with %d: %s" % (command[0], process.returncode, strings(command)))
    return wall, usage.ru_utime + usage.ru_stime


def peak_memory(command):
    """MB. Measured by time(1): a child of this process would start with its memory as a peak."""
    result = subprocess.run(["time", "-f", "%M", *strings(command)], check=True, env=ENVIRONMENT,
                            stdin=subprocess.DEVNULL, text=True, stdout=subprocess.DEVNULL,
                            stderr=subprocess.PIPE)
    return int(result.stderr.split()[-1]) / 1024


def digest(path):
    with open(path, "rb") as file:
        hashed = hashlib.sha256()
        while piece := file.read(1 << 20):
            hashed.update(piece)
    return hashed.digest()


def empty(folder):
    """Empties a folder and flushes everything to the disk: otherwise a client that flushes its own
    files would also flush what another one has left in memory."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    os.sync()


def compete(contestants, job, served, rounds, peaks=True):
    """Runs all in turn, in each round in another order, so that none always follows the same one; the
    first round does not count, but its files are checked."""
    order = random.Random(17)
    figures = {name: Figures() for name in contestants}
    wanted = {file: digest(served / file) for file in job.files}
    for number in range(rounds + 1):
        for name in order.sample(list(contestants), len(contestants)):
            empty(job.output)
            command = contestants[name](job)
            wall, cpu = take(command)
            if number != 0:
                figures[name].wall.append(wall)
                figures[name].cpu.append(cpu)
                continue
            for file in wanted:
                if (job.output / file).exists() and digest(job.output / file) != wanted[file]:
                    sys.exit("%s has fetched a wrong %s" % (name, file))
            if not (job.output / job.files[-1]).exists():
                sys.exit("%s has fetched nothing" % name)
            if peaks and "sync" not in name:
                empty(job.output)
                figures[name].memory.append(peak_memory(command))
    empty(job.output)
    return figures
