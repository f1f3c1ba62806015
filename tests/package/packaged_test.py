#!/usr/bin/env python3
"""Uses the installed Debian packages: the program, by the commands of its documents too; the example
clients in C++, C++17 and C, built with pkg-config; the Python package. Then the wheel, in a virtual
environment. scripts/package-test runs it.

Usage: packaged_test.py SOURCE_DIR WHEEL
"""

import pathlib
import shlex
import subprocess
import sys
import tempfile

DOCUMENTS = ["README.md", "docs/program.md", "docs/publishing.md", "docs/log.md"]
SOURCE = pathlib.Path(sys.argv[1]).resolve()
sys.path.insert(0, str(SOURCE / "tests/support"))
import served_directory  # noqa: E402


def output(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE).stdout


def compile_example(folder, compiler, source, library):
    flags = shlex.split(output("pkg-config", "--cflags", "--libs", library))
    program = folder / source.replace(".", "_")
    subprocess.run([*compiler, "-Wall", "-Wextra", "-Werror", SOURCE / "examples" / source, "-o", program,
                    *flags, "-pthread"], check=True)
    libraries = output("ldd", program)
    if " => /lib/" not in libraries.split("lib%s.so.1" % library)[1].splitlines()[0]:
        sys.exit("the example is not linked with the installed library\n" + libraries)
    return program


def run_documents():
    """The documents for an operator, and for a reader who has only the log."""
    for document in DOCUMENTS:
        print("\n%s, with the installed program:\n" % document, flush=True)
        subprocess.run([served_directory.PYTHON, "-B", SOURCE / "tests/program/run_document.py", SOURCE,
                        SOURCE / document, "/usr/bin/corpdir", "--show"], check=True)


def install_wheel(folder):
    """The interpreter of a new virtual environment with the wheel in it."""
    environment = folder / "environment"
    subprocess.run(["/usr/bin/python3", "-m", "venv", environment], check=True)
    interpreter = environment / "bin/python"
    subprocess.run([interpreter, "-m", "pip", "--quiet", "--no-cache-dir", "install", "--no-index",
                    sys.argv[2]], check=True)
    print("the wheel is installed: " + output(interpreter, "-c", "import corpdir; print(corpdir.__file__)"),
          end="")
    return interpreter


def main():
    served_directory.be_allowed_to_listen()
    if "fetch" not in output("corpdir", "--help"):
        sys.exit("corpdir --help does not name fetch")
    run_documents()
    with tempfile.TemporaryDirectory(prefix="corpdir-packaged-") as work:
        folder = pathlib.Path(work)
        clients = [
            [compile_example(folder, ["g++", "-std=c++11"], "service_fetch.cpp", "corpdir")],
            [compile_example(folder, ["gcc", "-std=c99"], "fetch_directory.c", "corpdir_c")],
            [served_directory.PYTHON, SOURCE / "examples/fetch_directory.py"],
            [install_wheel(folder), SOURCE / "examples/fetch_directory.py"],
        ]
        staying = compile_example(folder, ["g++", "-std=c++17"], "keep_current.cpp", "corpdir_c")
        with served_directory.ServedDirectory(folder).serving() as served:
            size = len(served.files["directory.csv"])
            served.fetch_with_program("/usr/bin/corpdir")
            print("used: corpdir fetched %d bytes over FTPS, the same as served" % size)
            for client in clients:
                served.fetch(client)
                print("used: %s fetched %d bytes over FTPS, the same as served"
                      % (" ".join(pathlib.Path(part).name for part in client), size))
            served.stay_current([staying])
            print("used: %s fetched the same, and stopped" % staying.name)


if __name__ == "__main__":
    main()
