"""FTP and FTPS server for the tests and the demo, on pyftpdlib.

Prints "READY <port>" on standard output once it listens, and ends when its standard input is
closed, so that it never outlives the process that started it.

With --log it appends one line for each thing that clients do:
    CONNECT <address>                       a control connection
    TLS control <version> <suite>           the finished handshake of a control connection
    COMMAND <line>                          as received, password included: throw-away ones only
    SENT <bytes> <path>                     a file was sent completely
    DISCONNECT <address>                    the control connection is gone

The protocol is pyftpdlib's as it is shipped, but for implicit TLS, which it does not have. A refused
login is answered at once.
"""

import argparse
import ipaddress
import os
import socket
import sys
import threading

from OpenSSL import SSL
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import DTPHandler, FTPHandler, TLS_DTPHandler, TLS_FTPHandler
from pyftpdlib.handlers import ThrottledDTPHandler
from pyftpdlib.ioloop import IOLoop
from pyftpdlib.log import config_logging
from pyftpdlib.servers import FTPServer


class Record:
    """The --log file; without one nothing is written."""

    def __init__(self, path):
        self.file = open(path, "a", buffering=1, encoding="utf-8", errors="replace") if path else None

    def write(self, text):
        if self.file:
            self.file.write(text + "\n")


RECORD = Record(None)


class RecordingMixin:
    """Writes what one control connection does to the record."""

    def on_connect(self):
        RECORD.write("CONNECT %s" % self.remote_ip)

    def on_disconnect(self):
        RECORD.write("DISCONNECT %s" % self.remote_ip)

    def on_file_sent(self, file):
        RECORD.write("SENT %d %s" % (os.path.getsize(file), file))

    def pre_process_command(self, line, cmd, arg):
        RECORD.write("COMMAND %s" % line)
        super().pre_process_command(line, cmd, arg)


class PlainHandler(RecordingMixin, FTPHandler):
    pass


class ExplicitHandler(RecordingMixin, TLS_FTPHandler):
    def handle_ssl_established(self):
        super().handle_ssl_established()
        RECORD.write("TLS control %s %s" % (self.socket.get_protocol_version_name(),
                                            self.socket.get_cipher_name()))


class ImplicitHandler(ExplicitHandler):
    """TLS from the first byte, which pyftpdlib does not have: the greeting waits for the handshake."""

    def handle(self):
        self.secure_connection(self.ssl_context)

    def handle_ssl_established(self):
        super().handle_ssl_established()
        FTPHandler.handle(self)


def loopback_address(text):
    if not ipaddress.ip_address(text).is_loopback:
        raise ValueError
    return text


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--host", default="127.0.0.1", type=loopback_address)
    parser.add_argument("--port", type=int, default=0, help="0: a free one")
    parser.add_argument("--root", required=True, help="directory that is served, read-only")
    parser.add_argument("--user", required=True)
    secret = parser.add_mutually_exclusive_group(required=True)
    secret.add_argument("--password")
    secret.add_argument("--password-file", help="its first line is the password")
    parser.add_argument("--tls", default="none", choices=["none", "explicit", "implicit"])
    parser.add_argument("--cert", help="PEM: the certificate, then its intermediates")
    parser.add_argument("--key", help="PEM; default: in the --cert file")
    parser.add_argument("--tls-required", action="store_true",
                        help="refuse logins and data connections that are not encrypted")
    parser.add_argument("--ciphers", help="suites up to TLS 1.2, as OpenSSL's cipher lists")
    parser.add_argument("--tls-min", default="1.2", choices=["1.2", "1.3"])
    parser.add_argument("--tls-max", default="1.3", choices=["1.2", "1.3"])
    parser.add_argument("--rate", type=int, default=0, help="bytes a second per data connection")
    parser.add_argument("--log", help="file that records what clients do")
    arguments = parser.parse_args()
    if arguments.tls != "none" and not arguments.cert:
        parser.error("--tls needs --cert")
    return arguments


def make_ssl_context(arguments):
    context = SSL.Context(SSL.TLS_SERVER_METHOD)
    versions = {"1.2": SSL.TLS1_2_VERSION, "1.3": SSL.TLS1_3_VERSION}
    context.set_min_proto_version(versions[arguments.tls_min])
    context.set_max_proto_version(versions[arguments.tls_max])
    context.use_certificate_chain_file(arguments.cert)
    context.use_privatekey_file(arguments.key or arguments.cert)
    context.check_privatekey()
    if arguments.ciphers:
        context.set_cipher_list(arguments.ciphers.encode())
    context.set_session_id(b"corpdir test server")
    return context


class EvenPaceMixin:
    """Pauses after each tenth of a second's bytes. pyftpdlib alone sends those of a second or two at
    once, and clients would have to wait that long for the next ones."""

    def _throttle_bandwidth(self, len_chunk, max_speed):
        self._datacount += len_chunk
        if self._datacount < max_speed / 10:
            return
        pause, self._datacount = self._datacount / max_speed, 0
        self.del_channel()
        self._throttler = self.ioloop.call_later(
            pause, lambda: self.add_channel(events=self.ioloop.WRITE), _errback=self.handle_error)


def data_handler(arguments):
    base = DTPHandler if arguments.tls == "none" else TLS_DTPHandler
    if arguments.rate == 0:
        return base
    return type("SlowDataHandler", (EvenPaceMixin, ThrottledDTPHandler, base),
                {"write_limit": arguments.rate, "auto_sized_buffers": True})


def control_handler(arguments):
    handler = {"none": PlainHandler, "explicit": ExplicitHandler,
               "implicit": ImplicitHandler}[arguments.tls]
    handler.banner = "test server"
    handler.dtp_handler = data_handler(arguments)
    handler.authorizer = DummyAuthorizer()
    handler.authorizer.add_user(arguments.user, password(arguments), arguments.root, perm="elr")
    # A refused login answers at once: pyftpdlib's delay of seconds is against guessing.
    handler.auth_failed_timeout = 0
    if arguments.tls != "none":
        handler.ssl_context = make_ssl_context(arguments)
        handler.tls_control_required = arguments.tls_required
        handler.tls_data_required = arguments.tls_required
    return handler


def password(arguments):
    if arguments.password is not None:
        return arguments.password
    with open(arguments.password_file, encoding="utf-8") as file:
        return file.readline().rstrip("\r\n")


def listening_socket(host, port):
    """The kernel chooses among free ports, so that servers started side by side never collide."""
    listener = socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind((host, port))
    return listener


def end_with_standard_input():
    while sys.stdin.buffer.read(4096):
        pass
    os._exit(0)


def main():
    global RECORD
    arguments = parse_arguments()
    RECORD = Record(arguments.log)
    config_logging(level=30)
    server = FTPServer(listening_socket(arguments.host, arguments.port),
                       control_handler(arguments), IOLoop())
    print("READY %d" % server.address[1], flush=True)
    threading.Thread(target=end_with_standard_input, daemon=True).start()
    server.serve_forever(handle_exit=False)


if __name__ == "__main__":
    main()
