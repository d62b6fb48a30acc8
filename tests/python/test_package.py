"""The package as an editor and a reader of help() see it: type stubs name
everything the package exports, and everything public has a docstring."""

import ast
import inspect
import os

import zelisp


def stub_tree():
    path = os.path.join(os.path.dirname(zelisp.__file__), "__init__.pyi")
    with open(path) as stub:
        return ast.parse(stub.read())


def public_members(cls):
    return {name for name in dir(cls) if not name.startswith("_")}


def test_stubs_cover_every_public_name_and_member():
    tree = stub_tree()
    stubbed = {}
    functions = set()
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            members = set()
            for item in node.body:
                if isinstance(item, ast.FunctionDef):
                    members.add(item.name)
                elif isinstance(item, ast.AnnAssign):
                    members.add(item.target.id)
            stubbed[node.name] = members
        elif isinstance(node, ast.FunctionDef):
            functions.add(node.name)
    for name in zelisp.__all__:
        assert name in stubbed or name in functions, f"{name} has no stub"
    for name, members in stubbed.items():
        if name == "Resize":
            continue
        exception = issubclass(getattr(zelisp, name), Exception)
        actual = public_members(getattr(zelisp, name)) - (public_members(Exception) if exception else set())
        if name == "FrameSet":
            actual -= public_members(tuple)
        assert actual <= members, f"{name}: {sorted(actual - members)} missing from the stubs"


def test_everything_public_has_a_docstring():
    assert zelisp.__doc__
    for name in zelisp.__all__:
        obj = getattr(zelisp, name)
        assert inspect.getdoc(obj), name
        if inspect.isclass(obj) and not issubclass(obj, Exception):
            for member in public_members(obj) - public_members(tuple):
                assert inspect.getdoc(getattr(obj, member)), f"{name}.{member}"
