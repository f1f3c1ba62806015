"""Adds what needs code: the version, and the platform of a wheel that carries the C library."""

import pathlib
import re

from setuptools import Distribution, setup

try:
    from setuptools.command.bdist_wheel import bdist_wheel
except ImportError:  # setuptools before 70.1
    from wheel.bdist_wheel import bdist_wheel

HERE = pathlib.Path(__file__).resolve().parent


def version():
    """The project's, from its one place."""
    try:
        project = (HERE.parents[1] / "CMakeLists.txt").read_text(encoding="utf-8")
    except OSError as error:
        raise SystemExit("corpdir: the version is in the CMakeLists.txt of the source tree; build "
                         "the package within the tree: %s" % error) from None
    return re.search(r"project\(corpdir VERSION ([\d.]+)", project)[1]


class WithLibrary(Distribution):
    """Belongs to one platform when the C library lies in the package's folder."""

    def has_ext_modules(self):
        return any((HERE / "corpdir").glob("libcorpdir_c.so.*"))


class Wheel(bdist_wheel):
    """With the library it serves one platform, and every Python 3, as ctypes loads the library.

    The platform is linux_x86_64 or linux_aarch64. A manylinux tag would say that the C library of
    the system is enough; the library needs the system's OpenSSL 3 and libstdc++ too.
    """

    def get_tag(self):
        python, abi, platform = super().get_tag()
        return (python, abi, platform) if self.root_is_pure else ("py3", "none", platform)


setup(version=version(), distclass=WithLibrary, cmdclass={"bdist_wheel": Wheel})
