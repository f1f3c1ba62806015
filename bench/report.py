"""The summary of a run: goals and figures, as tables in Markdown."""
import statistics

from peers import BARE_NAME, OUR_NAME, SYNC

COLUMNS = [OUR_NAME, "curl", "lftp", "wget", "aria2", BARE_NAME]
# Name, unit and factor of each measure of Figures.
MEASURES = {"wall": ("wall, ms", 1000), "cpu": ("CPU, ms", 1000), "memory": ("peak memory, MB", 1)}


def number(value):
    """Three significant digits."""
    return "%.*f" % (2 if value < 1 else 1 if value < 100 else 0, value)


def quartiles(values):
    """(first, third)."""
    first, _, third = statistics.quantiles(values, n=4, method="inclusive")
    return first, third


def all_peers(figures):
    """Those that a user would take, without a flush."""
    return [name for name in figures if name not in (OUR_NAME, BARE_NAME) and not name.endswith(SYNC)]


def ratio(figures, measure, *peers):
    """Our median to the best of these peers, or of all."""
    return (figures[OUR_NAME].median(measure)
            / min(figures[name].median(measure) for name in peers or all_peers(figures)))


def rows(heads, body):
    lines = ["| " + " | ".join(heads) + " |", "|---" * len(heads) + "|"]
    lines += ["| " + " | ".join(map(str, row)) + " |" for row in body]
    return "\n".join(lines) + "\n"


class Summary:
    def __init__(self):
        self.goals, self.figures = [], []

    def goal(self, work, limit, value, unit="", text="at most %s"):
        """`limit` is the largest value that meets the goal."""
        verdict = "met" if value <= limit else "**missed**"
        self.add_goal(work, (text % limit) + unit, "%.2f%s" % (value, unit), verdict)

    def fewer(self, work, than, peer, value):
        """A count that has to be so much smaller than the peer's."""
        self.add_goal(work, "%d fewer than curl (%d)" % (than, peer), value,
                      "met" if peer - value >= than else "**missed**")

    def add_goal(self, *row):
        self.goals.append(row)
        print("%s: %s, now %s, %s" % row, flush=True)

    def row(self, work, measure, cells):
        """`cells`: name -> text. What is followed by a flush goes behind a slash."""
        joined = [cells.get(name, "") + (" / " + cells[name + SYNC] if name + SYNC in cells else "")
                  for name in COLUMNS]
        self.figures.append((work, measure, *joined))
        print("%s, %s: %s" % (work, measure, cells), flush=True)

    def contest(self, work, figures):
        for measure, (name, factor) in MEASURES.items():
            cells = {client: number(figure.median(measure) * factor)
                     for client, figure in figures.items() if getattr(figure, measure)}
            if cells:
                self.row(work, name, cells)
        for client, figure in figures.items():
            if len(figure.wall) > 1:
                print("    %s: wall %.4f to %.4f s (quartiles)" % (client, *quartiles(figure.wall)))

    def tables(self):
        return ("### Goals\n\n" + rows(["work", "goal", "now", ""], self.goals)
                + "\n### Figures\n\n" + rows(["work", "", *COLUMNS], self.figures))
