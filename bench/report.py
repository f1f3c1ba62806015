"""Tables in Markdown, pictures by gnuplot, and the list of goals."""
import statistics
import subprocess

from peers import BARE_NAME, OUR_NAME, SYNC

COLUMNS = {"wall": "wall, s", "cpu": "CPU, s", "memory": "peak memory, MB"}


def number(value):
    """Three digits that count."""
    return "%.4f" % value if value < 0.1 else "%.3f" % value if value < 10 else "%.1f" % value


def quartiles(values):
    """(first, third)."""
    first, _, third = statistics.quantiles(values, n=4, method="inclusive")
    return first, third


def with_quartiles(values):
    cell = number(statistics.median(values))
    return cell + (" (%s–%s)" % tuple(map(number, quartiles(values))) if len(values) > 1 else "")


def best(figures, measure, peers):
    """(name, median) of the best of the peers."""
    medians = {name: figures[name].median(measure) for name in peers}
    medians = {name: median for name, median in medians.items() if median is not None}
    name = min(medians, key=medians.get, default=None)
    return name, medians.get(name)


def all_peers(figures, flushed=False):
    """Those that flush, or those that do not."""
    return [name for name in figures
            if name not in (OUR_NAME, BARE_NAME) and name.endswith(SYNC) == flushed]


def ratio(figures, measure, *peers):
    """Ours to the best of these peers, or of all that do not flush."""
    return figures[OUR_NAME].median(measure) / best(figures, measure, peers or all_peers(figures))[1]


def table(title, figures):
    """The last lines are ours as a ratio to the best of the others."""
    lines = ["### " + title, "", "| | " + " | ".join(COLUMNS.values()) + " |", "|---|---|---|---|"]
    for name, figure in figures.items():
        cells = [with_quartiles(getattr(figure, measure)) if getattr(figure, measure) else ""
                 for measure in COLUMNS]
        lines.append("| %s | %s |" % (name, " | ".join(cells)))
    for label, peers in (("ratio to the best", all_peers(figures)),
                         ("ratio to the best with sync", all_peers(figures, True)),
                         ("ratio to the least possible", [BARE_NAME] if BARE_NAME in figures else [])):
        cells = []
        for measure in COLUMNS:
            name, median = best(figures, measure, peers)
            cells.append("**%.2f** (%s)" % (figures[OUR_NAME].median(measure) / median, name)
                         if name else "")
        if any(cells):
            lines.append("| %s | %s |" % (label, " | ".join(cells)))
    return "\n".join(lines) + "\n"


def rows(title, heads, body, note=""):
    lines = ["### " + title, "", *([note, ""] if note else []), "| " + " | ".join(heads) + " |",
             "|---" * len(heads) + "|"]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in body]
    return "\n".join(lines) + "\n"


class Goals:
    """Each goal with what it came to in this run."""

    def __init__(self):
        self.body = []

    def add(self, work, limit, value, unit="", goal="at most %s"):
        """`limit` is the largest value that meets the goal."""
        verdict = "met" if value <= limit else "**missed**"
        self.body.append((work, (goal % limit) + unit, "%.2f%s" % (value, unit), verdict))

    def fewer(self, work, than, peer, value):
        """A count that has to be so much smaller than the peer's."""
        verdict = "met" if peer - value >= than else "**missed**"
        self.body.append((work, "%d fewer than curl (%d)" % (than, peer), value, verdict))

    def state(self, work, value):
        self.body.append((work, "", value, ""))

    def table(self):
        return rows("Goals", ["work", "goal", "now", ""], self.body)


def plot(path, title, x, y, series, logarithmic="xy"):
    """`series`: name -> list of (x, y)."""
    script = ["set terminal svg size 720,420 font 'sans,13' background 'white'", 'set output "%s"' % path,
              'set title "%s"' % title, 'set xlabel "%s"' % x, 'set ylabel "%s"' % y,
              "set grid", "set key left top"]
    if logarithmic:
        script.append("set logscale " + logarithmic)
    if "y" not in logarithmic:
        script.append("set yrange [0:*]")
    script.append("plot " + ", ".join("'-' with linespoints title \"%s\"" % name for name in series))
    for points in series.values():
        script += ["%g %g" % point for point in points] + ["e"]
    subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)
