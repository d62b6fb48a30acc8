"""The package as an editor, a type checker, pip and a reader of help() see
it: stubs that match the module, the version everywhere, docstrings."""

import importlib.metadata
import inspect
import os
import subprocess
import sys

import pytest

import zelisp

ALLOWLIST = os.path.join(os.path.dirname(os.path.abspath(__file__)), "stubtest_allowlist.txt")


def test_the_stubs_match_the_module(tmp_path):
    pytest.importorskip("mypy", reason="mypy (Debian: mypy) checks the stubs")
    env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(zelisp.__file__)))
    checked = subprocess.run([sys.executable, "-m", "mypy.stubtest", "zelisp", "--allowlist", ALLOWLIST],
                             cwd=tmp_path, env=env, capture_output=True, text=True, timeout=600)
    assert checked.returncode == 0, checked.stdout + checked.stderr
    assert checked.stdout.startswith("Success: no issues found"), checked.stdout
    package = os.path.dirname(zelisp.__file__)
    assert os.path.exists(os.path.join(package, "py.typed"))


def test_the_version_is_the_librarys_everywhere():
    assert zelisp.version() == "zelisp:v1.3.0"
    assert zelisp.__version__ == "1.3.0"
    assert importlib.metadata.version("zelisp") == zelisp.__version__
    assert importlib.metadata.metadata("zelisp")["Requires-Dist"] == "numpy"


def public_members(cls):
    return {name for name in dir(cls) if not name.startswith("_")}


def test_everything_public_has_a_docstring():
    assert zelisp.__doc__
    for name in zelisp.__all__:
        obj = getattr(zelisp, name)
        assert inspect.getdoc(obj), name
        if inspect.isclass(obj) and not issubclass(obj, (Exception, tuple, dict)):
            for member in public_members(obj):
                assert inspect.getdoc(getattr(obj, member)), f"{name}.{member}"
