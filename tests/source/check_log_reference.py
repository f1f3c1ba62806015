#!/usr/bin/env python3
"""Checks that docs/log.md names every record that the sources can write, and no other.

- Records: component, level and text of each call of a log macro, of the log's own records and of a
  function trace; also the functions, where the call itself says which.
- Reasons: the texts that the FTP layer puts into its failures, and the words that they are made of.
- Every way into the log is one that this check reads: a call of WriteLog elsewhere is an error.

The page writes a blank that Markdown would lose (the last one of a text, each of a run) as U+2423.

Usage: check_log_reference.py SOURCE_DIR [PAGE]. Exit status 0, or 1 with one line for each difference.
"""

import pathlib
import re
import sys

SERVICE, FTP, OSAK, LOG = "ZepCorpDirectory", "travex_ftp", "osak", "corpdir_log"
CLIENT, TOOL = "client", "corpdir"
SERVICE_FOLDER = "service/im/imcorpdirectory/ftpcorpdirectory/src"

# Folder, macro or function, component, and the positions of level and format among its arguments.
# The position of a function's name is -1 when it is the function around the call.
DOORS = [
    (SERVICE_FOLDER, "LOG", SERVICE, -1, 0, 1),
    (SERVICE_FOLDER, "LOG_AS", SERVICE, 0, 1, 2),
    ("platform/travex_ftp", "TRAVEX_FTP_LOG", FTP, -1, 0, 1),
    ("platform/osak", "OSAK_LOG", OSAK, -1, 0, 1),
    ("platform/corpdir_log", "MakeOwnRecord", LOG, -1, 1, 2),
    ("client", "CLIENT_LOG", CLIENT, -1, 0, 1),
    ("tools/corpdir", "TOOL_LOG", TOOL, -1, 0, 1),
]

# Files that define the doors, and what their own calls of WriteLog look like from outside.
DEFINITIONS = {SERVICE_FOLDER + "/ftpcorpdirimpl.cpp": 1, "platform/travex_ftp/log.h": 1,
               "platform/osak/osak_log.h": 1, "platform/include/corpdir_log.h": 1,
               "client/client_log.h": 1, "tools/corpdir/commands/tool_log.h": 1,
               "platform/corpdir_log/corpdir_log.cpp": 2}

# Functions of the FTP layer that make a reason, and the arguments that hold a text of their own.
REASONS = {"Fail": [2], "FailByReply": [2], "FailSystem": [1], "FailLocal": [1, 2], "Refuse": [2],
           "RequestPort": [1, 2], "Require": [4]}

LEVELS = {"0": "error", "1": "notice", "2": "info", "CORPDIR_LOG_ERROR": "error",
          "CORPDIR_LOG_NOTICE": "notice", "CORPDIR_LOG_INFO": "info"}

LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"', re.S)
TOKEN = re.compile(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'|//[^\n]*|/\*.*?\*/', re.S)
FUNCTION = re.compile(r"^[A-Za-z_][^\n;=]*?\b(~?[A-Za-z_]\w*)\(", re.M)
ROW = re.compile(r"^\| `(.+?)` \| (error|notice|info) \| (.+?) \| .+ \|$")
REASON_ROW = re.compile(r"^\| `(.+?)` \| [^|]+ \|$")


def without_comments(text):
    """The text with comments and macro definitions blanked, every position kept."""
    def blank(match):
        return re.sub(r"[^\n]", " ", match.group())
    text = TOKEN.sub(lambda m: m.group() if m.group()[0] in "\"'" else blank(m), text)
    return re.sub(r"^#\s*define(?:[^\n]*\\\n)*[^\n]*", blank, text, flags=re.M)


def arguments(code, begin):
    """The arguments of the call whose "(" is at begin, split at the commas of its own level."""
    found, depth, start, at = [], 0, begin + 1, begin
    while at < len(code):
        token = TOKEN.match(code, at)
        if token:
            at = token.end()
            continue
        if code[at] in "([{":
            depth += 1
        elif code[at] in ")]}":
            depth -= 1
        if depth == 0 or (depth == 1 and code[at] == ","):
            found.append(code[start:at].strip())
            start = at + 1
        if depth == 0:
            return found
        at += 1
    return found


def literal(argument):
    """The text of a string literal, adjacent ones joined; None when it is something else."""
    if LITERAL.sub("", argument).strip():
        return None
    parts = LITERAL.findall(argument)
    return "".join(parts).replace('\\"', '"') if parts else None


def calls(code, name):
    for match in re.finditer(r"(?<![\w#])%s\(" % name, code):
        yield match.start(), arguments(code, match.end() - 1)


def enclosing(code, position):
    """The function whose definition is the last one to begin before position."""
    found = [m.group(1) for m in FUNCTION.finditer(code, 0, position)]
    return found[-1] if found else ""


def named_function(argument, code):
    """What the function argument of a record says: a literal, a constant, or nothing (a parameter)."""
    text = literal(argument)
    if text is None:
        constant = re.search(r'constexpr char %s\[\] = "(\w+)"' % re.escape(argument), code)
        text = constant.group(1) if constant else None
    return text


def shown(text):
    """As the page writes it."""
    text = re.sub(r" {2,}", lambda m: "\u2423" * len(m.group()), text)
    text = re.sub(r" $", "\u2423", text)
    return text.replace("|", "\\|")


def has_words(text):
    return re.search(r"[A-Za-z]{2}", re.sub(r"%[-#0 ]*[0-9]*(?:ll|l|z)?[a-zA-Z]", "", text)) is not None


class Sources:
    def __init__(self, root):
        self.root = root
        self.records = {}    # (component, level, shown text): set of functions, None in it: not said
        self.reasons = set()  # shown texts
        self.literals = set()  # of the FTP layer, shown: what a reason may be made of
        self.wrong = []
        for path in sorted(p for top in ("service", "platform", "client", "bindings", "tools")
                           for p in (root / top).rglob("*") if p.suffix in (".h", ".cpp")):
            self.read(path)

    def read(self, path):
        name = path.relative_to(self.root).as_posix()
        whole = path.read_text()
        code = without_comments(whole)
        for folder, door, component, function, level, text in DOORS:
            if name.startswith(folder + "/"):
                for position, found in calls(code, door):
                    self.add_record(name, code, position, component,
                                    found[function] if function >= 0 else None, found, level, text)
        self.add_traces(name, code)
        if name.startswith("platform/travex_ftp/"):
            self.add_reasons(code)
        self.check_doors(name, whole)

    def add_record(self, name, code, position, component, function, found, level, text):
        if len(found) <= text or re.match(r"(const )?\w+[\s&*]+\w+$", found[0]):
            return  # the declaration of the function
        line = code.count("\n", 0, position) + 1
        words = literal(found[text])
        if words is None or found[level] not in LEVELS:
            self.wrong.append("%s:%d: level or text of the record is no constant" % (name, line))
            return
        function = enclosing(code, position) if function is None else named_function(function, code)
        self.records.setdefault((component, LEVELS[found[level]], shown(words)), set()).add(function)

    def add_traces(self, name, code):
        """Both texts of a trace are in corpdir_log.cpp, its functions in the service."""
        if name == SERVICE_FOLDER + "/ftpcorpdirimpl.cpp":
            traced = {enclosing(code, position) for position, _ in calls(code, "TRACE")}
            trace = (self.root / "platform/corpdir_log/corpdir_log.cpp").read_text()
            for _, found in calls(without_comments(trace), "Trace"):
                text = literal(found[-1])
                if text is not None:
                    self.records[(SERVICE, "info", shown(text))] = set(traced)

    def add_reasons(self, code):
        for maker, places in REASONS.items():
            for _, found in calls(code, maker):
                for argument in (found[p] for p in places if p < len(found)):
                    whole = literal(argument)
                    for text in LITERAL.findall(argument) if whole is None else [whole]:
                        if has_words(text):
                            self.reasons.add(shown(text))
        self.literals |= {shown(text.replace('\\"', '"')) for text in LITERAL.findall(code)}

    def check_doors(self, name, whole):
        count = len(re.findall(r"\bWriteLog\(", TOKEN.sub("", whole)))
        traces = len(re.findall(r"\bFunctionTrace \w+\(", TOKEN.sub("", whole)))
        if count != DEFINITIONS.get(name, 0) or traces not in (0, int(name.startswith(SERVICE_FOLDER))):
            self.wrong.append("%s: writes to the log in a way that this check does not read" % name)


class Page:
    def __init__(self, path):
        self.records = {}
        self.reasons = set()
        component = ""
        for line in path.read_text().splitlines():
            if line.startswith("## "):
                named = re.search(r"`(\w+)`", line)
                component = named.group(1) if named else ""
            if not component:
                continue
            row, reason = ROW.match(line), REASON_ROW.match(line)
            if row:
                functions = set(re.findall(r"`(\w+)`", row.group(3)))
                self.records[(component, row.group(2), row.group(1))] = functions
            elif reason:
                self.reasons.add(reason.group(1))


def differences(sources, page):
    yield from sources.wrong
    for key in sorted(set(sources.records) - set(page.records)):
        yield "not on the page: %s %s `%s`" % key
    for key in sorted(set(page.records) - set(sources.records)):
        yield "not in the sources: %s %s `%s`" % key
    for key in sorted(set(page.records) & set(sources.records)):
        said = sources.records[key] - {None}
        if not page.records[key] or (page.records[key] != said if None not in sources.records[key]
                                     else not page.records[key] >= said):
            yield "`%s` is of %s; the page says %s" % (key[2], ", ".join(sorted(said)) or "some function",
                                                      ", ".join(sorted(page.records[key])) or "nothing")
    for text in sorted(sources.reasons - page.reasons):
        yield "reason not on the page: `%s`" % text
    for text in sorted(page.reasons - sources.reasons - sources.literals):
        yield "reason not in the sources: `%s`" % text


def main():
    root = pathlib.Path(sys.argv[1])
    page = Page(pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else root / "docs/log.md")
    sources = Sources(root)
    found = list(differences(sources, page))
    for line in found:
        print(line)
    print("%d records and %d reasons in the sources, %d differences"
          % (len(sources.records), len(sources.reasons), len(found)))
    return 1 if found or not sources.records or not sources.reasons else 0


if __name__ == "__main__":
    sys.exit(main())
