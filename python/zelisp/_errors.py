"""Exceptions of the zelisp package: one class per library result that a
script typically handles, all derived from zelisp.Error."""


class Error(Exception):
    """A call into libzelisp failed.

    code: the library's negative result (ISP_ERR_*); text: the library's
    sentence for it; call: the library function (or package step) that
    failed; detail: what the package adds, when anything.
    """

    def __init__(self, code, text, call, detail=""):
        self.code = code
        self.text = text
        self.call = call
        self.detail = detail
        message = f"{call}: {text} ({code})"
        if detail:
            message += f": {detail}"
        super().__init__(message)


class Timeout(Error):
    """No frame came within the time limit (-13)."""


class BadState(Error):
    """The camera or group is not in a state that allows the call (-4),
    or frames are still out where the call would unmap them."""


class InvalidArgument(Error):
    """An argument was refused (-15)."""


for _class in (Error, Timeout, BadState, InvalidArgument):
    _class.__module__ = "zelisp"

_BY_CODE = {-13: Timeout, -4: BadState, -15: InvalidArgument}


def error_for(code, text, call, detail=""):
    """The exception object for a library result (used by the compiled core)."""
    return _BY_CODE.get(code, Error)(code, text, call, detail)
