#!/usr/bin/env python3
"""Installs a release build, moves the installed tree, and uses the library as an application would.

Usage: installed_test.py SOURCE_DIR BUILD_DIR CASE
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

SOURCE, BUILD = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
sys.path.insert(0, str(SOURCE / "tests/support"))
from served_directory import ServedDirectory, be_allowed_to_listen  # noqa: E402

HERE = SOURCE / "tests/package"
EXAMPLE = SOURCE / "examples/service_fetch.cpp"
STAYING = SOURCE / "examples/keep_current.cpp"
STRICT = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]
STRICTER = [*STRICT, "-Wconversion", "-Wsign-conversion", "-Wshadow", "-Wold-style-cast"]
VERSION = re.search(r"project\(corpdir VERSION ([\d.]+)",
                    (SOURCE / "CMakeLists.txt").read_text())[1]
MAJOR, MINOR, _ = map(int, VERSION.split("."))
SONAME = "libcorpdir.so.%d" % MAJOR
# Set by a cross build.
CC, CXX, STRIP, EMULATOR = (os.environ.get("CORPDIR_" + name, usual).split() for name, usual in (
    ("CC", "gcc"), ("CXX", "g++"), ("STRIP", "strip"), ("EMULATOR", "")))
SIZE_LIMIT = 400_000  # bytes of the stripped shared library


def run(*command, **options):
    """Standard output; a failure ends the test with all that the command said."""
    done = subprocess.run([str(part) for part in command], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, **options)
    if done.returncode != 0:
        sys.exit("%s: status %d\n%s%s" % (" ".join(map(str, command)), done.returncode,
                                          done.stdout, done.stderr))
    return done.stdout


def require(holds, what):
    if not holds:
        sys.exit("failed: " + what)


class Installed:
    """The build installed into one folder, and moved to another one."""

    def __init__(self, work):
        self.work = work
        self.first = work / "first"
        self.prefix = work / "else/where/moved"
        run("cmake", "--install", BUILD, "--prefix", self.first)
        self.prefix.parent.mkdir(parents=True)
        self.first.rename(self.prefix)
        self.include = self.prefix / "include/corpdir"
        self.lib = next(self.prefix.rglob("libcorpdir.so")).parent

    def pkg_config(self, *arguments, alone):
        """alone: no other library's file can be found."""
        variable = "PKG_CONFIG_LIBDIR" if alone else "PKG_CONFIG_PATH"
        return run("pkg-config", *arguments,
                   env={**os.environ, variable: str(self.lib / "pkgconfig")}).split()

    def cmake(self, *settings, example=EXAMPLE):
        """An application's build folder, configured. The library's folders are given as the prefix
        alone, which a cross build looks for within roots."""
        folder = self.work / "consumer"
        command = ["cmake", "-S", HERE / "consumer", "-B", folder, "-DEXAMPLE=%s" % example,
                   "-DCMAKE_PREFIX_PATH=%s" % self.prefix, "-DCMAKE_FIND_ROOT_PATH=%s" % self.prefix,
                   "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_STANDARD=11",
                   "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", *settings]
        return folder, command

    def build(self, *settings, example=EXAMPLE, standard_kept=True):
        folder, command = self.cmake(*settings, example=example)
        run(*command)
        run("cmake", "--build", folder)
        flags = (folder / "compile_commands.json").read_text()
        require(("-std=gnu++11" in flags) == standard_kept, "an application is compiled as it chose")
        for ours in ("-Werror", "-Wall", "_FORTIFY_SOURCE", str(SOURCE / "service")):
            require(ours not in flags, "an application inherits %s" % ours)
        return folder / "consumer"


def dynamic(program):
    return run("readelf", "--wide", "--dynamic", program)


def require_shared(program):
    require("[%s]" % SONAME in dynamic(program), "linked with " + SONAME)


def require_static(program):
    section = dynamic(program)
    require("libcorpdir" not in section, "linked without the shared library")
    require(re.search(r"FLAGS_1.*\bNOW\b", section), "linked with -z now")


def fetch(work, program, **environment):
    with ServedDirectory(work).serving() as served:
        served.fetch([*EMULATOR, program], environment)


def stay_current(work, program, **environment):
    with ServedDirectory(work).serving() as served:
        served.stay_current([*EMULATOR, program], environment)


def headers(installed):
    for header in ("ftpcorpdir.h", "corpdir_loginfo.h"):
        for compiler in ("g++", "clang++"):
            for standard in ("11", "14", "17", "20"):
                run(compiler, "-std=c++" + standard, *STRICT, "-I", installed.include, "-x", "c++",
                    "-fsyntax-only", "-", input="#include <%s>\n#include <%s>\n" % (header, header))
    for compiler in ("gcc", "clang"):
        run(compiler, "-std=c99", *STRICT, "-I", installed.include, "-x", "c", "-fsyntax-only", "-",
            input="#include <corpdir_c.h>\n")
    for compiler in ("g++", "clang++"):
        for standard in ("17", "20", "2b"):
            run(compiler, "-std=c++" + standard, "-O2", *STRICTER, "-I", installed.include, "-c", STAYING,
                "-o", installed.work / "keep_current.o")
    found = sorted(path.name for path in installed.include.iterdir())
    print("compiled alone: " + " ".join(found))


def cmake_shared(installed):
    program = installed.build("-DVERSION=%d.0" % MAJOR,
                              *("-DCMAKE_DISABLE_FIND_PACKAGE_%s=ON" % name
                                for name in ("OpenSSL",)))
    require_shared(program)
    fetch(installed.work, program)


def cmake_static(installed):
    program = installed.build("-DVERSION=%d.0" % MAJOR, "-DCOMPONENTS=static")
    require_static(program)
    fetch(installed.work, program)


def cmake_cpp(installed):
    """The interface for C++17 asks for its standard, whatever the application chose."""
    program = installed.build("-DVERSION=%d.0" % MAJOR, "-DTARGET=corpdir::corpdir_cpp",
                              example=STAYING, standard_kept=False)
    stay_current(installed.work, program)


def cmake_versions(installed):
    for version, found in ((VERSION, True), ("%d" % MAJOR, True), ("%d.0" % MAJOR, True),
                           ("%d.%d" % (MAJOR, MINOR + 1), False), ("%d.0" % (MAJOR - 1), False),
                           ("%d.0" % (MAJOR + 1), False)):
        _, command = installed.cmake("-DVERSION=" + version)
        done = subprocess.run([*map(str, command), "--fresh"], capture_output=True, text=True)
        require((done.returncode == 0) == found, "version %s: %s" % (version, done.stderr))
        require(found or "considered but not accepted" in done.stderr, done.stderr)
    _, command = installed.cmake("-DCOMPONENTS=no_such_thing")
    require(subprocess.run([*map(str, command), "--fresh"], capture_output=True).returncode != 0,
            "an unknown component is not found")


def compile_with(installed, flags, output):
    run(*CXX, "-std=c++11", *STRICT, EXAMPLE, "-o", output, *flags, "-pthread")
    return output


def pkgconfig_shared(installed):
    flags = installed.pkg_config("--cflags", "--libs", "corpdir", alone=True)
    program = compile_with(installed, flags, installed.work / "client")
    require_shared(program)
    fetch(installed.work, program, LD_LIBRARY_PATH=str(installed.lib))


def pkgconfig_static(installed):
    """Beside the shared library, which the linker would prefer."""
    flags = installed.pkg_config("--cflags", "--libs", "corpdir-static", alone=False)
    program = compile_with(installed, flags, installed.work / "client")
    require_static(program)
    fetch(installed.work, program)


def pkgconfig_static_alone(installed):
    """The shared library is not installed, and the usual --static is said."""
    for file in installed.lib.glob("libcorpdir.so*"):
        file.unlink()
    flags = installed.pkg_config("--static", "--cflags", "--libs", "corpdir", alone=True)
    program = compile_with(installed, flags, installed.work / "client")
    require_static(program)
    fetch(installed.work, program)


def pkgconfig_c(installed):
    flags = installed.pkg_config("--cflags", "--libs", "corpdir_c", alone=True)
    program = installed.work / "client"
    run(*CC, "-std=c99", *STRICT, SOURCE / "examples/fetch_directory.c", "-o", program, *flags)
    require("[libcorpdir_c.so.%d]" % MAJOR in dynamic(program), "linked with the C library")
    fetch(installed.work, program, LD_LIBRARY_PATH=str(installed.lib))


def pkgconfig_cpp(installed):
    flags = installed.pkg_config("--cflags", "--libs", "corpdir_c", alone=True)
    program = installed.work / "client"
    run(*CXX, "-std=c++17", *STRICTER, STAYING, "-o", program, *flags, "-pthread")
    require("[libcorpdir_c.so.%d]" % MAJOR in dynamic(program), "linked with the C library")
    stay_current(installed.work, program, LD_LIBRARY_PATH=str(installed.lib))


PYTHON_EXAMPLE = SOURCE / "examples/fetch_directory.py"
LOADED = "import corpdir; corpdir.version(); print(open('/proc/self/maps').read())"


def python(installed):
    package = next(installed.prefix.rglob("corpdir/__init__.py")).parent
    require((package / "py.typed").is_file(), "the annotations are announced")
    require(not list(package.rglob("*.so*")), "the installed package has no library of its own")
    with ServedDirectory(installed.work).serving() as served:
        served.fetch([sys.executable, PYTHON_EXAMPLE],
                     {"LD_LIBRARY_PATH": str(installed.lib), "PYTHONPATH": str(package.parent),
                      "PYTHONDONTWRITEBYTECODE": "1"})


def install_with_pip(work, *arguments):
    """The interpreter of a new virtual environment in which pip has installed a package. Debian's
    own, whose setuptools scripts/setup installs."""
    run("/usr/bin/python3", "-m", "venv", "--system-site-packages", work / "venv")
    interpreter = work / "venv/bin/python"
    run(interpreter, "-m", "pip", "--no-cache-dir", "install", "--no-index", *arguments)
    found = run(interpreter, "-c",
                "from importlib import metadata; print(metadata.version('corpdir'))")
    require(found.strip() == VERSION, "pip shows version " + VERSION)
    return interpreter


def pip(installed):
    """The source folder, in a copy of the tree's part that it needs; it uses the library of the
    system."""
    folder = installed.work / "tree/bindings/python"
    shutil.copytree(SOURCE / "bindings/python", folder)
    shutil.copy(SOURCE / "CMakeLists.txt", installed.work / "tree")
    interpreter = install_with_pip(installed.work, "--no-build-isolation", folder)
    missing = subprocess.run([interpreter, "-c", LOADED], capture_output=True, text=True)
    require("set CORPDIR_LIBRARY" in missing.stderr, "without a library: " + missing.stderr)
    with ServedDirectory(installed.work).serving() as served:
        served.fetch([interpreter, PYTHON_EXAMPLE], {"LD_LIBRARY_PATH": str(installed.lib)})


def wheel(installed):
    """Carries the library, the same to the byte each time, under a tag that is true."""
    made = []
    for name, mask in (("one", 0o022), ("two", 0o077)):
        folder = installed.work / name
        folder.mkdir()
        run(SOURCE / "packaging/python/wheel", installed.lib / "libcorpdir_c.so.1", folder,
            env={**os.environ, "SOURCE_DATE_EPOCH": "1700000000"},
            preexec_fn=lambda mask=mask: os.umask(mask))
        made.extend(folder.iterdir())
    require(len(made) == 2 and made[0].read_bytes() == made[1].read_bytes(), "reproducible")
    expected = "corpdir-%s-py3-none-linux_%s.whl" % (VERSION, os.uname().machine)
    require(made[0].name == expected, "%s is %s" % (made[0].name, expected))
    interpreter = install_with_pip(installed.work, made[0])
    require(re.search(r"site-packages/corpdir/libcorpdir_c\.so\.1$", run(interpreter, "-c", LOADED),
                      re.M), "the library beside the modules is loaded")
    with ServedDirectory(installed.work).serving() as served:
        served.fetch([interpreter, PYTHON_EXAMPLE])


def unloaded(installed):
    """A client that calls dlclose while the service's threads run."""
    program = installed.work / "client"
    run(*CXX, "-std=c++11", *STRICT, "-I", installed.include, EXAMPLE,
        HERE / "dlopen_instance.cpp", "-o", program, "-ldl", "-pthread")
    require("libcorpdir" not in dynamic(program), "linked without the library")
    # Slow enough for the directory file to be under way long after the dlclose.
    with ServedDirectory(installed.work).serving("--rate", "2000000") as served:
        printed = served.fetch([*EMULATOR, program], {"CORPDIR_LIBRARY": str(installed.lib / SONAME)})
    require("unloaded" in printed, "the library was unloaded")


def relocatable(installed):
    """No installed file names a folder of the build, the sources or the first installation."""
    files = [path for path in installed.prefix.rglob("*") if path.is_file()]
    require(len(files) > 8, "there are files")
    for path in files:
        content = path.read_bytes()
        for folder in (BUILD, SOURCE, installed.first):
            require(os.fsencode(folder) not in content, "%s names %s" % (path.name, folder))


def size(installed):
    stripped = installed.work / "stripped.so"
    run(*STRIP, "--strip-unneeded", "-o", stripped, installed.lib / SONAME)
    measured = stripped.stat().st_size
    print("libcorpdir.so, stripped: %d bytes" % measured)
    require(measured <= SIZE_LIMIT, "at most %d bytes" % SIZE_LIMIT)


CASES = {case.__name__: case for case in (
    headers, cmake_shared, cmake_static, cmake_cpp, cmake_versions, pkgconfig_shared, pkgconfig_static,
    pkgconfig_static_alone, pkgconfig_c, pkgconfig_cpp, python, pip, wheel, unloaded, relocatable, size)}


def main():
    be_allowed_to_listen()
    for variable in ("CORPDIR_LIBRARY", "PYTHONPATH"):  # would hide what is installed
        os.environ.pop(variable, None)
    with tempfile.TemporaryDirectory(prefix="corpdir-installed-") as work:
        CASES[sys.argv[3]](Installed(pathlib.Path(work)))


if __name__ == "__main__":
    main()
