"""The service's source file and its unit tests, for the scripts beside this one that measure them:
which function a place belongs to, what the tests run, which exceptions are allowed for a reason.
"""
import collections
import json
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
UNIT = ROOT / "service/im/imcorpdirectory/ftpcorpdirectory/src/ftpcorpdirimpl.cpp"
TESTS = "service_test"


def build(preset):
    """Builds the unit tests; gives the folder of the build."""
    for command in (["cmake", "--preset", preset, "-DCORPDIR_TESTS=ON"],
                    ["cmake", "--build", "--preset", preset, "--target", TESTS]):
        done = subprocess.run(command, cwd=ROOT, text=True, stdout=subprocess.PIPE)
        if done.returncode != 0:
            sys.exit(done.stdout)
    return ROOT / "build" / preset


class Functions:
    """The functions, macros and classes of a source that is formatted as ours are."""

    def __init__(self, source):
        start = re.compile(
            r"^(?:class (\w+)|(?!namespace)(?:#define )?(?=[A-Za-z])[^;#\n]*?\b([\w:~]+)\()", re.M
        )
        self.starts = [(m.start(), m[1] or m[2]) for m in start.finditer(source)]

    def at(self, offset):
        """The name of what begins last before the offset."""
        return ([name for start, name in self.starts if start <= offset] or ["(file)"])[-1]


def numbered(names):
    """The names in their order; one that came before says which one of that name it is."""
    seen = collections.Counter()
    for name in names:
        seen[name] += 1
        yield name if seen[name] == 1 else f"{name}\n# number {seen[name]} of that name"


def exceptions(path):
    """The reason by exception, from a file in which a reason stands at the beginning of its lines
    and the exceptions follow, indented, an empty line between two of them. # begins a comment."""
    reasons, reason, entry, used = {}, [], [], False
    for line in [*path.read_text().splitlines(), ""]:
        if line.startswith("    "):
            entry.append(line.strip())
            continue
        if entry:
            reasons["\n".join(entry)] = " ".join(reason)
            entry, used = [], True
        if line and not line.startswith("#"):
            reason, used = [] if used else reason, False
            reason.append(line)
    return reasons


# --- Coverage -----------------------------------------------------------------------------------


def is_unit(filename):
    return filename.endswith(str(UNIT.relative_to(ROOT)))


def lines_not_run(segments):
    """The lines that did not run, and how many have code. A line runs when any part of it does."""
    by_line = collections.defaultdict(list)
    for line, _, count, has_count, is_entry, is_gap in segments:
        by_line[line].append((count if has_count and not is_gap else None, is_entry))
    counts, around = {}, None
    for line in range(segments[0][0], segments[-1][0] + 1):
        known = [count for count, is_entry in by_line[line] if is_entry] + [around]
        known = [count for count in known if count is not None]
        if known:
            counts[line] = max(known)
        if by_line[line]:
            around = by_line[line][-1][0]
    return [line for line, count in counts.items() if count == 0], len(counts)


def branches_not_taken(functions):
    """The lines and outcomes that did not come, and how many there are. A condition in a macro
    counts once, with all its uses."""
    taken = collections.Counter()
    for function in functions:
        if is_unit(function["filenames"][0]):
            for line, column, _, _, on_true, on_false, *_ in function["branches"]:
                taken[line, column, "true"] += on_true
                taken[line, column, "false"] += on_false
    return [(line, what) for (line, _, what), n in sorted(taken.items()) if n == 0], len(taken)


def coverage():
    """Runs the unit tests. ((lines not run, all), (branches not taken, all))"""
    folder = build("coverage")
    tests, raw, profile = folder / "tests/service" / TESTS, folder / "raw", folder / "profile"

    def run(*command, **options):
        return subprocess.run(command, check=True, stdout=subprocess.PIPE, **options).stdout

    run(tests, "--gtest_brief=1", env=dict(os.environ, LLVM_PROFILE_FILE=str(raw)))
    run("llvm-profdata", "merge", "-sparse", raw, "-o", profile)
    data = json.loads(run("llvm-cov", "export", tests, f"-instr-profile={profile}"))["data"][0]
    file = next(f for f in data["files"] if is_unit(f["filename"]))
    return lines_not_run(file["segments"]), branches_not_taken(data["functions"])
