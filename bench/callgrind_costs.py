"""Reads a callgrind profile: instructions by object and the calls that
functions of one object make into others.

Only what the benchmark report needs: self cost per (object, function),
and call edges with their inclusive cost, from the callgrind output format
with compressed names.
"""

import collections
import os
import re

_NAME = re.compile(r"^\((\d+)\)(?: (.*))?$")


class Profile:
    def __init__(self):
        self.events = []
        self.self_cost = collections.Counter()  # (object, function) -> Ir
        self.calls = collections.Counter()  # (object, function, callee object, callee) -> calls
        self.call_cost = collections.Counter()  # same key -> inclusive Ir

    def object_cost(self, predicate):
        return sum(cost for (obj, _), cost in self.self_cost.items() if predicate(obj))

    def cost_by_object(self):
        totals = collections.Counter()
        for (obj, _), cost in self.self_cost.items():
            totals[os.path.basename(obj)] += cost
        return totals


def _resolve(table, text):
    """Compressed name: '(n) name' defines n, '(n)' refers to it."""
    match = _NAME.match(text)
    if not match:
        return text
    number, name = match.groups()
    if name is not None:
        table[number] = name
        return name
    return table.get(number, text)


def read(path):
    profile = Profile()
    objects, files, functions = {}, {}, {}
    obj = fn = ""
    callee_obj = callee_fn = None
    pending_call = None
    with open(path, encoding="utf-8", errors="replace") as stream:
        for line in stream:
            line = line.rstrip("\n")
            if not line:
                continue
            head = line[0]
            if head.isdigit() or head in "+-*":
                fields = line.split()
                cost = int(fields[1]) if len(fields) > 1 else 0
                if pending_call is not None:
                    key = (obj, fn, callee_obj or obj, callee_fn)
                    profile.calls[key] += pending_call
                    profile.call_cost[key] += cost
                    pending_call = None
                    callee_obj = None
                else:
                    profile.self_cost[(obj, fn)] += cost
                continue
            key, _, value = line.partition("=")
            if key == "ob":
                obj = _resolve(objects, value)
            elif key == "cob":
                callee_obj = _resolve(objects, value)
            elif key == "fn":
                fn = _resolve(functions, value)
            elif key == "cfn":
                callee_fn = _resolve(functions, value)
            elif key in ("fl", "fi", "fe", "cfi", "cfl"):
                _resolve(files, value)
            elif key == "calls":
                pending_call = int(value.split()[0])
            elif line.startswith("events:"):
                profile.events = line.split()[1:]
    return profile
