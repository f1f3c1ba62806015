#!/usr/bin/env python3
"""Hands the plain comments of a header to Doxygen as documentation, line for line.

- The comment at the head of the file documents the file.
- A comment directly before a declaration documents it, and the functions that follow without a blank
  line and without a comment of their own.
- A comment behind a declaration, with the lines that go on in its column, documents that declaration.
- A comment with a blank line after it is the heading of what follows, up to the next heading, an
  access label or the end of the scope. Its first sentence is the title.
- Within an enumeration a comment on lines of its own is said of each enumerator down to a blank line.
- Indented lines are shown as they stand. Anything that Doxygen would take for a command is only text.

Every other comment is left to the reader of the header.

Usage: doxygen_filter.py HEADER. Writes to standard output.
"""

import pathlib
import re
import sys

TOKEN = re.compile(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'|//|/\*')
SPECIAL = {"*/": "*&zwj;/", "&": "&amp;", "<": "&lt;", ">": "&gt;",
           "\\": r"\\", "@": r"\@", "#": r"\#", "%": r"\%"}
LABEL = re.compile(r"(public|protected|private)\s*:$")
FUNCTION = re.compile(r"(\w+)\([^()]*(?:\([^()]*\)[^()]*)*\)\s*(?:__attribute__\(\(.*\)\)\s*)?;$")


def escaped(text):
    text = re.sub(r"\*/|[&<>\\@#%]", lambda m: SPECIAL[m.group()], text)
    return re.sub(r"`([^`]+)`", r"<code>\1</code>", text)


class Comment:
    def __init__(self, first, own):
        self.first = first  # number of its first line
        self.own = own      # no code before it on its line
        self.lines = []     # its text, a line each

    @property
    def end(self):
        return self.first + len(self.lines)

    def text(self):
        return " ".join(line.strip() for line in self.lines if line.strip())


class Header:
    """A header taken apart: the code of each line, and the comments."""

    def __init__(self, source):
        self.lines = source.split("\n")
        self.code = []
        self.comments = []
        self.block = None    # the comment of the other kind that is open, and where its text begins
        self.column = None   # of the comment that the line before ended with
        for number, line in enumerate(self.lines):
            self.read(number, line)

    def read(self, number, line):
        if self.block is not None:
            self.code.append("")
            self.go_on(re.sub(r"^\s*\*(?!/) ?", "", line))
            return
        start, block = self.comment_start(line)
        before = line[:start].rstrip()
        self.code.append(before.strip())
        if start == len(line):
            self.column = None
        elif block:
            self.comments.append(Comment(number, not before))
            self.block, self.column = self.comments[-1], None
            self.go_on(line[start + 2:].removeprefix(" "))
        else:
            if before or self.column != start:
                self.comments.append(Comment(number, not before))
            self.comments[-1].lines.append(line[start + 2:].removeprefix(" ").rstrip())
            self.column = start

    def go_on(self, text):
        text, closed, behind = text.partition("*/")
        self.block.lines.append(text.rstrip())
        if closed:
            if behind.strip():  # a comment within code, which is nobody's documentation
                self.comments.remove(self.block)
                self.code[-1] = (self.code[-1] + " " + behind.strip()).strip()
            self.block = None

    @staticmethod
    def comment_start(line):
        """Where the line's comment begins, and whether it is of the kind that must be closed."""
        for token in TOKEN.finditer(line):
            if token.group() == "//":
                return token.start(), False
            if token.group() == "/*" and not re.search(r"\*/\s*\S", line[token.start() + 2:]):
                return token.start(), True
        return len(line), False


class Scopes:
    """Where each line of code stands."""

    def __init__(self, code):
        self.kind = []       # of the scope that the line begins in: enum, record, linkage, file, body
        self.inside = []     # the line begins within a declaration
        self.complete = []   # the line ends a declaration, or an enumerator
        self.statement = []  # the declaration so far, at the end of the line
        stack, statement, depth, continued = ["file"], "", 0, False
        for line in code:
            self.kind.append(stack[-1])
            self.inside.append(bool(statement.strip()) or continued)
            directive = line.startswith("#") or continued
            continued = directive and line.endswith("\\")
            if directive:
                self.complete.append(line.startswith("#define") and not continued)
                self.statement.append(line)
                continue
            done = ""
            for character in re.sub(TOKEN, "x", line) + " ":
                depth += (character == "(") - (character == ")")
                if character == "{":
                    stack.append(self.scope(statement))
                    statement = ""
                elif character == "}":
                    statement = "" if stack[-1] in ("linkage", "body") else "}"
                    stack = stack[:-1] or ["file"]
                elif (character == ";" and depth == 0) or (
                        character == "," and depth == 0 and stack[-1] == "enum"):
                    done, statement = statement + character, ""
                else:
                    statement += character
            if LABEL.match(statement.strip()):
                statement = ""
            last = stack[-1] == "enum" and statement.strip() not in ("", "}")
            self.complete.append(depth == 0 and not line.startswith("}") and bool(done or last))
            self.statement.append((done or statement).strip())
            if last:
                statement = ""

    @staticmethod
    def scope(statement):
        for kind, pattern in (("enum", r"\benum\b"), ("record", r"\b(struct|class|union)\b(?!.*\))"),
                              ("linkage", r"\b(extern|namespace)\b")):
            if re.search(pattern, statement):
                return kind
        return "body"


class Filter:
    def __init__(self, name, source):
        self.name = name
        header = Header(source)
        self.lines, self.code, self.comments = header.lines, header.code, header.comments
        self.scopes = Scopes(self.code)
        self.out = list(self.lines)
        self.of_line = {c.first: c for c in self.comments}
        self.documented = set()  # lines of code with a comment of their own, before or behind

    def run(self):
        for comment in self.comments:
            if comment.own:
                self.stand_alone(comment)
            elif self.documents_what_is_before(comment.first):
                self.behind(comment)
        self.share()
        return "\n".join(self.out)

    def line(self, number):
        return self.code[number] if number < len(self.code) else ""

    def is_blank(self, number):
        return 0 <= number < len(self.lines) and not self.lines[number].strip()

    def stand_alone(self, comment):
        after = self.line(comment.end)
        if comment.first == 0:
            self.write(comment, prefix="@file %s " % self.name)
        elif self.scopes.inside[comment.first] or self.scopes.kind[comment.first] == "body":
            return
        elif self.scopes.kind[comment.first] == "enum":
            self.enumerators(comment)
        elif self.is_blank(comment.end):
            self.heading(comment)
        elif after and not re.match(r"static_assert|#(?!define)|\}", after) and not LABEL.match(after):
            self.write(comment)
            self.documented.add(comment.end)

    def put(self, comment, at, opening, text, star=" *"):
        """One line of a comment. In the form with // an apostrophe would end the comment, and in
        either form the marks of lines that are to stand as they are would be shown."""
        line = ((star if at else opening) + " " + text).rstrip()
        self.out[comment.first + at] = line + " */" * (comment.first + at + 1 == comment.end)

    def write(self, comment, prefix=""):
        """The comment in place, indented lines between marks that make them stand as they are."""
        lines, shown = comment.lines, [re.match(r"\s+\S", line) is not None for line in comment.lines]
        for at, line in enumerate(lines):
            text = prefix * (at == 0)
            if shown[at] and not (at and shown[at - 1]) and at == 0:
                text += "@verbatim "
            text += line if shown[at] else escaped(line)
            if shown[at] and not (at + 1 < len(lines) and shown[at + 1]):
                text += " @endverbatim"
            if not shown[at] and at + 1 < len(lines) and shown[at + 1]:
                text += " @verbatim"
            self.put(comment, at, "/**", text, star="  " if shown[at] else " *")

    def documents_what_is_before(self, number):
        code = self.code[number]
        return (self.scopes.complete[number] and self.scopes.kind[number] != "body"
                and not code.startswith("static_assert"))

    def behind(self, comment, heading=""):
        texts = [escaped(line.strip()) for line in comment.lines]
        texts[0] = heading + texts[0]
        for at, text in enumerate(texts):
            self.put(comment, at, self.line(comment.first) + " /**<", text)
        self.documented.add(comment.first)

    def enumerators(self, comment):
        heading = escaped(comment.text())
        for number in range(comment.end, len(self.lines)):
            found = self.of_line.get(number)
            if self.is_blank(number) or self.line(number).startswith("}") or (found and found.own):
                break
            if found:
                # Read again later, in its turn, it would lose the heading.
                self.comments[self.comments.index(found)] = Said(found, heading.removesuffix(".") + ": ")
            elif self.scopes.complete[number]:
                self.out[number] = "%s /**< %s */" % (self.line(number), heading)

    def heading(self, comment):
        end = self.end_of_group(comment)
        if end is None:
            return
        title, rest = self.title(comment)
        self.out[comment.first] = "/** @name " + escaped(title)
        for at in range(1, len(comment.lines)):
            self.out[comment.first + at] = (" * " + escaped(rest[at - 1])).rstrip()
        self.out[comment.end] = " * @{ */"
        if self.is_blank(end - 1):
            self.out[end - 1] = "/** @} */"
        else:
            self.out[end] = "/** @} */ " + self.out[end].lstrip()

    @staticmethod
    def title(comment):
        """The first sentence, and a text for each of the comment's other lines."""
        title, rest = re.match(r"(.*?\.(?=\s)|.*)\s*(.*)", "\n".join(comment.lines), re.S).groups()
        if len(comment.lines) == 1:
            title, rest = comment.lines[0], ""
        if not rest:
            title = title.removesuffix(".")
        lines = rest.split("\n")
        if len(lines) == len(comment.lines) > 1:
            lines[:2] = [" ".join(lines[:2])]
        return " ".join(title.split()), lines + [""] * (len(comment.lines) - 1 - len(lines))

    def end_of_group(self, heading):
        """The line before which the group ends; none when nothing of its scope follows."""
        depth, seen = 0, False
        for number in range(heading.end, len(self.lines)):
            code = self.line(number)
            if depth == 0:
                other = self.of_line.get(number)
                if code.startswith("}") or LABEL.match(code) or code.startswith("#endif") or (
                        other and other.own and self.is_blank(other.end)):
                    return number if seen else None
            seen = seen or bool(code)
            plain = re.sub(TOKEN, "x", code)
            depth += plain.count("{") - plain.count("}")
        return None

    def share(self):
        """A function without a comment directly after a documented one has that one's comment."""
        name, number = None, 0
        while number < len(self.code):
            if not self.code[number] or self.scopes.kind[number] in ("enum", "body"):
                name, number = name if self.lines[number].strip() else None, number + 1
                continue
            first = number
            while number + 1 < len(self.code) and self.scopes.inside[number + 1]:
                number += 1
            declared = FUNCTION.search(self.scopes.statement[number])
            if first in self.documented or number in self.documented:
                name = declared.group(1) if declared else None
            elif declared and name:
                self.out[first] = "/** @copydoc %s */ %s" % (name, self.out[first].lstrip())
            else:
                name = None
            number += 1


class Said(Comment):
    """A comment behind an enumerator, with what is said of all of its group."""

    def __init__(self, comment, heading):
        super().__init__(comment.first, comment.own)
        self.lines = [heading + comment.lines[0]] + comment.lines[1:]


def main():
    sys.stdout.reconfigure(encoding="utf-8")
    header = pathlib.Path(sys.argv[1])
    print(Filter(header.name, header.read_text(encoding="utf-8")).run(), end="")


if __name__ == "__main__":
    main()
