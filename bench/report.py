"""Tables in Markdown, pictures by gnuplot, and the list of goals."""
import statistics
import subprocess

from peers import BARE_NAME, OUR_NAME, SYNC

COLUMNS = {"wall": "s", "cpu": "s", "memory": "MB"}


def number(value):
    """Three digits that count."""
    return "%.4f" % value if value < 0.1 else "%.3f" % value if value < 10 else "%.1f" % value


def spread(values):
    return (max(values) - min(values)) / 2 / statistics.median(values) * 100


def best(figures, measure, flushed=False):
    """(name, median) of the best peer; of those that flush, or of those that do not."""
    medians = {name: figure.median(measure) for name, figure in figures.items()
               if name not in (OUR_NAME, BARE_NAME) and name.endswith(SYNC) == flushed
               and figure.median(measure) is not None}
    name = min(medians, key=medians.get, default=None)
    return name, medians.get(name)


def ratio(figures, measure, flushed=False):
    return figures[OUR_NAME].median(measure) / best(figures, measure, flushed)[1]


def table(title, figures, command_lines=()):
    """The last lines are ours as a ratio to the best of the others."""
    lines = ["### " + title, "", "| | wall | CPU | peak memory |", "|---|---|---|---|"]
    for name, figure in figures.items():
        cells = []
        for measure, unit in COLUMNS.items():
            values = getattr(figure, measure)
            cell = "%s %s" % (number(statistics.median(values)), unit) if values else ""
            cells.append(cell + (" ± %.0f %%" % spread(values) if len(values) > 1 else ""))
        lines.append("| %s | %s |" % (name, " | ".join(cells)))
    for flushed, label in ((False, "ratio to the best"), (True, "ratio to the best with sync")):
        cells = []
        for measure in COLUMNS:
            name, median = best(figures, measure, flushed)
            cells.append("**%.2f** (%s)" % (figures[OUR_NAME].median(measure) / median, name)
                         if name else "")
        if any(cells):
            lines.append("| %s | %s |" % (label, " | ".join(cells)))
    if command_lines:
        lines += ["", "<details><summary>Commands</summary>", "", "```", *command_lines, "```", "",
                  "</details>"]
    return "\n".join(lines) + "\n"


def rows(title, heads, body, note=""):
    lines = ["### " + title, "", *([note, ""] if note else []), "| " + " | ".join(heads) + " |",
             "|---" * len(heads) + "|"]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in body]
    return "\n".join(lines) + "\n"


class Goals:
    """What was wanted and what came of it."""

    def __init__(self):
        self.body = []

    def add(self, work, limit, value, unit=""):
        """`limit` is the largest value that meets the goal."""
        verdict = "met" if value <= limit else "**missed**"
        self.body.append((work, "≤ %s%s" % (limit, unit), "%.2f%s" % (value, unit), verdict))

    def state(self, work, value):
        self.body.append((work, "", value, ""))

    def table(self):
        return rows("Goals", ["work, ratio of ours to the best peer", "goal", "measured", ""], self.body)


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
