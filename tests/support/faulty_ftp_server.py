"""FTP and FTPS server with selectable faults.

    faulty_ftp_server.py --fault NAME [--size BYTES] [--tls explicit --cert PEM --key PEM] [--log FILE]

Prints "READY <port>" on standard output when it listens, and ends when its standard input is closed.
It serves one file under every name: `size` bytes of a fixed pattern.

A fault of a step replaces the reply. VERB is a command, GREETING, or CLOSING (the reply after the
file):
    drop:VERB      closes the connection           reset:VERB    resets the connection
    hang:VERB      sends nothing more              reply:VERB:TEXT  replies TEXT
    drip:VERB      replies byte by byte from then on
TEXT may contain {argument}, the command's argument; {half}, its first half; {latin1}, its conversion
from UTF-8 to Latin-1; in replies to EPSV and PASV {port}, the port number, and {pasv}, address and
port in PASV's form.
The other faults are the methods of Faults, each with its description. "none" is a server without a
fault; " + " joins several.
With --most N a connection beyond N at a time gets a 421; with --beyond it is closed or gets no
greeting.
With --once the fault applies only to the first transfer of the first control connection.

Events in the --log file, one a line: CONNECT <address>, SNI <channel> <name, or ->, HELLO (the
client's handshake has started), TLS <channel> <version> new|resumed, COMMAND <line>, DATA <address>,
TAKEN (the client has closed the data connection), END.
"""

import argparse
import itertools
import os
import select
import socket
import ssl
import struct
import sys
import threading
import time
import warnings


class Over(Exception):
    """Ends the dialogue."""


def pattern(size):
    return bytes((i * 7 + i // 251) & 0xFF for i in range(min(size, 65536))) * (size // 65536 + 1)


class Faults:
    """Each public method is a fault: it changes the dialogue of a good server."""

    # Size and bytes.

    def early_eof(self, it):
        """Half of the file, with a proper end of the data channel."""
        it.body = it.body[:len(it.body) // 2]

    def early_eof_unknown_size(self, it):
        """Half of the file without close_notify, no size known, 226."""
        self.unknown_size(it)
        it.close_notify = False
        it.body = it.body[:len(it.body) // 2]

    def no_close_notify(self, it):
        """The whole file without close_notify, no size known."""
        self.unknown_size(it)
        it.close_notify = False

    def no_close_notify_known_size(self, it):
        """No fault: the whole file, as announced, without close_notify."""
        it.close_notify = False

    def data_reset(self, it):
        """The data connection is reset in the middle of the file."""
        it.body = it.body[:len(it.body) // 2]
        it.at_end = it.reset_data

    def data_reset_at_end(self, it):
        """No fault: the data connection is reset when all bytes, as announced, have arrived."""
        it.at_end = lambda data: (time.sleep(0.3), it.reset_data(data))

    def data_reset_unknown_size(self, it):
        """The same without a known size, so that nothing proves the file complete."""
        self.unknown_size(it)
        self.data_reset_at_end(it)

    def size_too_small(self, it):
        it.size_reply = "213 %d" % (len(it.body) - 1)

    def size_too_large(self, it):
        it.size_reply = "213 %d" % (len(it.body) + 1)

    def size_zero(self, it):
        it.size_reply = "213 0"

    def size_beyond_limit(self, it):
        it.size_reply = "213 30000000"

    def size_unknown(self, it):
        """No fault: the server does not support SIZE."""
        it.size_reply = "502 What?"

    def unknown_size(self, it):
        """No fault: neither SIZE nor the 150 gives the size."""
        self.size_unknown(it)
        it.opening = "150 Here it comes."

    def size_in_lines(self, it):
        """No fault: a 213 of two lines, the size in the last one."""
        it.size_reply = "213-Size of the file\r\n213 %d" % len(it.body)

    def size_between_lines(self, it):
        """No fault: a 213 of several lines, the last one without the size."""
        it.size_reply = "213-Size of the file\r\n %d\r\n213 End" % len(it.body)

    def opening_lies(self, it):
        """The 150 gives a wrong size, SIZE is not supported."""
        self.size_unknown(it)
        it.opening = "150 Opening BINARY mode data connection (%d bytes)." % (len(it.body) + 5)

    def opening_zero(self, it):
        """No fault: the 150 gives 0 bytes, SIZE is not supported."""
        self.size_unknown(it)
        it.opening = "150 Opening BINARY mode data connection (0 bytes)."

    def sizes_disagree(self, it):
        """No fault: the 150 gives a wrong size, SIZE the right one."""
        it.opening = "150 Opening BINARY mode data connection (%d bytes)." % (len(it.body) + 5)

    def opening_says_nothing(self, it):
        """No fault: the 150 gives no size."""
        it.opening = "150 Here it comes."

    def file_grows(self, it):
        """More bytes than SIZE announced."""
        it.opening = "150 Here it comes."
        it.body = it.body + b"grown"

    def endless_file(self, it):
        self.unknown_size(it)
        it.at_start = it.send_for_ever

    # Speed and order.

    def slow_drip(self, it):
        """The file byte by byte."""
        it.drip = 0.02

    def stall(self, it):
        """Half of the file and then nothing; the connection stays open."""
        it.at_half = lambda data: it.hang()

    def slow_226(self, it):
        """No fault: the 226 comes two seconds after the file."""
        it.closing_delay = 2

    def slow_greeting(self, it):
        """No fault: the greeting comes after a second."""
        time.sleep(1)

    def slow_lines(self, it):
        """No fault: half a second between the lines of a reply; the greeting has four lines."""
        it.greeting = "220-one\r\n220-two\r\n220-three\r\n220 ready"
        it.line_delay = 0.5

    def slow_handshake(self, it):
        """No fault: the control channel's handshake is answered after a second."""
        def delayed():
            it.connection.recv(1, socket.MSG_PEEK)
            record("HELLO")
            time.sleep(1)
            it.handshake()
        it.secure = delayed

    def single_bytes(self, it):
        """No fault: every reply is sent byte by byte."""
        it.byte_delay = 0.0005

    def data_before_opening(self, it):
        """No fault: the file is sent and closed before the 150. Not with TLS."""
        it.data_first = True

    def replies_in_one_piece(self, it):
        """No fault: 150 and 226 in one segment, after the file; with TLS before it."""
        it.opening, it.closing = it.opening + "\r\n" + it.closing, ""
        it.data_first = it.options.tls == "none"

    def early_226(self, it):
        """No fault: the 226 arrives before the second half of the file."""
        closing, it.closing = it.closing, ""
        it.at_half = lambda data: (it.say(closing), time.sleep(0.3))

    def data_stays_open(self, it):
        """No fault: the data connection stays open after the file and the 226."""
        it.close_data = False

    def taken(self, it):
        """No fault: the reply after the file waits until the client has read all of it and closed
        the data connection. Not with TLS."""
        def wait(data):
            data.shutdown(socket.SHUT_WR)
            data.recv(1)
            record("TAKEN")
        it.at_end = wait

    def wrong_order(self, it):
        """226 before the file, 150 after it."""
        it.opening, it.closing = "226 Transfer complete.", "150 Here it comes."

    def no_150(self, it):
        """226 without a 150."""
        it.opening = ""

    # Failures between 150 and 226.

    def late_426(self, it):
        """A 426 after the last byte."""
        it.closing = "426 Failure writing network stream."

    def late_451(self, it):
        it.closing = "451 Read error on the disk."

    def abort_while_data_hangs(self, it):
        """451 after half of the file, and no more bytes; both connections stay open."""
        it.at_half = lambda data: (it.say("451 Read error on the disk."), it.hang())

    def abort_in_one_piece(self, it):
        """The same, with the 451 in one segment with the 150."""
        it.opening += "\r\n451 Read error on the disk."
        it.at_half = lambda data: it.hang()

    def control_lost_before_data(self, it):
        """The control connection is closed after the 150; the data connection stays open."""
        it.at_start = it.lose_control

    def control_lost_during_data(self, it):
        """The same after half of the file."""
        it.at_half = it.lose_control

    # Text of replies.

    def early_greeting(self, it):
        """No fault: a 120 comes before the 220."""
        it.greeting = "120 Ready in a moment.\r\n220 ready"

    def late_refusal(self, it):
        """A 120 followed by a 421."""
        it.greeting = "120 Ready in a moment.\r\n421 Too long."

    def endless_banner(self, it):
        it.for_ever(b"220-Welcome, welcome, welcome.\r\n")

    def endless_line(self, it):
        it.say_raw(b"220 ")
        it.for_ever(b"welcome " * 512)

    def binary_banner(self, it):
        it.for_ever(bytes(range(256)) * 16)

    def many_lines(self, it):
        """A complete reply of five thousand lines."""
        it.greeting = "220-hello\r\n" + "220-more\r\n" * 5000 + "220 done"

    def long_greeting(self, it):
        """No fault: a greeting of several lines, some of them like replies."""
        it.greeting = "220-hello\r\n 421 no\r\n421 not this\r\n220-530 nor this\r\n220 ready"

    def banner_of_400_lines(self, it):
        """No fault: a long greeting in Latin-1, which is not UTF-8."""
        it.greeting = "220-Gr\xfc\xdfe\r\n" + "\xe4\xf6\xfc \xa9\r\n" * 398 + "220 bereit"

    def bare_line_feeds(self, it):
        """No fault: lines end with LF only."""
        it.line_end = "\n"
        it.greeting = "220-hello\n220 ready"

    def nul_bytes(self, it):
        """No fault: replies with NUL bytes."""
        it.greeting = "220-he\0llo\r\n220 rea\0dy"
        it.replies["PASS"] = "230 Wel\0come."

    def second_welcome(self, it):
        """No fault: a second reply to PASS, sent when the next command arrives."""
        it.second_welcome = True

    def cut_greeting(self, it):
        """The connection ends in the middle of a reply of several lines."""
        it.say("220-hello\r\n220-there is more")
        it.end()

    def cut_line(self, it):
        """The connection ends in the middle of a reply's line."""
        it.say_raw(b"220 read")
        it.end()

    def cut_opening(self, it):
        it.replies["RETR"] = "150-Here it\r\n150-comes"
        it.at_start = lambda data: it.end()

    def password_echo(self, it):
        it.replies["PASS"] = "530 Login incorrect, password was {argument}."

    def password_echo_cut(self, it):
        """The password is where a client may truncate the text."""
        it.replies["PASS"] = "530 " + "x" * 246 + "{argument}"

    def password_echo_half(self, it):
        """The server truncates the password."""
        it.replies["PASS"] = "530 Login incorrect, password was {half}..."

    def password_echo_latin1(self, it):
        """The server echoes in Latin-1 a password that it received in UTF-8."""
        it.replies["PASS"] = "530 Login incorrect, password was {latin1}."

    def password_echo_later(self, it):
        """The password in the reply to another command."""
        it.replies["PASS"] = "230 {argument}? Welcome."
        it.replies["RETR"] = "550 No such file, but a password: throw-away-17"

    def escape_in_reply(self, it):
        it.replies["RETR"] = "550 \x1b[2J\x07 gone \xc2\x9b"

    def nul_in_refusal(self, it):
        it.replies["RETR"] = "550 gone\0 really"

    # Passive mode.

    def foreign_pasv(self, it):
        """No fault: PASV gives a foreign address."""
        it.replies["EPSV"] = "500 Unknown command."
        it.pasv_address = "192,0,2,77"

    def epsv_unreachable(self, it):
        """No fault: EPSV gives a closed port, PASV works."""
        it.replies["EPSV"] = "229 Extended (|||1|)"

    def epsv_silent(self, it):
        """No fault: EPSV gives a port whose listen queue is full, PASV works."""
        it.silent = SilentPort()
        it.replies["EPSV"] = "229 Extended (|||%d|)" % it.silent.port

    def data_silent(self, it):
        """EPSV and PASV give such a port."""
        self.epsv_silent(it)
        it.replies["PASV"] = "227 (127,0,0,1,%d,%d)" % divmod(it.silent.port, 256)

    # TLS.

    def clear_data(self, it):
        """PROT P is accepted, but the data channel is in clear."""
        it.protect_data = False

    def clear_after_auth(self, it):
        """AUTH is accepted, but the handshake is answered in clear."""
        it.secure = lambda: (it.connection.recv(4096), it.say("500 What is this?"), it.hang())

    def drop_handshake(self, it):
        it.secure = lambda: (it.connection.recv(4096), it.end())

    def reset_handshake(self, it):
        it.secure = lambda: (it.connection.recv(4096), it.reset())

    def hang_handshake(self, it):
        it.secure = it.hang

    def endless_handshake(self, it):
        """HelloRequests, which a client ignores, instead of a handshake."""
        hellos = b"\x16\x03\x03\x40\x00" + bytes(16384)
        it.secure = lambda: (it.connection.recv(4096), it.for_ever(hellos))

    def hang_data_handshake(self, it):
        it.secure_data = lambda data: it.hang()

    def drop_data_handshake(self, it):
        """The data connection is closed instead of a handshake, with a 425."""
        def drop(data):
            data.recv(4096)
            it.closing = "425 Unable to build data connection: Operation not permitted"
        it.secure_data = drop

    def report_data_handshake(self, it):
        """No fault: a 426 when the client aborts the handshake."""
        def report(data):
            try:
                return it.handshake_data(data)
            except ssl.SSLError:
                it.closing = "426 Failure in the TLS handshake."
                return None
        it.secure_data = report

    def injected_after_auth(self, it):
        """Replies in clear after the reply to AUTH, as an attacker may inject them."""
        it.replies["AUTH"] = "234 Go on.\r\n331 Password please.\r\n230 Welcome."

    def reuse_demanded(self, it):
        """No fault: a 522 for a data channel that does not resume the TLS session."""
        it.demand_reuse = True

    def reuse_refused(self, it):
        """A 522 for every data channel."""
        it.demand_reuse = it.deny_reuse = True

    # Between two files.

    def ignore_quit(self, it):
        it.replies["QUIT"] = ""

    def idle_421(self, it):
        """A 421 and the end of the connection after the first file."""
        it.after_file = lambda: (it.say("421 Timeout."), it.end())

    def idle_close(self, it):
        it.after_file = it.end

    def idle_reset(self, it):
        # An immediate reset would discard the 226.
        it.after_file = lambda: (time.sleep(0.3), it.reset())

    def idle_chatter(self, it):
        """An unsolicited reply a while after each file; the connection stays open."""
        it.after_file = lambda: (time.sleep(0.1), it.say("226 Once more."))

    def closing_and_more(self, it):
        """An unsolicited reply in one segment with the 226."""
        it.closing = "226 Transfer complete.\r\n200 Anything else?"

    def idle_deaf(self, it):
        """No replies after the first file."""
        it.after_file = it.hang

    def idle_deaf_then_mute(self, it):
        """The same, and no greeting on later connections."""
        it.after_file = it.hang
        if it.number != 1:
            it.step_faults.append(["hang", "GREETING"])

    # Dialogues of known servers.

    def serv_u(self, it):
        """No fault."""
        it.greeting = "220 Serv-U FTP Server v15.1 ready..."
        it.replies.update({"AUTH": "234 AUTH command OK. Initializing SSL connection.",
                           "USER": "331 User name okay, need password.",
                           "PASS": "230 User logged in, proceed.",
                           "PBSZ": "200 PBSZ command OK. Protection buffer size set to 0.",
                           "PROT": "200 PROT command OK. Using private data connection.",
                           "TYPE": "200 Type set to I.",
                           "EPSV": "229 Entering Extended Passive Mode (|||{port}|)"})
        size = len(it.body)
        it.opening = "150 Opening BINARY mode data connection for f (%d Bytes)." % size
        it.closing = "226 Transfer complete. %d bytes transferred. 97.66 KB/sec." % size

    def iis(self, it):
        """No fault."""
        it.greeting = "220 Microsoft FTP Service"
        it.replies.update({"AUTH": "234 AUTH command ok. Expecting TLS Negotiation.",
                           "USER": "331 Password required",
                           "PASS": "230-Directory has 1,234 bytes of disk space available.\r\n"
                                   "    User logged in.\r\n230 End",
                           "PBSZ": "200 PBSZ command successful.",
                           "PROT": "200 PROT command successful.",
                           "TYPE": "200 Type set to I.",
                           "EPSV": "229 Entering Extended Passive Mode (|||{port}|)"})
        it.opening = "125 Data connection already open; Transfer starting."

    def z_os(self, it):
        """No fault: SIZE is refused in binary mode, and a 250 ends the transfer."""
        it.greeting = ("220-FTPD1 IBM FTP CS V2R4 at host.example, 10:00:00 on 2026-11-22.\r\n"
                       "220 Connection will close if idle for more than 5 minutes.")
        it.replies.update({"AUTH": "234 Security environment established - ready for negotiation",
                           "USER": "331 Send password please.",
                           "PASS": "230-Processing FTPS.RC configuration file - FTPSRC\r\n"
                                   '230 FTP is logged on.  Working directory is "FTP.".',
                           "PBSZ": "200 Protection buffer size accepted",
                           "PROT": "200 Data connection protection set to private",
                           "TYPE": "200 Representation type is Image",
                           "EPSV": "229 Entering Extended Passive Mode (|||{port}|)"})
        it.size_reply = "550 SIZE is not supported for a non-HFS data set."
        it.opening = "125 Sending data set FTP.F FIXrecfm 80"
        it.closing = "250 Transfer completed successfully."


class SilentPort:
    """A port of 127.0.0.1 that never answers: its listen queue is full."""

    def __init__(self):
        self.sockets = [socket.create_server(("127.0.0.1", 0), backlog=0)]
        self.port = self.sockets[0].getsockname()[1]
        for _ in range(4):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(("127.0.0.1", self.port))
            self.sockets.append(filler)


class Dialogue:
    """A control connection with the replies of a good server, which a fault may change."""

    def __init__(self, connection, number, options):
        self.connection = connection
        self.number = number  # of the connection, from 1
        self.options = options
        self.listener = None
        self.buffer = b""
        self.behave()

    def behave(self):
        """Sets the replies of a good server."""
        options = self.options
        self.body = pattern(options.size)[:options.size]
        self.greeting = "220 ready"
        self.second_welcome = False
        self.replies = {}
        self.step_faults = []
        self.size_reply = "213 %d" % options.size
        self.opening = "150 Opening BINARY mode data connection (%d bytes)." % options.size
        self.closing = "226 Transfer complete."
        self.line_end = "\r\n"
        self.line_delay = self.byte_delay = self.drip = 0
        self.closing_delay = 0
        self.data_first = False
        self.pasv_address = "127,0,0,1"
        self.protect_data = self.close_notify = self.close_data = True
        self.demand_reuse = self.deny_reuse = False
        # Called with the data connection at the file's start, middle and end.
        self.at_start = self.at_half = self.at_end = None
        self.secure = self.handshake
        self.secure_data = self.handshake_data
        self.after_file = lambda: None
        self.transferred = False

    def apply(self, faults):
        for fault in faults.split(" + "):
            if ":" in fault:
                self.step_faults.append(fault.split(":", 2))
            elif fault != "none":
                getattr(Faults(), fault)(self)

    # Actions of faults.

    def end(self):
        raise Over

    def reset(self):
        self.linger_not(self.connection)
        raise Over

    def hang(self):
        while self.connection.recv(4096):
            pass
        raise Over

    def drip_replies(self):
        self.byte_delay = 0.1

    def for_ever(self, data):
        while True:
            self.connection.sendall(data)

    @staticmethod
    def linger_not(connection):
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def reset_data(self, data):
        self.linger_not(data)
        self.close_notify = False

    @staticmethod
    def send_for_ever(data):
        while True:
            data.sendall(b"x" * 65536)

    def lose_control(self, data):
        self.connection.close()
        while data.recv(4096):
            pass
        raise Over

    def say_raw(self, data):
        if self.byte_delay:
            for byte in data:
                self.connection.sendall(bytes([byte]))
                time.sleep(self.byte_delay)
        else:
            self.connection.sendall(data)

    def say(self, text):
        if not text:
            return
        text += self.line_end
        if not self.line_delay:
            self.say_raw(text.encode("latin-1"))
            return
        for number, line in enumerate(text.encode("latin-1").splitlines(keepends=True)):
            time.sleep(self.line_delay if number else 0)
            self.say_raw(line)

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

    def answer(self, verb, argument, good, port=0):
        """The reply at a step, unless the step's fault ends the dialogue."""
        text = self.replies.get(verb, good)
        for fault in self.step_faults:
            if fault[1] == verb and fault[0] == "reply":
                text = fault[2]
            elif fault[1] == verb:
                {"drop": self.end, "reset": self.reset, "hang": self.hang,
                 "drip": self.drip_replies}[fault[0]]()
        for name, value in (("{argument}", argument), ("{half}", argument[:len(argument) // 2]),
                            ("{latin1}", argument.encode("latin-1").decode("utf-8", "replace")),
                            ("{port}", str(port)), ("{pasv}", "%s,%d,%d" % (
                                self.pasv_address, port >> 8, port & 255))):
            text = text.replace(name, value)
        return text

    def command(self, verb, argument):
        good = {"AUTH": "234 Go on.", "USER": "331 Password please.", "PASS": "230 Welcome.",
                "PBSZ": "200 ok", "PROT": "200 ok", "PWD": '257 "/" is where you are.',
                "CWD": "250 ok", "TYPE": "200 ok", "QUIT": "221 Bye.", "SIZE": self.size_reply}
        if self.second_welcome and verb == "TYPE":
            self.say("230 Welcome.")
        if verb in ("EPSV", "PASV"):
            self.passive(verb)
        elif verb == "RETR":
            self.retrieve(argument)
        else:
            reply = self.answer(verb, argument, good.get(verb, "502 What?"))
            self.say(reply)
            if verb == "AUTH" and reply[:3] in ("234", "334"):
                self.secure()
            if verb == "QUIT" and reply:
                raise Over

    def handshake(self):
        self.connection = self.encrypt("control", self.connection, self.options.context)

    @staticmethod
    def encrypt(channel, connection, context):
        HANDSHAKE.channel = channel
        secured = context.wrap_socket(connection, server_side=True)
        record("TLS %s %s %s" % (channel, secured.version(),
                                 "resumed" if secured.session_reused else "new"))
        return secured

    def passive(self, verb):
        if self.transferred and self.options.once:
            self.behave()
        host = self.options.host
        self.listener = socket.create_server(
            (host, 0), family=socket.AF_INET6 if ":" in host else socket.AF_INET)
        good = "229 Extended (|||{port}|)" if verb == "EPSV" else "227 Passive ({pasv})"
        self.say(self.answer(verb, "", good, self.listener.getsockname()[1]))

    def retrieve(self, argument):
        self.transferred = True
        if self.data_first:
            self.send_file(self.accept_data())
            time.sleep(0.3)
        opening = self.answer("RETR", argument, self.opening)
        self.say(opening)
        if opening[:1] not in ("1", "2", ""):
            return
        if not self.data_first:
            self.send_file(self.accept_data())
        time.sleep(self.closing_delay)
        self.say(self.answer("CLOSING", "", self.closing))
        self.after_file()

    def accept_data(self):
        # The dialogue ends if the client closes the control connection instead.
        if self.listener not in select.select([self.listener, self.connection], [], [])[0]:
            raise Over
        data, address = self.listener.accept()
        record("DATA %s" % address[0])
        self.listener.close()
        return data

    def handshake_data(self, data):
        """The encrypted connection; None: close it without sending the file."""
        secured = self.encrypt("data", data, self.options.data_context)
        if self.demand_reuse and (self.deny_reuse or not secured.session_reused):
            self.end_tls(secured)
            self.closing = "522 SSL connection failed: session reuse required"
            return None
        return secured

    @staticmethod
    def end_tls(data):
        """Sends close_notify and waits for the client's."""
        data.settimeout(5)
        try:
            data = data.unwrap()
        except OSError:
            pass
        data.close()

    def send_file(self, data):
        protected = isinstance(self.connection, ssl.SSLSocket) and self.protect_data
        if protected:
            secured = self.secure_data(data)
            if secured is None:
                data.close()
                return
            data = secured
        if self.at_start:
            self.at_start(data)
        self.send_body(data)
        if self.at_end:
            self.at_end(data)
        if not self.close_data:
            self.kept_data = data
            return
        if protected and self.close_notify:
            self.end_tls(data)
        data.close()

    def send_body(self, data):
        if self.drip:
            for byte in self.body:
                data.sendall(bytes([byte]))
                time.sleep(self.drip)
            return
        half = len(self.body) // 2 if self.at_half else 0
        data.sendall(self.body[:half])
        if self.at_half:
            self.at_half(data)
        data.sendall(self.body[half:])


LOCK = threading.Lock()
HANDSHAKE = threading.local()  # .channel: the channel of the handshake on this thread
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


def serve(connection, number, options, fault):
    dialogue = Dialogue(connection, number, options)
    active = count(1)
    try:
        record("CONNECT %s" % connection.getpeername()[0])
        if active > options.most:
            if options.beyond == "421":
                dialogue.say("421 Too many connections.")
            while options.beyond == "silence" and connection.recv(4096):
                pass
            raise Over
        dialogue.apply(fault)
        if options.tls == "implicit":
            dialogue.secure()
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
    parser.add_argument("--host", default="127.0.0.1", help="loopback address to listen on")
    parser.add_argument("--most", type=int, default=1 << 30)
    parser.add_argument("--beyond", default="421", choices=["421", "close", "silence"])
    parser.add_argument("--once", action="store_true")
    parser.add_argument("--size", type=int, default=100000)
    parser.add_argument("--tls", default="none", choices=["none", "explicit", "implicit"])
    parser.add_argument("--tls-max", default="1.3", choices=["1.1", "1.2", "1.3"])
    parser.add_argument("--ciphers", help="OpenSSL cipher list, up to TLS 1.2")
    parser.add_argument("--tickets", type=int, default=2, help="number for each TLS 1.3 handshake")
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--data-cert", help="for data channels; default: --cert")
    parser.add_argument("--log")
    return parser.parse_args()


def make_context(options, certificate):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    if options.tls_max == "1.1":
        warnings.simplefilter("ignore", DeprecationWarning)
        context.minimum_version = ssl.TLSVersion.TLSv1_1
        context.set_ciphers("DEFAULT:@SECLEVEL=0")
    context.maximum_version = {"1.1": ssl.TLSVersion.TLSv1_1, "1.2": ssl.TLSVersion.TLSv1_2,
                               "1.3": ssl.TLSVersion.TLSv1_3}[options.tls_max]
    if options.ciphers:
        context.set_ciphers(options.ciphers)
    context.num_tickets = options.tickets
    context.sni_callback = lambda _, name, __: record(
        "SNI %s %s" % (HANDSHAKE.channel, name or "-"))
    context.load_cert_chain(certificate, options.key)
    return context


def end_with_standard_input():
    while sys.stdin.buffer.read(4096):
        pass
    os._exit(0)


def main():
    global LOG
    options = parse_arguments()
    options.context = make_context(options, options.cert) if options.tls != "none" else None
    options.data_context = (make_context(options, options.data_cert) if options.data_cert
                            else options.context)
    LOG = open(options.log, "a", buffering=1, encoding="latin-1") if options.log else None
    family = socket.AF_INET6 if ":" in options.host else socket.AF_INET
    listener = socket.create_server((options.host, 0), family=family, backlog=128)
    print("READY %d" % listener.getsockname()[1], flush=True)
    threading.Thread(target=end_with_standard_input, daemon=True).start()
    fault = options.fault
    for number in itertools.count(1):
        connection, _ = listener.accept()
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        threading.Thread(target=serve, args=(connection, number, options, fault),
                         daemon=True).start()
        fault = "none" if options.once else fault


if __name__ == "__main__":
    main()
