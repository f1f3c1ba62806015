"""The programs that are compared: the command of each to fetch files from a server on 127.0.0.1."""
import pathlib
import typing

from ftp_site import PASSWORD, ROOT, VERSION

OURS = ROOT / "build/release/tools/corpdir/corpdir"
BARE = ROOT / "build/bench/bench/bare_download"
BARE_TLS = ROOT / "build/bench/bench/bare_tls"
PLAIN, TLS12, TLS13 = "plain FTP", "FTPS, TLS 1.2, default suites", "FTPS, TLS 1.3"
# The service's default suites, by the peers' names.
DEFAULT_SUITES = "AES256-SHA:AES128-SHA256:AES256-SHA256"


class Job(typing.NamedTuple):
    """A download. `kind`: PLAIN, TLS12 or TLS13. Absolute paths."""
    port: int
    kind: str
    files: list
    output: pathlib.Path
    authorities: pathlib.Path


def ours(job, servers="127.0.0.1", more=()):
    """The program always fetches the version file first."""
    command = [OURS, "fetch", "--servers", servers, "--port", job.port, "--user", "ftp", "--quiet",
               "--version-file", VERSION, "--directory-file", job.files[-1],
               "--output-dir", job.output, *more]
    if job.kind == PLAIN:
        return command + ["--plain"]
    suites = "0x1302,0x1303,0x1301" if job.kind == TLS13 else "0x0035,0x003c,0x003d"
    return command + ["--ca", job.authorities, "--ciphers", suites]


def curl(job):
    command = ["curl", "-s", "-S", "-u", "ftp:" + PASSWORD]
    if job.kind != PLAIN:
        command += ["--ssl-reqd", "--cacert", job.authorities]
    if job.kind == TLS12:
        command += ["--tls-max", "1.2", "--ciphers", DEFAULT_SUITES]
    for file in job.files:
        command += ["ftp://127.0.0.1:%d/%s" % (job.port, file), "-o", job.output / file]
    return command


def lftp(job):
    tls = "set ftp:ssl-allow no"
    if job.kind != PLAIN:
        version = "TLS1.2" if job.kind == TLS12 else "TLS1.3"
        tls = ("set ftp:ssl-force yes; set ftp:ssl-protect-data yes; set ssl:ca-file %s; "
               "set ssl:priority NORMAL:+RSA:+AES-256-CBC:+AES-128-CBC:+SHA256:+SHA1:-VERS-ALL:+VERS-%s"
               % (job.authorities, version))
    gets = "; ".join("get %s -o %s" % (file, job.output / file) for file in job.files)
    return ["lftp", "--norc", "-c", "%s; set xfer:clobber yes; open -u ftp,%s ftp://127.0.0.1:%d; %s"
            % (tls, PASSWORD, job.port, gets)]


def wget(job):
    return ["wget", "-q", "-P", job.output, "--user=ftp", "--password=" + PASSWORD,
            *["ftp://127.0.0.1:%d/%s" % (job.port, file) for file in job.files]]


def aria2(job):
    return ["aria2c", "-q", "--no-conf", "--allow-overwrite=true", "--file-allocation=none", "-Z",
            "-d", job.output, "--ftp-user=ftp", "--ftp-passwd=" + PASSWORD,
            *["ftp://127.0.0.1:%d/%s" % (job.port, file) for file in job.files]]


def bare(job):
    """Not a peer: the minimum for the directory file alone, with its flush."""
    command = [BARE if job.kind == PLAIN else BARE_TLS, job.port, "ftp", job.files[-1],
               job.output / job.files[-1]]
    return command + ([] if job.kind == PLAIN else [job.authorities])


def flushed(peer):
    """The peer, followed by a flush of its files to the disk, which ours always does."""
    return lambda job: ["sh", "-c", '"$@" && sync %s' % " ".join(str(job.output / name)
                                                               for name in job.files),
                        "sh", *peer(job)]


OUR_NAME, BARE_NAME = "corpdir", "bare client"
PLAIN_PEERS = {"curl": curl, "lftp": lftp, "wget": wget, "aria2": aria2}
TLS_PEERS = {"curl": curl, "lftp": lftp}
SYNC = " + sync"


def contestants(kind, with_flush=True):
    """By name, ours first. wget and aria2 of Debian 12 have no FTPS. The best peers also run with a
    flush."""
    peers = PLAIN_PEERS if kind == PLAIN else TLS_PEERS
    flushing = ("lftp", "wget") if kind == PLAIN else ("lftp",)
    return {OUR_NAME: ours, **peers,
            **({name + SYNC: flushed(peers[name]) for name in flushing} if with_flush else {})}
