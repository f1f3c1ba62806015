"""Throw-away certificates, for tests and scripts, made with the openssl program.

    certificates.py FOLDER NAMES     leaves authority.pem, server.pem and server.key in the folder

NAMES: subjectAltName of the server, such as "IP:127.0.0.1,DNS:dir.example". The tests in C++ have
certificates.h.
"""

import pathlib
import subprocess
import sys

# First and last second of a certificate, as "openssl ca" takes them.
VALID = ("20240101000000Z", "20991231000000Z")
EXPIRED = ("20240101000000Z", "20240201000000Z")

AUTHORITY_SETTINGS = """[ca]
default_ca = here
[here]
database = {index}
new_certs_dir = {folder}
rand_serial = yes
unique_subject = no
default_md = sha256
policy = any
certificate = {path}
private_key = {key}
[any]
commonName = supplied
"""


def openssl(*arguments):
    done = subprocess.run(["openssl", *map(str, arguments)], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError("openssl %s failed:\n%s" % (arguments[0], done.stdout))


class Certificates:
    """PEM files in a folder. All certificates have one key, since making a key takes time."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder).resolve()
        self.key = self.folder / "server.key"
        openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", self.key)

    def files(self, name, *endings):
        return [self.folder / ("%s.%s" % (name, ending)) for ending in endings]

    def make_authority(self, name="authority"):
        index, settings, path = self.files(name, "index", "cnf", "pem")
        openssl("req", "-x509", "-new", "-key", self.key, "-subj", "/CN=The %s" % name, "-days", "2",
                "-addext", "keyUsage=critical,keyCertSign", "-out", path)
        index.write_text("")
        settings.write_text(AUTHORITY_SETTINGS.format(index=index, folder=self.folder, path=path,
                                                     key=self.key))
        return path

    def make_server(self, name, alternatives, dates=VALID):
        """A certificate from the authority named "authority"."""
        request, extensions, path = self.files(name, "csr", "ext", "pem")
        extensions.write_text("subjectAltName=" + alternatives)
        openssl("req", "-new", "-key", self.key, "-subj", "/CN=%s" % name, "-out", request)
        openssl("ca", "-batch", "-notext", "-config", self.folder / "authority.cnf", "-in", request,
                "-extfile", extensions, "-startdate", dates[0], "-enddate", dates[1], "-out", path)
        return path


def make_certificates(folder, alternatives):
    """authority.pem, server.pem and server.key."""
    certificates = Certificates(folder)
    certificates.make_authority()
    certificates.make_server("server", alternatives)
    return certificates


if __name__ == "__main__":
    make_certificates(*sys.argv[1:])
