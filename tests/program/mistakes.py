#!/usr/bin/env python3
"""Makes the mistakes of docs/mistakes.md and compares what the program says with the document.

Each section of the document has one console block for each command of its mistake: the command, the
program's output and its exit status. What differs from run to run is replaced (Mistakes.shown).

Usage: mistakes.py PROGRAM DOCUMENT [--write]. --write puts what the program says into the document.
Exit status 0, or 1 with the differences.
"""

import argparse
import difflib
import pathlib
import re
import resource
import shlex
import subprocess
import sys

from scene import PASSWORD, Scene, environment  # also finds the next module
from certificates import EXPIRED

BLOCK = re.compile(r"^```console\n(.*?)^```\n", re.M | re.S)
HEADING = re.compile(r"^## (?:\d+\. )?(.*)\n", re.M)
COUNT = range(20, 29)

# The resolver's message for a name that does not exist, and its messages without a network, with a
# network that does not answer, or without a name service.
UNKNOWN_NAME = "Name or service not known"
RESOLVER_WORDS = ["Temporary failure in name resolution", "Non-recoverable failure in name resolution",
                  "No address associated with hostname"]

# The FTP layer waits 20 s for an answer, and the document says so; here it waits a second.
SHORT = {"CORPDIR_FTP_RESPONSE_MS": "1000", "CORPDIR_FTP_CONNECT_MS": "1000"}
PATIENCE = [("no greeting within 1 s", "no greeting within 20 s")]

# Files cannot exceed a limit in the test, and the disk is full in the document. Python ignores the
# signal of the limit, and so does the program then.
FULL_DISK = [("File too large", "No space left on device")]

STAGED = re.compile(r"\.corpdir-[0-9a-f]{16}\.")  # names of files that are not complete

TLS_LIBRARY = re.compile(r"OpenSSL/3\.0\.\d+")


class Mistakes:
    """The servers that the mistakes need, and the settings that the document shows."""

    def __init__(self, scene, document):
        self.scene = scene
        scene.write("srv/version.txt", "2026-11-21 17:30\n")
        scene.write("srv/short.txt", "1.2\n")
        scene.write("srv/utf16.txt", "2026-11-21 17:30\r\n".encode("utf-16"))
        scene.write("srv/directory.csv", b"number,name\n" * 40000)
        scene.write("out/old", "")
        scene.write("etc/password", PASSWORD + "\n")
        scene.write("etc/old-password", "the one before\n")
        other = scene.make_authority("other").read_text()
        scene.write("etc/ca.pem", scene.authority.read_text())
        scene.write("etc/other-ca.pem", other)
        self.start_servers()
        self.write_settings(document)

    def start_servers(self):
        scene, root = self.scene, self.scene.folder / "srv"
        good = scene.make_certificate("good", "IP:127.0.0.1")
        self.ports = {
            "closed": scene.closed_port(),
            "good": scene.serve(root, good),
            "plain": scene.serve(root),
            "implicit": scene.serve(root, good, "--tls", "implicit"),
            "renamed": scene.serve(root, scene.make_certificate("renamed", "DNS:old.example.com")),
            "expired": scene.serve(root, scene.make_certificate("expired", "IP:127.0.0.1", EXPIRED)),
            "modern": scene.serve(root, good, "--tls", "explicit", "--ciphers", "ECDHE+AESGCM"),
            "tls13": scene.serve(root, good, "--tls", "explicit", "--tls-min", "1.3"),
            "mute": scene.start("faulty_ftp_server.py", "--fault", "hang:GREETING"),
            "locked": self.start_faulty(good, "reply:PASS:530 Account is locked."),
            "noprot": self.start_faulty(good, "reply:PROT:534 Request denied for policy reasons."),
            "nodata": self.start_faulty(good, "reply:EPSV:229 Extended (|||1|) + "
                                              "reply:PASV:227 (127,0,0,1,0,1)"),
        }

    def start_faulty(self, certificate, fault):
        return self.scene.start("faulty_ftp_server.py", "--fault", fault, "--tls", "explicit",
                                "--cert", certificate, "--key", self.scene.key)

    def write_settings(self, document):
        """The document's settings file, and what its mistakes make of it."""
        lines = re.findall(r"^    (\S.*\n)", document, re.M)

        def without(name):
            return [line for line in lines if not line.startswith(name + " =")]

        self.settings = {
            "corpdir.conf": lines,
            "plain.conf": without("ca") + ["plain = true\n"],
            "cron.conf": without("password-file"),
            "misspelt.conf": [line.replace("output-dir", "outputdir") for line in lines]}

    def listen(self, port):
        """The settings files, with the port of the server that the mistake needs."""
        for name, lines in self.settings.items():
            self.scene.write("etc/" + name, self.real("".join(lines)).replace("2121", str(port)))

    def places(self):
        """The texts of the command that is run, and their replacements in the document."""
        return [(str(self.scene.folder / "out"), "/var/lib/directory"),
                (str(self.scene.folder / "etc"), "/etc/corpdir"), ("127.0.0.1", "192.0.2.1")]

    def real(self, text):
        for actual, shown in self.places():
            text = text.replace(shown, actual)
        return text

    def shown(self, text, port):
        for actual, stand_in in self.places():
            text = text.replace(actual, stand_in)
        text = re.sub(r"\b%d\b" % port, "2121", text)
        for words in RESOLVER_WORDS:
            text = text.replace(words, UNKNOWN_NAME)
        for actual, stand_in in PATIENCE + FULL_DISK:
            text = text.replace(actual, stand_in)
        text = STAGED.sub(".corpdir-0123456789abcdef.", text)
        text = TLS_LIBRARY.sub("OpenSSL/3.0.19", text)
        if str(self.scene.folder) in text:
            raise SystemExit("a path of this run is left in:\n" + text)
        return text

    def run(self, program, mistake):
        """The console block of one command."""
        words, variables = shlex.split(self.real(mistake.command)), {}
        while words[0] != "corpdir":
            name, _, value = words.pop(0).partition("=")
            variables[name] = value
        port = self.ports[mistake.server]
        self.listen(port)
        # Without a terminal, as a job of cron has none.
        done = subprocess.run([program, *words[1:]], env=environment(**SHORT, **variables),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=60, check=False,
                              start_new_session=True, restore_signals=not mistake.full_disk,
                              preexec_fn=limit_files if mistake.full_disk else None)
        return "$ %s\n%s[exit status %d]\n" % (mistake.command, self.shown(done.stdout, port),
                                               done.returncode)


def limit_files():
    """A limit on the size of files takes the place of a full disk."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))


class Mistake:
    def __init__(self, command, server="good", full_disk=False):
        self.command = command
        self.server = server
        self.full_disk = full_disk


FETCH = "corpdir --config /etc/corpdir/corpdir.conf fetch"

# Heading of the section: its commands.
MISTAKES = {
    "The server is down, or the port is wrong": [Mistake(FETCH, "closed")],
    "The host name has a typing error": [Mistake(FETCH + " --servers ftp1.exmaple.invalid")],
    "The list of servers is malformed": [
        Mistake(FETCH + " --servers ftp1.example.com:2121"),
        Mistake(FETCH + " --servers 'ftp1.example.com;;ftp2.example.com'")],
    "A firewall lets the connection through and nothing else": [Mistake(FETCH, "mute")],
    "The server has no TLS": [Mistake(FETCH, "plain")],
    "The server requires TLS": [Mistake("corpdir --config /etc/corpdir/plain.conf fetch")],
    "The server uses implicit FTPS": [Mistake(FETCH, "implicit")],
    "Another authority signed the certificate": [
        Mistake(FETCH + " --ca /etc/corpdir/other-ca.pem")],
    "The certificate is for another name": [Mistake(FETCH, "renamed")],
    "The certificate has expired": [Mistake(FETCH, "expired")],
    "The server shares no cipher suite": [
        Mistake(FETCH + " --ciphers service", "modern"),
        Mistake(FETCH + " --ciphers AES256-SHA1")],
    "The password is wrong": [Mistake(FETCH + " --password-file /etc/corpdir/old-password")],
    "There is no password": [
        Mistake("corpdir --config /etc/corpdir/cron.conf fetch"),
        Mistake("CORPDIR_PASSWORD='' corpdir --config /etc/corpdir/cron.conf fetch")],
    "The password file does not exist": [Mistake(FETCH + " --password-file /etc/corpdir/pasword")],
    "The version file does not exist": [Mistake(FETCH + " --version-file /pub/version.txt")],
    "The directory file does not exist": [Mistake(FETCH + " --directory-file contacts.csv")],
    "The version is too short": [Mistake(FETCH + " --version-file short.txt")],
    "Both files have the same name": [
        Mistake(FETCH + " --version-file version/current --directory-file directory/current")],
    "The output directory does not exist": [Mistake(FETCH + " --output-dir /var/lib/directory/new")],
    "The file is larger than allowed": [Mistake(FETCH + " --max-size 100kb")],
    "An option is misspelt on the command line": [Mistake(FETCH + " --server ftp1.example.com")],
    "An option is misspelt in the settings file": [
        Mistake("corpdir --config /etc/corpdir/misspelt.conf fetch")],
    "The server requires another TLS version": [Mistake(FETCH + " --ciphers service", "tls13")],
    "The version file is UTF-16": [Mistake(FETCH + " --version-file utf16.txt")],
    "The account is locked": [Mistake(FETCH, "locked")],
    "The server refuses PROT": [Mistake(FETCH, "noprot")],
    "The server's data ports are closed": [Mistake(FETCH, "nodata")],
    "The disk is full": [Mistake(FETCH, full_disk=True)],
}


def sections(document):
    """Heading and extent of each section that describes a mistake."""
    headings = list(HEADING.finditer(document))
    ends = [heading.start() for heading in headings[1:]] + [len(document)]
    return {heading.group(1): (heading.end(), end) for heading, end in zip(headings, ends)}


def check_form(document):
    """What the document must have apart from the outputs."""
    found = sections(document)
    for heading in [h for h in found if h not in MISTAKES]:
        yield "section that no mistake of the test belongs to: %s" % heading
    for heading in [h for h in MISTAKES if h not in found]:
        yield "no section: %s" % heading
    if len(found) not in COUNT:
        yield "%d sections" % len(found)
    for heading, (begin, end) in found.items():
        text = document[begin:end]
        if len(BLOCK.findall(text)) != len(MISTAKES.get(heading, [])):
            yield "%s: not one console block for each command" % heading
        elif not text[list(BLOCK.finditer(text))[-1].end():].strip():
            yield "%s: nothing behind the output that says what to do" % heading


def produce(document, mistakes, program):
    """The document with the outputs of this run."""
    for heading, commands in MISTAKES.items():
        begin, end = sections(document)[heading]
        outputs = iter([mistakes.run(program, command) for command in commands])
        section = BLOCK.sub(lambda _, o=outputs: "```console\n" + next(o) + "```\n", document[begin:end])
        document = document[:begin] + section + document[end:]
    return document


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program")
    parser.add_argument("document", type=pathlib.Path)
    parser.add_argument("--write", action="store_true")
    arguments = parser.parse_args()
    document = arguments.document.read_text()
    wrong = list(check_form(document))
    if wrong:
        print("\n".join(wrong))
        return 1
    with Scene() as scene:
        said = produce(document, Mistakes(scene, document), arguments.program)
    if arguments.write:
        arguments.document.write_text(said)
        return 0
    for line in difflib.unified_diff(document.splitlines(), said.splitlines(), "the document",
                                     "the program", lineterm=""):
        print(line)
    print("%d mistakes" % len(MISTAKES))
    return 1 if document != said else 0


if __name__ == "__main__":
    sys.exit(main())
