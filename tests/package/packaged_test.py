#!/usr/bin/env python3
"""Uses the installed Debian packages: the program, the example client built with pkg-config, and
the Python module where its package is installed. scripts/package-test runs it.

Usage: packaged_test.py SOURCE_DIR
"""

import pathlib
import shlex
import subprocess
import sys
import tempfile

MODULES = "/usr/lib/python3/dist-packages/"
SOURCE = pathlib.Path(sys.argv[1]).resolve()
sys.path.insert(0, str(SOURCE / "tests/support"))
import served_directory  # noqa: E402


def output(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE).stdout


def compile_example(folder):
    flags = shlex.split(output("pkg-config", "--cflags", "--libs", "corpdir"))
    program = folder / "fetch_directory"
    subprocess.run(["g++", "-std=c++11", "-Wall", "-Wextra", "-Werror",
                    SOURCE / "examples/fetch_directory.cpp", "-o", program, *flags, "-pthread"],
                   check=True)
    libraries = output("ldd", program)
    if " => /lib/" not in libraries.split("libcorpdir.so.1")[1].splitlines()[0]:
        sys.exit("the example is not linked with the installed library\n" + libraries)
    return program


def import_modules():
    """The names of the modules of python3-corpdir, none where that is not installed."""
    listed = subprocess.run(["dpkg", "-L", "python3-corpdir"], capture_output=True, text=True)
    sources = [line for line in listed.stdout.splitlines()
               if line.startswith(MODULES) and line.endswith(".py")]
    modules = sorted({source.removeprefix(MODULES).split("/")[0].removesuffix(".py")
                      for source in sources})
    if listed.returncode == 0 and not modules:
        sys.exit("python3-corpdir has no module")
    for module in modules:
        subprocess.run([served_directory.PYTHON, "-c", "import " + module], cwd="/", check=True)
    return modules


def main():
    served_directory.be_allowed_to_listen()
    if "fetch" not in output("corpdir", "--help"):
        sys.exit("corpdir --help does not name fetch")
    with tempfile.TemporaryDirectory(prefix="corpdir-packaged-") as work:
        folder = pathlib.Path(work)
        example = compile_example(folder)
        with served_directory.ServedDirectory(folder).serving() as served:
            size = len(served.files["directory.csv"])
            served.fetch_with_program("/usr/bin/corpdir")
            print("corpdir fetched %d bytes over FTPS, the same as served" % size)
            served.fetch([example])
            print("fetch_directory, built with pkg-config, fetched %d bytes over FTPS, the same as "
                  "served" % size)
    for module in import_modules():
        print("Python imports " + module)


if __name__ == "__main__":
    main()
