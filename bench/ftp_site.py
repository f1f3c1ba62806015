"""FTP servers on loopback for the benchmarks, and a proxy that puts a distance in between."""
import contextlib
import getpass
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
VSFTPD = ROOT / ".cache/servers/vsftpd/usr/sbin/vsftpd"
PASSWORD = "throw-away-17"
VERSION, SMALL, LARGE = "version.txt", "small.dat", "large.dat"


def run(*command, **options):
    subprocess.run([str(part) for part in command], check=True, **options)


def fill(path, size):
    """Writes a file that cannot be compressed."""
    with open(path, "wb") as file:
        for begin in range(0, size, 1 << 20):
            file.write(os.urandom(min(1 << 20, size - begin)))


def make_certificates(folder):
    """Creates a certification authority (ca.pem) and a certificate for 127.0.0.1 (server.pem, server.key)."""
    quiet = {"stderr": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "cwd": folder}
    (folder / "extensions").write_text("subjectAltName=IP:127.0.0.1\n")
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=Bench",
        "-keyout", "ca.key", "-out", "ca.pem", **quiet)
    run("openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1",
        "-keyout", "server.key", "-out", "server.csr", **quiet)
    run("openssl", "x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
        "-CAcreateserial", "-days", "2", "-extfile", "extensions", "-out", "server.pem", **quiet)


def prepare(work):
    """Creates the files of all servers: a version file and a directory file of 64 KB."""
    for folder in ("empty", "served"):
        (work / folder).mkdir()
    (work / "passwords").write_text(PASSWORD + "\n")
    (work / "served" / VERSION).write_text("edition 17 of today\n")
    fill(work / "served" / SMALL, 65536)
    make_certificates(work)


def free_port(address="127.0.0.1"):
    with socket.create_server((address, 0)) as probe:
        return probe.getsockname()[1]


def await_greeting(address, port):
    for _ in range(500):
        with contextlib.suppress(OSError), socket.create_connection((address, port)) as client:
            client.recv(100)
            return
        time.sleep(0.01)
    sys.exit("no server on %s:%d" % (address, port))


def configure(work, tls, address, port, **more):
    """Writes a configuration of vsftpd, with session resumption required on data channels; returns its path."""
    lines = {
        "background": "NO", "run_as_launching_user": "YES", "isolate": "NO", "isolate_network": "NO",
        "seccomp_sandbox": "NO", "secure_chroot_dir": work / "empty", "listen": "YES",
        "listen_ipv6": "NO", "listen_address": address, "listen_port": port,
        "anonymous_enable": "YES", "local_enable": "NO", "ftp_username": getpass.getuser(),
        "anon_root": work / "served", "anon_world_readable_only": "NO", "allow_writeable_chroot": "YES",
        "secure_email_list_enable": "YES", "email_password_file": work / "passwords",
        "xferlog_enable": "NO",
    }
    if tls:
        lines.update({
            "ssl_enable": "YES", "allow_anon_ssl": "YES", "force_anon_logins_ssl": "YES",
            "force_anon_data_ssl": "YES", "require_ssl_reuse": "YES", "ssl_ciphers": "HIGH",
            "rsa_cert_file": work / "server.pem", "rsa_private_key_file": work / "server.key",
        })
    lines.update(more)
    path = work / ("vsftpd-%d.conf" % port)
    path.write_text("".join("%s=%s\n" % item for item in lines.items()))
    path.chmod(0o600)
    return path


@contextlib.contextmanager
def server(work, tls, address="127.0.0.1", **more):
    """Runs vsftpd; yields its port."""
    port = free_port(address)
    configuration = configure(work, tls, address, port, **more)
    process = subprocess.Popen([VSFTPD, configuration], stdout=subprocess.DEVNULL)
    try:
        await_greeting(address, port)
        yield port
    finally:
        process.terminate()
        process.wait()


@contextlib.contextmanager
def distant_server(work, tls, milliseconds, megabits=0):
    """Runs a server behind a proxy on 127.0.0.1 that delays every byte each way and limits the
    bandwidth towards the client (0: no limit). Yields (port, counts), where counts() returns the
    connections since its last call, and the round trips on them."""
    # Its ports are the same as the proxy's, and below those that the system gives out.
    behind, first, last = "127.0.0.2", 20200, 20215
    with server(work, tls, address=behind, pasv_min_port=first, pasv_max_port=last,
                pasv_address="127.0.0.1", pasv_promiscuous="YES") as port:
        command = [sys.executable, pathlib.Path(__file__).parent / "proxy.py", behind, str(port),
                   str(first), str(last), str(milliseconds), str(megabits)]
        proxy = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            proxy.stdout.readline()  # it listens

            def counts():
                proxy.stdin.write("\n")
                proxy.stdin.flush()
                return [int(word) for word in proxy.stdout.readline().split()]
            yield port, counts
        finally:
            proxy.send_signal(signal.SIGTERM)
            proxy.wait()


@contextlib.contextmanager
def silent_address(address, port):
    """Makes an address whose port never answers: its queue of connections is full."""
    with contextlib.ExitStack() as stack:
        listener = stack.enter_context(socket.socket())
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((address, port))
        listener.listen(0)
        for _ in range(4):
            filler = stack.enter_context(socket.socket())
            filler.setblocking(False)
            filler.connect_ex((address, port))
        yield
