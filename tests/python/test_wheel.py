"""pip and a virtual environment, offline, as a user installs the package: a
wheel built from the source tree with Debian's build tools, installed into a
fresh venv, importing and capturing a frame there; and pip install of the
source tree itself. Run by its own ctest entry (python.wheel): it compiles."""

import glob
import os
import shutil
import subprocess
import sys
import zipfile

import pytest

SOURCE_DIR = os.environ["ZELISP_SOURCE_DIR"]
SIM_RUN = os.environ["ZELISP_SIM_RUN"]
TESTS_DIR = os.path.dirname(os.path.abspath(__file__))
PYTHON = "/usr/bin/python3"

CAPTURE = """
import importlib.metadata, zelisp
from conftest import luma, read_stamp
print(zelisp.__file__)
print(zelisp.__version__, importlib.metadata.version("zelisp"))
with zelisp.Camera(0) as camera:
    camera.configure(views=(0,), buffers=3)
    camera.start()
    with camera.get_frame(timeout_ms=10_000) as frame:
        view = frame.views[0]
        print(frame.sequence, read_stamp(luma((view.format, view.width, view.height), view.array)))
"""


def tool_environment():
    """No simulator and no build-tree package for the build and pip; no index
    and no network either."""
    env = {key: value for key, value in os.environ.items() if key not in ("LD_PRELOAD", "PYTHONPATH")}
    env.update(PIP_NO_INDEX="1", PIP_DISABLE_PIP_VERSION_CHECK="1", CMAKE_BUILD_PARALLEL_LEVEL="2")
    return env


def run(command, cwd, env=None, timeout=1800):
    done = subprocess.run(command, cwd=cwd, env=env or tool_environment(), capture_output=True, text=True,
                          timeout=timeout)
    assert done.returncode == 0, f"{' '.join(command)}\n{done.stdout[-3000:]}\n{done.stderr[-3000:]}"
    return done.stdout


@pytest.fixture(scope="module")
def source_tree(tmp_path_factory):
    """A copy of the source tree, so that the build leaves the real one as it was."""
    pytest.importorskip("build", reason="python3-build builds the wheel")
    tree = tmp_path_factory.mktemp("wheel") / "zelisp"
    shutil.copytree(SOURCE_DIR, tree, ignore=shutil.ignore_patterns(
        "build", "build-*", ".git", "dist", "*.egg-info", "__pycache__"))
    return tree


def new_venv(path):
    run([PYTHON, "-m", "venv", "--system-site-packages", str(path)], cwd=path.parent)
    return str(path / "bin" / "python")


def capture_in(python, cwd):
    """The venv's interpreter on the simulated driver, importing the package
    from the venv (the test helpers only for reading the frame's stamp)."""
    env = dict(os.environ, PYTHONPATH=TESTS_DIR + ":" + os.environ["ZELISP_HELPER_DIR"])
    env.pop("LD_PRELOAD", None)
    return run([SIM_RUN, "--", python, "-c", CAPTURE], cwd=cwd, env=env, timeout=300).splitlines()


def test_a_wheel_installs_into_a_venv_offline_and_captures(source_tree, tmp_path):
    run([PYTHON, "-m", "build", "--no-isolation", "--wheel", "--outdir", str(tmp_path / "dist")], cwd=source_tree)
    wheels = glob.glob(str(tmp_path / "dist" / "zelisp-1.3.0-cp3*-linux_*.whl"))
    assert len(wheels) == 1, wheels
    names = set(zipfile.ZipFile(wheels[0]).namelist())
    module = [name for name in names if name.startswith("zelisp/_zelisp.cpython-")]
    assert len(module) == 1, names
    for needed in ("zelisp/__init__.py", "zelisp/_errors.py", "zelisp/__init__.pyi", "zelisp/py.typed",
                   "zelisp/libzelisp.so.1"):
        assert needed in names
    # The extension finds the library beside it, whatever the environment says.
    zipfile.ZipFile(wheels[0]).extract(module[0], tmp_path / "unpacked")
    dynamic = run(["readelf", "-d", str(tmp_path / "unpacked" / module[0])], cwd=tmp_path)
    assert "Library runpath: [$ORIGIN]" in dynamic
    assert "Shared library: [libzelisp.so.1]" in dynamic

    python = new_venv(tmp_path / "venv")
    run([python, "-m", "pip", "install", wheels[0]], cwd=tmp_path)
    path, versions, frame = capture_in(python, tmp_path)
    assert path.startswith(str(tmp_path / "venv" / "lib"))
    assert versions == "1.3.0 1.3.0"
    sequence, stamp = frame.split()
    assert sequence == stamp


def test_pip_installs_the_source_tree_itself(source_tree, tmp_path):
    python = new_venv(tmp_path / "venv")
    run([python, "-m", "pip", "install", "--no-build-isolation", "."], cwd=source_tree)
    path, versions, frame = capture_in(python, tmp_path)
    assert path.startswith(str(tmp_path / "venv" / "lib"))
    assert versions == "1.3.0 1.3.0"
    sequence, stamp = frame.split()
    assert sequence == stamp
