#!/usr/bin/env python3
"""Checks that names in the documents exist.

- A relative link leads to a file, and its fragment to a heading.
- A back-quoted path or file name of the tree exists.
- A back-quoted test (Suite.Name, .Name of the suite before it, SomethingTest, a name of CTest) exists;
  so do the names in tables in a column "tested by".
- Each scripts/NAME exists and can be run.
- Each variable CORPDIR_... is read somewhere, unless it is a name of a header or of the build.

Usage: check_documents.py SOURCE_DIR. Exit status 0, or 1 with one line for each name that is wrong.
"""

import fnmatch
import os
import pathlib
import re
import sys
import unicodedata

NOT_OURS = {".git", ".cache", "build", "__pycache__"}
# Names with these endings are files of the tree, wherever they occur.
ENDINGS = (".cpp", ".hpp", ".h", ".c", ".py", ".md", ".cmake", ".map", ".service", ".supp")

LINK = re.compile(r"\[[^\]]*\]\(([^()\s]+)\)|^\[[^\]]+\]:\s*(\S+)$", re.M)
QUOTED = re.compile(r"(?<!`)`([^`]+)`(?!`)")
PATH = re.compile(r"[\w.+*{},-]+(/[\w.+*{},-]+)*/?$")
CASE = re.compile(r"([A-Z]\w*)?\.([A-Z]\w*\*?)\Z")
CTEST = re.compile(r"(?:source|library|program|package)\.[\w*-]+\Z")
VARIABLE = re.compile(r"(?<![\w-])CORPDIR_[A-Z0-9_]+")


def slug(heading):
    """The fragment that leads to a heading, as the usual viewers of Markdown make it."""
    text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).strip().lower()
    kept = (c for c in text if c in "-_ " or unicodedata.category(c)[0] in "LN")
    return "".join(kept).replace(" ", "-")


class Document:
    def __init__(self, path, name):
        self.path, self.name = path, name
        self.whole = path.read_text(encoding="utf-8")
        # Blocks of code have no quotes and links.
        self.text = self.without_code(self.whole)
        self.fragments = self.headings()

    @staticmethod
    def without_code(text):
        text = re.sub(r"^```[^\n]*\n.*?^```$", "", text, flags=re.M | re.S)
        return re.sub(r"(?<=\n\n)(?: {4}[^\n]*\n+)+", "\n", text)

    def headings(self):
        found = {}
        for heading in re.findall(r"^#+ +(.*?)(?: #+)?$", self.text, re.M):
            name = slug(heading)
            found[name] = found.get(name, -1) + 1
        return {name + ("-%d" % n if n else "") for name, count in found.items()
                for n in range(count + 1)}

    def links(self):
        plain = QUOTED.sub(lambda m: "`" + "x" * len(m.group(1)) + "`", self.text)
        for found in LINK.finditer(plain):
            yield self.text[found.start(1):found.end(1)] or found.group(2)

    def quoted(self):
        for paragraph in re.split(r"\n\s*\n", self.text):
            for found in QUOTED.finditer(paragraph):
                yield " ".join(found.group(1).split())

    def tested_by(self):
        """The names in the last column of tables whose last heading is "tested by"."""
        table = False
        for line in self.text.split("\n"):
            cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
            if not line.startswith("|"):
                table = False
            elif cells[-1] == "tested by":
                table = True
            elif table:
                yield from QUOTED.findall(cells[-1])


class Tree:
    def __init__(self, root):
        self.root = root
        self.files, self.folders = set(), set()
        for folder, folders, files in os.walk(root):
            folders[:] = [f for f in folders if f not in NOT_OURS]
            place = pathlib.Path(folder).relative_to(root)
            self.files |= {(place / f).as_posix() for f in files}
            self.folders |= {(place / f).as_posix() for f in folders}
        self.names = {f.rpartition("/")[2] for f in self.files}
        self.cmake = self.read("CMakeLists.txt", "*.cmake", "CMakePresets.json")
        self.code = self.read("*.cpp", "*.h", "*.c", "*.py", top=(
            "bench", "bindings", "examples", "platform", "scripts", "service", "tests", "tools"))
        self.scripts = "".join(self.text(f) for f in sorted(self.files) if f.startswith(("scripts/", ".ci/")))
        self.cases = self.gtest_cases()
        self.suites = {suite for suite, _ in self.cases}
        self.ctests = self.ctest_names()
        self.targets = set(re.findall(r"(?:add_(?:executable|library)|corpdir_add_\w+)\(\s*(\w+)", self.cmake))
        self.read_variables = self.variables()

    def text(self, name):
        return (self.root / name).read_text(encoding="utf-8", errors="replace")

    def read(self, *patterns, top=None):
        own = pathlib.Path(__file__).name
        return "\n".join(self.text(f) for f in sorted(self.files)
                         if any(fnmatch.fnmatch(f.rpartition("/")[2], p) for p in patterns)
                         and (top is None or f.split("/")[0] in top) and not f.endswith(own))

    def gtest_cases(self):
        return set(re.findall(r"\b(?:TYPED_)?TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\s*\)", self.code))

    def ctest_names(self):
        """The tests that are named by add_test, with each value of a foreach in the name."""
        found = set()
        for name in (f for f in self.files if f.endswith("CMakeLists.txt")):
            text = self.text(name)
            loops = {variable: values.split() for variable, values in
                     re.findall(r"foreach\((\w+)\s+([^()]*)\)", text)}
            names = re.findall(r"\badd_test\(\s*NAME\s+(\S+)", text)
            names += ["program." + n for n in re.findall(r"\bcorpdir_add_program_test\((\S+)", text)]
            for test in names:
                made_of = re.search(r"\$\{(\w+)\}", test)
                values = loops.get(made_of.group(1), []) if made_of else [""]
                found |= {re.sub(r"\$\{\w+\}", value, test) for value in values}
        return found

    def variables(self):
        """Every CORPDIR_ variable that is read from the environment, or put into a command's."""
        code, name = self.code, r"CORPDIR_[A-Z0-9_]+"
        # Functions that pass their first parameter to getenv, directly or through one of these.
        readers = {"getenv", "secure_getenv"}
        for _ in range(2):
            readers |= {function for function, parameter, asked in
                        re.findall(r"\b(\w+)\((?:const )?char\*(?: const)? (\w+)[^()]*\)\s*\{[^{}]*?"
                                   r"\b(?:%s)\((\w+)[,)]" % "|".join(sorted(readers)), code)
                        if parameter == asked}
        found = set(re.findall(r"\b(?:%s)\(\s*\"(%s)\"" % ("|".join(sorted(readers)), name), code))
        constants = re.findall(r"(\w+)(?:\[\])?\s*=\s*\"(%s)\"" % name, code)
        found |= {value for constant, value in constants
                  if re.search(r"getenv\(%s\)" % constant, code)}
        # Variables that the program sets for a command.
        found |= set(re.findall(r"\{\"(%s)\", " % name, code))
        found |= set(re.findall(r"environ(?:\.get\(|\.pop\(|\[)\s*\"(%s)\"" % name, code))
        return found | set(re.findall(r"\$\{?(%s)\b" % name, self.scripts))

    def has_path(self, token, folder):
        """A path from the top, from the document's folder, or the end of one; may have {a,b} and *."""
        for one in alternatives(token):
            one = one.rstrip("/")
            wanted = {one, os.path.normpath(folder + "/" + one) if folder else one}
            among = self.folders if token.endswith("/") else self.files | self.folders
            if not any(fnmatch.fnmatchcase(f, w) or fnmatch.fnmatchcase(f, "*/" + w)
                       for w in wanted for f in among) and not self.is_target(one):
                return False
        return True

    def is_target(self, path):
        """A program, by its folder and target name."""
        folder, _, name = path.rpartition("/")
        return folder in self.folders and name in self.targets

    def has_name(self, name):
        if name.startswith("_"):
            return any(n.endswith(name) for n in self.names)
        return any(fnmatch.fnmatchcase(n, name) for n in self.names)

    def has_case(self, suite, case):
        return any(s == suite and fnmatch.fnmatchcase(c, case) for s, c in self.cases)

    def has_test(self, name):
        """A file of tests without its ending, or a test of CTest."""
        return (any(re.fullmatch(r"(system_)?%s_test\.(cpp|c|py)" % re.escape(name), n) for n in self.names)
                or any(fnmatch.fnmatchcase(c, name) for c in self.ctests))

    def knows_word(self, word):
        """An identifier of the code or of the build, not a variable of the environment."""
        quoted = r"(?<![\w\"$])%s\b(?!\")" % re.escape(word)
        return (re.search(r"\b(?:option\(|set\(|-D)\s*%s\b" % re.escape(word), self.cmake) is not None
                or re.search(r"^ *(?:#define )?" + quoted + r"(?: =|,|$| )", self.code, re.M) is not None
                or re.search(r"^%s \{" % re.escape(word), self.text_of_maps(), re.M) is not None)

    def text_of_maps(self):
        return "\n".join(self.text(f) for f in self.files if f.endswith(".map"))


def alternatives(token):
    found = re.search(r"\{([^{}]*)\}", token)
    if not found:
        return [token]
    return [one for choice in found.group(1).split(",")
            for one in alternatives(token[:found.start()] + choice + token[found.end():])]


def wrong_links(document, tree, documents):
    for target in document.links():
        if re.match(r"[a-z]+:", target):
            continue
        path, _, fragment = target.partition("#")
        there = (document.path.parent / path).resolve() if path else document.path
        if not there.exists():
            yield "link to %s: no such file" % target
        elif fragment and fragment not in documents.get(there, document).fragments:
            yield "link to %s: no such heading" % target


def wrong_names(document, tree):
    folder, suite = document.name.rpartition("/")[0], None
    for quoted in document.quoted():
        token = quoted.split()[0].removeprefix("./")
        case = CASE.match(token)
        if case:
            suite = case.group(1) or suite
            if not tree.has_case(suite, case.group(2)):
                yield "`%s`: no such test" % (case.group(2) if not suite else suite + "." + case.group(2))
        elif re.fullmatch(r"[A-Z]\w*Test", token) and token not in tree.suites:
            yield "`%s`: no such tests" % token
        elif CTEST.match(token) and not token.endswith(ENDINGS):
            if not any(fnmatch.fnmatchcase(c, token) for c in tree.ctests):
                yield "`%s`: no such test" % token
        elif PATH.match(token) and "/" in token:
            first = token.split("/")[0]
            if first not in NOT_OURS and first[:1].islower() and not tree.has_path(token, folder):
                yield "`%s`: no such file or folder" % token
        elif PATH.match(token) and (token.endswith(ENDINGS) or token == "CMakeLists.txt"):
            if not tree.has_name(token):
                yield "`%s`: no such file" % token
    for token in document.tested_by():
        if "/" not in token and not tree.has_test(token):
            yield "`%s` in the table of what is tested by what: no such tests" % token


def wrong_calls(document, tree):
    for name in sorted(set(re.findall(r"(?<![\w/.-])(?:\./)?(scripts/[\w.-]*\w)", document.whole))):
        path = tree.root / name
        if not path.is_file():
            yield "%s: no such script" % name
        elif not path.suffix and not os.access(path, os.X_OK):
            yield "%s cannot be run" % name
    for name in sorted(set(VARIABLE.findall(document.whole))):
        if name.endswith("_"):
            known = any(v.startswith(name) for v in tree.read_variables)
        else:
            known = name in tree.read_variables or tree.knows_word(name)
        if not known:
            yield "%s is neither read from the environment nor a name of the code" % name


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    paths = [root / "README.md", root / "CHANGELOG.md", *sorted((root / "docs").glob("*.md"))]
    documents = {p: Document(p, p.relative_to(root).as_posix()) for p in paths}
    tree = Tree(root)
    found = ["%s: %s" % (d.name, wrong) for d in documents.values()
             for wrong in [*wrong_links(d, tree, documents), *wrong_names(d, tree), *wrong_calls(d, tree)]]
    for line in found:
        print(line)
    links = sum(len(list(d.links())) for d in documents.values())
    names = sum(len(list(d.quoted())) for d in documents.values())
    print("%d documents, %d links, %d quoted names; %d wrong" % (len(documents), links, names, len(found)))
    return 1 if found or not links or not names or not tree.cases or not tree.ctests else 0


if __name__ == "__main__":
    sys.exit(main())
