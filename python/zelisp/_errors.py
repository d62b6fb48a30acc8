"""Exceptions of the zelisp package: one class per library result that a
script typically handles, all derived from zelisp.Error, and from the
built-in exception a plain Python handler would catch where one fits."""


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

    def __reduce__(self):
        # Pickled by its four fields, so that multiprocessing and
        # concurrent.futures can hand it from one process to another.
        return type(self), (self.code, self.text, self.call, self.detail)


class Timeout(Error, TimeoutError):
    """No frame came within the time limit (-13)."""


class BadState(Error):
    """The camera or group is not in a state that allows the call (-4),
    or frames are still out where the call would unmap them."""


class Cancelled(BadState):
    """A wait for frames was ended by stop(), close() or destroy() called
    from another thread (-4)."""


class InvalidArgument(Error, ValueError):
    """An argument was refused (-15)."""


for _class in (Error, Timeout, BadState, Cancelled, InvalidArgument):
    _class.__module__ = "zelisp"
del _class

_BY_CODE = {-13: Timeout, -4: BadState, -15: InvalidArgument}


def error_for(code, text, call, detail="", cancelled=False):
    """The exception object for a library result (used by the compiled core)."""
    if cancelled:
        return Cancelled(code, text, call, detail)
    return _BY_CODE.get(code, Error)(code, text, call, detail)
