"""Scripted FTP and FTPS server that misbehaves in one named way.

    faulty_ftp_server.py --fault NAME [--size BYTES] [--tls explicit --cert PEM --key PEM] [--log FILE]

Prints "READY <port>" on standard output once it listens on 127.0.0.1, and ends when its standard
input is closed. It serves one file under every name: `size` bytes of a fixed pattern.

Faults of a step, VERB being GREETING or a command (AUTH USER PASS PBSZ PROT PWD EPSV PASV TYPE SIZE
RETR), at which the server, instead of answering,
    drop:VERB      closes the connection           reset:VERB    resets it
    hang:VERB      says nothing any more           reply:VERB:TEXT  answers TEXT
Other faults are the methods of Faults, where each one is described. "none" is a server without fault.
With --most N a connection beyond N at a time is greeted with a 421, or, with --beyond, is closed or
gets no greeting.
With --once the fault is shown to the first transfer of the first control connection only.

The --log file gets a line for each thing that happens: CONNECT <address>, COMMAND <line>,
DATA <address>, END.
"""

import argparse
import os
import socket
import ssl
import struct
import sys
import threading
import time


class Over(Exception):
    """The dialogue ends here."""


def pattern(size):
    return bytes((i * 7 + i // 251) & 0xFF for i in range(min(size, 65536))) * (size // 65536 + 1)


class Faults:
    """What differs from a good server. Each public method is a fault and takes the dialogue."""

    def early_eof(self, it):
        """Half of the file, its end announced properly."""
        it.body = it.body[:len(it.body) // 2]

    def early_eof_unknown_size(self, it):
        """Half of the file without close_notify, no size known, 226."""
        it.size_reply = it.opening = None
        it.close_notify = False
        it.body = it.body[:len(it.body) // 2]

    def no_close_notify(self, it):
        """All of the file, no size known, no close_notify."""
        it.size_reply = it.opening = None
        it.close_notify = False

    def data_reset(self, it):
        """The data connection is reset in the middle of the file."""
        it.body = it.body[:len(it.body) // 2]
        it.data_reset = True

    def size_too_small(self, it):
        it.size_reply = "213 %d" % (len(it.body) - 1)

    def size_too_large(self, it):
        it.size_reply = "213 %d" % (len(it.body) + 1)

    def size_negative(self, it):
        it.size_reply = "213 -1"

    def size_enormous(self, it):
        it.size_reply = "213 9223372036854775808"

    def size_beyond_numbers(self, it):
        it.size_reply = "213 99999999999999999999999999"

    def size_no_number(self, it):
        it.size_reply = "213 about a megabyte"

    def size_unknown(self, it):
        """No fault: SIZE is unknown to the server."""
        it.size_reply = None

    def size_refused(self, it):
        """No fault: SIZE answers 550, RETR works."""
        it.size_reply = "550 SIZE not allowed"

    def opening_lies(self, it):
        """The 150 names another size, SIZE is unknown to the server."""
        it.size_reply = None
        it.opening = "150 Opening BINARY mode data connection (%d bytes)." % (len(it.body) + 5)

    def sizes_disagree(self, it):
        it.opening = "150 Opening BINARY mode data connection (%d bytes)." % (len(it.body) + 5)

    def file_grows(self, it):
        """More bytes are sent than SIZE said."""
        it.opening = "150 Here it comes."
        it.body = it.body + b"grown"

    def endless_file(self, it):
        it.size_reply = it.opening = None
        it.endless = True

    def slow_drip(self, it):
        """A byte at a time."""
        it.drip = 0.02

    def stall(self, it):
        """Half of the file and then nothing, the connection stays."""
        it.stall = True

    def no_226(self, it):
        """The file is complete, but nothing is said any more."""
        it.closing = None

    def slow_226(self, it):
        """No fault: the 226 comes two seconds after the file."""
        it.closing_delay = 2

    def slow_handshake(self, it):
        """No fault: the control channel's handshake is taken up after a second."""
        it.handshake_delay = 1

    def late_426(self, it):
        """Aborted after the last byte."""
        it.closing = "426 Failure writing network stream."

    def late_451(self, it):
        it.closing = "451 Read error on the disk."

    def wrong_order(self, it):
        """226 before the file, 150 after it."""
        it.opening, it.closing = "226 Transfer complete.", "150 Here it comes."

    def no_150(self, it):
        """226 without a 150."""
        it.opening = ""

    def endless_banner(self, it):
        it.forever(b"220-Welcome, welcome, welcome.\r\n")

    def endless_line(self, it):
        it.say_raw(b"220 ")
        it.forever(b"welcome " * 512)

    def binary_banner(self, it):
        it.forever(bytes(range(256)) * 16)

    def many_lines(self, it):
        """A reply of five thousand lines that does end."""
        it.greeting = "220-hello\r\n" + "220-more\r\n" * 5000 + "220 done"

    def long_greeting(self, it):
        """No fault: a greeting of several lines, some of which look like replies."""
        it.greeting = "220-hello\r\n 421 no\r\n220-530 not this either\r\n220 ready"

    def password_echo(self, it):
        it.replies["PASS"] = "530 Login incorrect, password was %s." % "{argument}"

    def password_echo_cut(self, it):
        """The password lies where a client may shorten the text."""
        it.replies["PASS"] = "530 " + "x" * 246 + "{argument}"

    def size_refused_then_drop(self, it):
        """SIZE answers 550, which is no fault; RETR ends the connection."""
        it.size_reply = "550 SIZE not allowed"
        it.step_fault = ["drop", "RETR"]

    def epsv_refused_then_drop(self, it):
        it.replies["EPSV"] = "500 Unknown command."
        it.step_fault = ["drop", "PASV"]

    def escape_in_reply(self, it):
        it.replies["RETR"] = "550 \x1b[2J\x07 gone \xc2\x9b"

    def foreign_pasv(self, it):
        """PASV names an address of somebody else."""
        it.replies["EPSV"] = "500 Unknown command."
        it.pasv_address = "192,0,2,77"

    def epsv_unreachable(self, it):
        """EPSV names a port at which nobody answers, PASV works."""
        it.epsv_closed = True

    def clear_data(self, it):
        """PROT P is accepted, the data channel is in clear all the same."""
        it.protect_data = False

    def hang_data_handshake(self, it):
        it.hang_data_handshake = True

    def hang_handshake(self, it):
        it.hang_handshake = True

    def injected_after_auth(self, it):
        """Plain text behind the answer to AUTH, as an attacker may slip in."""
        it.replies["AUTH"] = "234 Go on.\r\n331 Password please.\r\n230 Welcome."

    def ignore_quit(self, it):
        it.replies["QUIT"] = ""

    def idle_421(self, it):
        """After the first file: 421 and end."""
        it.after_file = lambda: (it.say("421 Timeout."), it.end())

    def idle_close(self, it):
        it.after_file = it.end

    def idle_reset(self, it):
        # A reset at once would take the 226 with it.
        it.after_file = lambda: (time.sleep(0.3), it.reset())

    def idle_chatter(self, it):
        """A while after the first file: a reply that nobody asked for; the connection stays."""
        it.after_file = lambda: (time.sleep(0.1), it.say("226 Once more."))

    def closing_and_more(self, it):
        """A reply that nobody asked for, in one piece with the 226."""
        it.closing = "226 Transfer complete.\r\n200 Anything else?"

    def idle_deaf(self, it):
        """After the first file nothing is answered any more."""
        it.after_file = it.hang


class Dialogue:
    """One control connection with a good server's answers, which a fault may change first."""

    def __init__(self, connection, options):
        self.connection = connection
        self.options = options
        self.listener = None
        self.buffer = b""
        self.behave()

    def behave(self):
        """Sets the answers of a good server."""
        options = self.options
        self.body = pattern(options.size)[:options.size]
        self.greeting = "220 ready"
        self.replies = {}
        self.step_fault = None
        self.size_reply = "213 %d" % options.size
        self.opening = "150 Opening BINARY mode data connection (%d bytes)." % options.size
        self.closing = "226 Transfer complete."
        self.pasv_address = "127,0,0,1"
        self.protect_data = self.close_notify = True
        self.data_reset = self.endless = self.stall = self.epsv_closed = False
        self.hang_handshake = self.hang_data_handshake = False
        self.drip = self.closing_delay = self.handshake_delay = 0
        self.after_file = lambda: None
        self.transferred = False

    def apply(self, fault):
        if ":" in fault:
            self.step_fault = fault.split(":", 2)
        elif fault != "none":
            getattr(Faults(), fault)(self)

    # What a fault may do.

    def end(self):
        raise Over

    def reset(self):
        self.linger_not(self.connection)
        raise Over

    def hang(self):
        while self.connection.recv(4096):
            pass
        raise Over

    def forever(self, data):
        while True:
            self.connection.sendall(data)

    @staticmethod
    def linger_not(connection):
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def say_raw(self, data):
        self.connection.sendall(data)

    def say(self, text):
        if text:
            self.say_raw(text.encode("latin-1") + b"\r\n")

    # The dialogue.

    def run(self):
        self.say(self.answer("GREETING", "", self.greeting))
        while True:
            line = self.read_line()
            record("COMMAND %s" % line)
            verb, _, argument = line.partition(" ")
            self.command(verb.upper(), argument)

    def read_line(self):
        while b"\n" not in self.buffer:
            data = self.connection.recv(4096)
            if not data:
                raise Over
            self.buffer += data
        line, _, self.buffer = self.buffer.partition(b"\n")
        return line.rstrip(b"\r").decode("latin-1")

    def answer(self, verb, argument, good):
        """What is said at a step, unless the step's fault ends it."""
        if self.step_fault and self.step_fault[1] == verb:
            kind = self.step_fault[0]
            if kind == "reply":
                self.transferred = True
                return self.step_fault[2]
            {"drop": self.end, "reset": self.reset, "hang": self.hang}[kind]()
        return self.replies.get(verb, good).replace("{argument}", argument)

    def command(self, verb, argument):
        good = {"AUTH": "234 Go on.", "USER": "331 Password please.", "PASS": "230 Welcome.",
                "PBSZ": "200 ok", "PROT": "200 ok", "PWD": '257 "/" is where you are.',
                "CWD": "250 ok", "TYPE": "200 ok", "QUIT": "221 Bye."}
        if verb in ("EPSV", "PASV"):
            self.passive(verb)
        elif verb == "SIZE":
            self.say(self.answer(verb, argument, self.size_reply or "502 What?"))
        elif verb == "RETR":
            self.retrieve(argument)
        else:
            self.say(self.answer(verb, argument, good.get(verb, "502 What?")))
        if verb == "AUTH" and self.said_yes("AUTH"):
            self.secure()
        if verb == "QUIT" and self.said_yes("QUIT"):
            raise Over

    def said_yes(self, verb):
        reply = self.replies.get(verb, "2")
        if self.step_fault and self.step_fault[:2] == ["reply", verb]:
            reply = self.step_fault[2]
        return reply.startswith("2")

    def secure(self):
        if self.hang_handshake:
            self.hang()
        time.sleep(self.handshake_delay)
        self.connection = self.options.context.wrap_socket(self.connection, server_side=True)

    def passive(self, verb):
        if self.transferred and self.options.once:
            self.behave()
        self.listener = socket.create_server(("127.0.0.1", 0))
        port = self.listener.getsockname()[1]
        if verb == "EPSV":
            # Port 1 of loopback: nobody answers, at once.
            good = "229 Extended (|||%d|)" % (1 if self.epsv_closed else port)
        else:
            good = "227 Passive (%s,%d,%d)" % (self.pasv_address, port >> 8, port & 255)
        self.say(self.answer(verb, "", good))

    def retrieve(self, argument):
        self.transferred = True
        opening = self.opening if self.opening is not None else "150 Here it comes."
        opening = self.answer("RETR", argument, opening)
        self.say(opening)
        if opening[:1] not in ("1", "2", ""):
            return
        data, address = self.listener.accept()
        record("DATA %s" % address[0])
        self.listener.close()
        self.send_file(data)
        time.sleep(self.closing_delay)
        self.say(self.closing)
        self.after_file()

    def send_file(self, data):
        if self.hang_data_handshake:
            self.hang()
        protected = isinstance(self.connection, ssl.SSLSocket) and self.protect_data
        if protected:
            data = self.options.context.wrap_socket(data, server_side=True)
        while self.endless:
            data.sendall(b"x" * 65536)
        self.send_body(data)
        if self.data_reset:
            self.linger_not(data)
        elif protected and self.close_notify:
            data.unwrap().close()
        data.close()

    def send_body(self, data):
        if self.stall:
            data.sendall(self.body[:len(self.body) // 2])
            self.hang()
        if not self.drip:
            data.sendall(self.body)
        for byte in self.body if self.drip else b"":
            data.sendall(bytes([byte]))
            time.sleep(self.drip)


LOCK = threading.Lock()
LOG = None


def record(text):
    if LOG:
        with LOCK:
            LOG.write(text + "\n")


ACTIVE = 0


def count(change):
    global ACTIVE
    with LOCK:
        ACTIVE += change
        return ACTIVE


def serve(connection, options, fault):
    dialogue = Dialogue(connection, options)
    active = count(1)
    try:
        record("CONNECT %s" % connection.getpeername()[0])
        if active > options.most:
            if options.beyond == "421":
                dialogue.say("421 Too many connections.")
            while options.beyond == "silence" and connection.recv(4096):
                pass
            raise Over
        if options.implicit:
            dialogue.secure()
        dialogue.apply(fault)
        dialogue.run()
    except (Over, OSError):
        pass
    finally:
        dialogue.connection.close()
        count(-1)
        record("END")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--fault", required=True)
    parser.add_argument("--most", type=int, default=1 << 30)
    parser.add_argument("--beyond", default="421", choices=["421", "close", "silence"])
    parser.add_argument("--once", action="store_true")
    parser.add_argument("--size", type=int, default=100000)
    parser.add_argument("--tls", default="none", choices=["none", "explicit", "implicit"])
    parser.add_argument("--tls-max", default="1.3", choices=["1.2", "1.3"])
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--log")
    return parser.parse_args()


def make_context(options):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    if options.tls_max == "1.2":
        context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.load_cert_chain(options.cert, options.key)
    return context


def end_with_standard_input():
    while sys.stdin.buffer.read(4096):
        pass
    os._exit(0)


def main():
    global LOG
    options = parse_arguments()
    options.implicit = options.tls == "implicit"
    options.context = make_context(options) if options.tls != "none" else None
    LOG = open(options.log, "a", buffering=1, encoding="latin-1") if options.log else None
    listener = socket.create_server(("127.0.0.1", 0))
    print("READY %d" % listener.getsockname()[1], flush=True)
    threading.Thread(target=end_with_standard_input, daemon=True).start()
    fault = options.fault
    while True:
        connection, _ = listener.accept()
        threading.Thread(target=serve, args=(connection, options, fault), daemon=True).start()
        fault = "none" if options.once else fault


if __name__ == "__main__":
    main()
