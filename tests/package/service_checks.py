#!/usr/bin/env python3
"""Checks the service of the package corpdir-tools on a machine that systemd has booted: start, reload,
failure, refused login, upgrade, stop, removal and purge. An FTPS server on port 21 of 127.0.0.1 has the
directory.

It changes the machine: scripts/systemd-test runs it in a root of its own.

Usage: service_checks.py SOURCE_DIR PACKAGE. The last line has the number of checks; exit status 0 when all
passed.
"""

import os
import pathlib
import pwd
import re
import secrets
import subprocess
import sys
import tempfile
import time
import traceback

SOURCE, PACKAGE = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
sys.path.insert(0, str(SOURCE / "tests/support"))
from certificates import make_certificates  # noqa: E402

EXAMPLE = pathlib.Path("/usr/share/doc/corpdir-tools/examples/corpdir.conf.example")
SETTINGS = pathlib.Path("/etc/corpdir")
STATE = pathlib.Path("/var/lib/corpdir")
LOGS = pathlib.Path("/var/log/corpdir")
USER = "directory"
PATIENCE = 60  # seconds; the unit is restarted after 30
RETRY_SECONDS = 1
STOP_SECONDS = 3
JOURNAL_LINES = 20
BAD_ARGUMENTS = 2
BAD_LINE = 'no-such-option = "x"\n'
OTHER_SERVER = "127.0.0.2"  # where none is
UNITS = pathlib.Path("/etc/systemd/system")
PHONE, OFFICE, WRONG = ("corpdir-watch@%s.service" % name for name in ("phone", "office", "wrong"))


def run(*command):
    return subprocess.run([str(word) for word in command], text=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)


def must(*command):
    done = run(*command)
    if done.returncode != 0:
        raise RuntimeError("%s: status %d\n%s" % (" ".join(map(str, command)), done.returncode, done.stdout))
    return done.stdout


def shown(unit, name):
    return must("systemctl", "show", "--property", name, "--value", unit).strip()


def state(unit):
    return shown(unit, "ActiveState") + "/" + shown(unit, "SubState")


def journal(unit):
    """The last lines; an earlier run in this root has left its own."""
    must("journalctl", "--sync")
    return must("journalctl", "--boot", "--output", "cat", "--lines", JOURNAL_LINES, "--unit", unit)


def becomes(condition):
    """Whether it holds within the time."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.1)
    return True


class Server:
    """The directory over FTPS; each edition has other content."""

    def __init__(self, folder):
        self.folder = folder
        self.served = folder / "served"
        (self.served / "dir").mkdir(parents=True)
        make_certificates(folder, "IP:127.0.0.1")
        self.process = None
        self.edition = ""
        self.content = b""

    def publish(self, edition):
        self.edition = edition
        self.content = secrets.token_hex(100_000).encode()
        for name, content in (("directory.csv", self.content), ("version.txt", edition.encode() + b"\n")):
            (self.served / "dir" / name).write_bytes(content)

    def start(self, password):
        (self.folder / "password").write_text(password)
        self.process = subprocess.Popen(
            [sys.executable, SOURCE / "tests/support/ftp_server.py", "--host", "127.0.0.1", "--port", "21",
             "--root", self.served, "--user", USER, "--password-file", self.folder / "password",
             "--tls", "explicit", "--tls-required", "--cert", self.folder / "server.pem",
             "--key", self.folder / "server.key", "--log", self.folder / "server.log"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if not self.process.stdout.readline().startswith(b"READY"):
            raise RuntimeError("the FTPS server did not start")

    def logins(self):
        return (self.folder / "server.log").read_text().count("COMMAND PASS ")

    def stop(self):
        if self.process:
            self.process.stdin.close()
            self.process.wait()
            self.process.stdout.close()
            self.process = None


def document_units():
    """The path unit of docs/program.md, and the service that it starts."""
    blocks = re.findall(r"^```ini\n(.*?)^```$", (SOURCE / "docs/program.md").read_text(), flags=re.M | re.S)
    if len(blocks) != 2 or "[Path]" not in blocks[0] or "reload pbx" not in blocks[1]:
        raise RuntimeError("the document has other units: %s" % blocks)
    return blocks


def files_named_corpdir():
    """Without those of this test."""
    return set(must("find", "/", "-xdev", "(", "-path", "/root", "-o", "-path", "/proc", "-o", "-path", "/tmp",
                    ")", "-prune", "-o", "-name", "*corpdir*", "!", "-name", "corpdir-checks.*", "-prune",
                    "-print").splitlines())


def write_settings(instance, more="", servers="127.0.0.1"):
    """The example of the package, for the server here."""
    text = EXAMPLE.read_text().replace("corpdir/phone", "corpdir/" + instance)
    for name, value in (("servers", servers), ("user", USER), ("ca", SETTINGS / "authority.pem"),
                        ("log-dir", LOGS / instance), ("retry", "%ds" % RETRY_SECONDS),
                        ("exec", "env >%s/%s/environment" % (STATE, instance))):
        text, count = re.subn(r"^#?%s = .*$" % name, '%s = "%s"' % (name, value), text, flags=re.M)
        if count != 1:
            raise RuntimeError("the example settings have %s %d times" % (name, count))
    (SETTINGS / (instance + ".conf")).write_text(more + text)


def write_password(instance, password):
    """By the command of docs/program.md."""
    subprocess.run(["install", "-m", "0640", "-g", "corpdir", "/dev/stdin", SETTINGS / (instance + ".password")],
                   input=password + "\n", text=True, check=True)


class Checks:
    """The steps, in their order; each leaves the server running with the password that it has."""

    def __init__(self, server):
        self.server = server
        self.password = secrets.token_urlsafe(18)
        self.passed = 0
        self.failed = 0

    def check(self, what, holds, detail=""):
        if holds:
            self.passed += 1
            print("ok      " + what, flush=True)
        else:
            self.failed += 1
            print("FAILED  %s%s" % (what, ": %s" % detail if detail else ""), flush=True)

    def check_becomes(self, what, condition, detail):
        """detail: a function, for the time of the failure."""
        holds = becomes(condition)
        self.check(what, holds, "" if holds else detail())

    def step(self, function):
        print("\n== " + function.__doc__, flush=True)
        try:
            function()
        except Exception:  # the other steps still say something
            self.check("the step ends", False, traceback.format_exc())

    def has_edition(self, instance="phone"):
        path = STATE / instance / "directory.csv"
        return path.exists() and path.read_bytes() == self.server.content

    def check_fetched(self, what, instance="phone"):
        self.check_becomes(what, lambda: self.has_edition(instance),
                           lambda: journal("corpdir-watch@%s.service" % instance))

    def check_status(self, pattern):
        what = "the status text becomes '%s'" % pattern
        self.check_becomes(what, lambda: re.match(pattern, shown(PHONE, "StatusText")),
                           lambda: repr(shown(PHONE, "StatusText")))

    def check_current(self):
        self.check_status("version .?%s.? from .*127.0.0.1.*, checked " % self.server.edition)

    @staticmethod
    def ask():
        """The command of docs/program.md for a check now."""
        must("systemctl", "kill", "--kill-whom=main", "--signal=SIGUSR1", PHONE)

    def check_same_process(self, before):
        self.check("the unit stays active, in the same process",
                   (state(PHONE), shown(PHONE, "MainPID")) == ("active/running", before),
                   state(PHONE) + "\n" + journal(PHONE))

    @staticmethod
    def running():
        """The process of the first instance, which is started if a failure ended it."""
        must("systemctl", "start", PHONE)
        return shown(PHONE, "MainPID")

    def install(self):
        """installation"""
        left = files_named_corpdir()
        self.check("no earlier run has left anything", not left, left)
        must("dpkg", "--install", PACKAGE)
        self.check("the user is there", pwd.getpwnam("corpdir").pw_shell.endswith("/nologin"))
        listed = must("systemctl", "list-units", "--all", "--plain", "--no-legend", "corpdir-watch@*")
        self.check("no instance runs", not listed, listed)
        verified = run("systemd-analyze", "--man=no", "verify", PHONE)
        self.check("systemd accepts each line of the unit",
                   verified.returncode == 0 and "corpdir" not in verified.stdout, verified.stdout)

    def start(self):
        """start"""
        (SETTINGS / "authority.pem").write_bytes((self.server.folder / "authority.pem").read_bytes())
        write_settings("phone")
        write_password("phone", self.password)
        self.server.publish("edition 1")
        self.server.start(self.password)
        started = run("systemctl", "enable", "--now", PHONE)
        self.check("enable --now succeeds", started.returncode == 0, started.stdout + journal(PHONE))
        self.check("the unit waits for READY, and is active",
                   (shown(PHONE, "Type"), state(PHONE)) == ("notify", "active/running"), state(PHONE))
        self.check("it is enabled", run("systemctl", "is-enabled", PHONE).stdout == "enabled\n")
        self.check_fetched("the directory file arrives")
        file = (STATE / "phone/directory.csv").stat()
        self.check("it belongs to the service's user, and others may read it",
                   (pwd.getpwuid(file.st_uid).pw_name, file.st_mode & 0o777) == ("corpdir", 0o644), file)
        log = LOGS / "phone/corpdir.log"
        self.check("the log is there, readable by its owner only",
                   log.exists() and log.stat().st_mode & 0o777 == 0o600, log)
        environment = STATE / "phone/environment"
        self.check_becomes("the command runs, and cannot report for the service",
                           lambda: environment.exists() and "CORPDIR_VERSION" in environment.read_text()
                           and "NOTIFY_SOCKET" not in environment.read_text(),
                           lambda: journal(PHONE))
        self.check_current()

    def check_now(self):
        """check now, with the path unit of the document"""
        process = self.running()
        marker = pathlib.Path("/run/pbx-reloaded")
        path, service = document_units()
        (UNITS / "phonebook.path").write_text(path)
        (UNITS / "phonebook.service").write_text(service)
        (UNITS / "pbx.service").write_text("[Service]\nExecStart=sleep infinity\nExecReload=touch %s\n" % marker)
        must("systemctl", "daemon-reload")
        must("systemctl", "start", "pbx.service")
        must("systemctl", "enable", "--now", "phonebook.path")
        self.check("the other service is not reloaded before", not marker.exists())
        self.server.publish("edition 2")
        self.ask()
        self.check_fetched("SIGUSR1 brings the next edition")
        self.check_becomes("the path unit reloads the other service", marker.exists,
                           lambda: must("systemctl", "status", "phonebook.path"))
        self.check_current()
        self.check_same_process(process)

    def reload(self):
        """reload"""
        process = self.running()
        self.server.stop()
        self.password = secrets.token_urlsafe(18)
        write_password("phone", self.password)
        self.server.publish("edition 3")
        self.server.start(self.password)
        reloaded = run("systemctl", "reload", PHONE)
        self.check("reload succeeds", reloaded.returncode == 0, reloaded.stdout)
        self.check_becomes("the reload ends", lambda: state(PHONE) == "active/running", lambda: state(PHONE))
        self.check_fetched("it uses the new password, and checks at once")
        self.check_current()
        self.check_same_process(process)

    def wrong_reload(self):
        """reload with a mistake"""
        process = self.running()
        write_settings("phone", BAD_LINE, OTHER_SERVER)
        reloaded = run("systemctl", "reload", PHONE)
        self.check("reload succeeds", reloaded.returncode == 0, reloaded.stdout)
        self.check_becomes("the journal names the mistake",
                           lambda: re.search("settings not reloaded: .*no-such-option", journal(PHONE)),
                           lambda: journal(PHONE))
        self.check_becomes("the reload ends", lambda: state(PHONE) == "active/running", lambda: state(PHONE))
        self.server.publish("edition 4")
        self.ask()
        self.check_fetched("all settings of before stay in use")
        self.check_current()
        self.check_same_process(process)
        write_settings("phone")

    def failure(self):
        """failure of the server"""
        process = self.running()
        self.server.stop()
        run("systemctl", "reload", PHONE)
        self.check_status("failed: .*: cannot connect: Connection refused; version edition 4 is in place$")
        self.check_same_process(process)
        self.server.publish("edition 5")
        self.server.start(self.password)
        self.check_fetched("it recovers by itself")
        self.check_current()

    def refused_login(self):
        """refused login"""
        self.server.stop()
        self.password = secrets.token_urlsafe(18)
        self.server.publish("edition 6")
        self.server.start(self.password)
        before = self.server.logins()
        must("systemctl", "restart", PHONE)
        process = self.running()
        self.check_status("failed: .*: login refused: 530 ")
        self.check_becomes("the journal names the reason", lambda: "login refused: 530 " in journal(PHONE),
                           lambda: journal(PHONE))
        time.sleep(5 * RETRY_SECONDS)
        self.check("the login is not repeated", self.server.logins() == before + 1, journal(PHONE))
        self.check_same_process(process)
        write_password("phone", self.password)
        self.ask()
        self.check_fetched("a check now uses the new password, without a reload")
        self.check_current()
        self.check("systemd has not restarted the unit", shown(PHONE, "NRestarts") == "0")

    def wrong_settings(self):
        """start with a mistake"""
        write_settings("wrong", BAD_LINE)
        write_password("wrong", self.password)
        self.check("start fails", run("systemctl", "start", WRONG).returncode != 0)
        self.check("the unit is failed, and not tried again",
                   (state(WRONG), shown(WRONG, "ExecMainStatus"), shown(WRONG, "NRestarts"))
                   == ("failed/failed", str(BAD_ARGUMENTS), "0"), state(WRONG))
        self.check("the journal names the mistake", "no-such-option" in journal(WRONG), journal(WRONG))

    def crash(self):
        """crash"""
        process = self.running()
        self.server.publish("edition 7")
        must("systemctl", "kill", "--kill-whom=main", "--signal=SIGKILL", PHONE)
        self.check_becomes("it waits before it is tried again",
                           lambda: state(PHONE) == "activating/auto-restart", lambda: state(PHONE))
        self.check_becomes("it runs again", lambda: state(PHONE) == "active/running", lambda: state(PHONE))
        self.check("it was restarted once, as another process",
                   shown(PHONE, "NRestarts") == "1" and shown(PHONE, "MainPID") != process, journal(PHONE))
        self.check_fetched("it fetches the next edition")

    def upgrade(self):
        """upgrade"""
        process = self.running()
        must("systemctl", "reset-failed", WRONG)
        must("dpkg", "--install", PACKAGE)
        self.check("the instance that ran is restarted",
                   shown(PHONE, "ActiveState") == "active" and shown(PHONE, "MainPID") != process, state(PHONE))
        program = os.readlink("/proc/%s/exe" % shown(PHONE, "MainPID"))
        self.check("it runs the new program", program == "/usr/bin/corpdir", program)
        self.check("it stays enabled", run("systemctl", "is-enabled", PHONE).stdout == "enabled\n")
        self.check("one that did not is not started", shown(WRONG, "ActiveState") == "inactive", state(WRONG))
        self.check_fetched("the directory file is there")

    def stop(self):
        """stop"""
        self.running()
        invocation = shown(PHONE, "InvocationID")
        before = time.monotonic()
        must("systemctl", "stop", PHONE)
        seconds = time.monotonic() - before
        self.check("it takes less than %d s" % STOP_SECONDS, seconds < STOP_SECONDS, seconds)
        self.check("it is a success", (state(PHONE), shown(PHONE, "Result")) == ("inactive/dead", "success"),
                   state(PHONE))
        must("journalctl", "--sync")
        said = must("journalctl", "--output", "cat", "_SYSTEMD_INVOCATION_ID=" + invocation)
        self.check("the journal has the stop", "stopped by SIGTERM" in said, said)

    def prepare_office(self):
        """A second instance, with a password file that root alone can read."""
        write_settings("office")
        write_password("office", self.password)
        (SETTINGS / "office.password").chmod(0o600)
        settings = SETTINGS / "office.conf"
        settings.write_text(settings.read_text().replace(
            "/etc/corpdir/office.password", "/run/credentials/%s/password" % OFFICE))
        drop_in = UNITS / (OFFICE + ".d/password.conf")
        drop_in.parent.mkdir()
        drop_in.write_text("[Service]\nLoadCredential=password:%s/office.password\n" % SETTINGS)
        must("systemctl", "daemon-reload")

    def remove(self):
        """removal and purge"""
        self.prepare_office()
        for unit in (PHONE, OFFICE):
            must("systemctl", "start", unit)
        self.check_fetched("a second instance runs beside the first, with a credential", "office")
        processes = [pathlib.Path("/proc") / shown(unit, "MainPID") for unit in (PHONE, OFFICE)]
        write_settings("wrong")
        must("systemctl", "start", WRONG)
        must("systemctl", "kill", "--kill-whom=main", "--signal=SIGKILL", WRONG)
        self.check_becomes("a third one has crashed and waits for its restart",
                           lambda: state(WRONG) == "activating/auto-restart", lambda: state(WRONG))
        must("dpkg", "--remove", "corpdir-tools")
        self.check("all instances are stopped", not any(path.exists() for path in processes))
        left = must("systemctl", "list-units", "--plain", "--no-legend", "--state=active,activating",
                    "corpdir-watch@*")
        self.check("no unit is left", not left, left)
        self.check("the log stays", (LOGS / "phone/corpdir.log").exists())
        must("dpkg", "--purge", "corpdir-tools")
        kept = {str(path) for path in (SETTINGS, STATE, UNITS / (OFFICE + ".d"))}
        left = files_named_corpdir()
        self.check("the purge leaves settings, directories and the drop-in, no link of what was enabled, no log",
                   left == kept, left)
        self.check("settings, directory and user are as they were",
                   (SETTINGS / "phone.conf").exists() and (SETTINGS / "phone.password").exists()
                   and self.has_edition("office") and pwd.getpwnam("corpdir"))

    def all(self):
        for function in (self.install, self.start, self.check_now, self.reload, self.wrong_reload,
                         self.failure, self.refused_login, self.wrong_settings, self.crash, self.upgrade,
                         self.stop, self.remove):
            self.step(function)


def main():
    os.environ["LC_ALL"] = "C.UTF-8"
    with tempfile.TemporaryDirectory() as folder:
        server = Server(pathlib.Path(folder))
        checks = Checks(server)
        try:
            checks.all()
        finally:
            server.stop()
    print("\nservice: %d checks passed, %d failed" % (checks.passed, checks.failed))
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
