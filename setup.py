"""Builds the zelisp wheel: CMake builds libzelisp.so.1 and the extension
module from this source tree, and both go into the package folder, where the
extension finds the library through its own run path ($ORIGIN). The
package's metadata is in pyproject.toml; the version is the library's."""

import os
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

SOURCE_DIR = os.path.dirname(os.path.abspath(__file__))


def library_version():
    with open(os.path.join(SOURCE_DIR, "CMakeLists.txt"), encoding="utf-8") as cmake_lists:
        return re.search(r"project\(zelisp VERSION ([0-9.]+)", cmake_lists.read()).group(1)


def pybind11_cmake_dir():
    """Where pybind11's CMake files are, when the pybind11 Python package can say."""
    try:
        import pybind11
    except ImportError:
        return None  # CMake then looks in the system's folders (Debian's pybind11-dev)
    return pybind11.get_cmake_dir()


class CMakeBuild(build_ext):
    """Builds only the library and the extension: no simulator, tools, tests or
    plugin, and warnings stay warnings, whatever compiler the builder has."""

    def build_extension(self, ext):
        build_dir = os.path.join(os.path.abspath(self.build_temp), "cmake")
        configure = [
            "cmake", "-S", SOURCE_DIR, "-B", build_dir, "-DCMAKE_BUILD_TYPE=Release",
            f"-DPython3_EXECUTABLE={sys.executable}", "-DZELISP_PYTHON_BUNDLE_LIBRARY=ON",
            "-DZELISP_WERROR=OFF", "-DZELISP_BUILD_SIM=OFF", "-DZELISP_BUILD_TESTS=OFF",
            "-DZELISP_BUILD_TOOLS=OFF", "-DZELISP_BUILD_EXAMPLES=OFF", "-DZELISP_BUILD_GST=OFF",
        ]
        cmake_dir = pybind11_cmake_dir()
        if cmake_dir:
            configure.append(f"-Dpybind11_DIR={cmake_dir}")
        subprocess.run(configure, check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL") or str(os.cpu_count() or 1)
        subprocess.run(["cmake", "--build", build_dir, "--target", "zelisp_python", "-j", jobs], check=True)

        module = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(module), exist_ok=True)
        built = os.path.join(build_dir, "python", "zelisp", os.path.basename(module))
        shutil.copyfile(built, module)
        # The versioned file itself (a wheel holds no links), under the name
        # the extension asks for.
        library = os.path.realpath(os.path.join(build_dir, "src", "libzelisp.so.1"))
        shutil.copyfile(library, os.path.join(os.path.dirname(module), "libzelisp.so.1"))


setup(
    version=library_version(),
    ext_modules=[Extension("zelisp._zelisp", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    # Away from CMake's own build/ of a developer's tree.
    options={"build": {"build_base": os.path.join("build", "python-wheel")}},
)
