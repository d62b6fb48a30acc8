"""A daemon thread blocked in a wait while the program ends, on its own or
by Ctrl-C: the interpreter finalizes, the thread wakes in the middle of it
(a frame arrives), and the process still exits as Python says it should,
never with an abort. Each way is run 20 times, as a user runs a script."""

import os
import signal
import subprocess
import sys
import textwrap

import pytest

READER = textwrap.dedent('''
    import sys, threading, time, types
    import zelisp, zsim

    how, call = sys.argv[1], sys.argv[2]
    for node in (0, 1):
        zsim.set_scripted(node, True)
    cameras = [zelisp.Camera(0), zelisp.Camera(1)]
    for camera in cameras:
        camera.configure(views=(0,), buffers=3)
        camera.start()

    def read():
        if call == "get_frame":
            while True:
                cameras[0].get_frame(None).release()
        elif call == "frames":
            for frame in cameras[0].frames(timeout_ms=None):
                pass
        else:
            while True:
                zelisp.wait(cameras, None)

    def wait_channel(thread):
        try:
            with open(f"/proc/self/task/{thread.native_id}/wchan") as channel:
                return channel.read()
        except FileNotFoundError:
            return "gone"

    reader = threading.Thread(target=read, daemon=True)
    reader.start()
    deadline = time.monotonic() + 60  # generous, for a loaded machine
    while "poll" not in wait_channel(reader):
        if time.monotonic() > deadline:
            sys.exit("the reader never began to wait")
        time.sleep(0.001)

    class FrameAtShutdown:
        """Freed while the interpreter finalizes: wakes the reader with a
        frame then, and lets it run until it has parked (or, were it to ask
        for the interpreter lock, until CPython ends it)."""

        def __init__(self):
            self.push, self.channel, self.reader = zsim.push_frame, wait_channel, reader
            self.finalizing = sys.is_finalizing

        def __del__(self):
            assert self.finalizing()
            self.push(0, 1, 2_000_000)
            self.push(1, 1, 2_000_000)
            for _ in range(20_000):
                if "pause" in self.channel(self.reader):
                    break

    # Held by a module only sys.modules knows, which finalization frees (the
    # main module stays: the reader's function refers to its globals).
    hook = types.ModuleType("frame_at_shutdown")
    hook.frame_at_shutdown = FrameAtShutdown()
    sys.modules[hook.__name__] = hook
    del hook
    if how == "sigint":
        print("reading", flush=True)
        # Not signal.pause(): a Ctrl-C landing between the print and the
        # pause would be handled before it and leave it waiting for good.
        while True:
            time.sleep(0.05)
''')

CALLS = ("get_frame", "frames", "wait")


@pytest.fixture(scope="module")
def reader_script(tmp_path_factory):
    path = tmp_path_factory.mktemp("exit") / "reader.py"
    path.write_text(READER)
    return str(path)


def run_reader(script, how, call):
    # The child inherits the preloaded simulator and the package's path.
    child = subprocess.Popen([sys.executable, script, how, call], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True)
    try:
        if how == "sigint":
            assert child.stdout.readline() == "reading\n"
            os.kill(child.pid, signal.SIGINT)
        stdout, stderr = child.communicate(timeout=120)
    finally:
        if child.poll() is None:  # hung: no process is left behind
            child.kill()
            child.communicate()
    return child.returncode, stdout, stderr


def test_a_daemon_reader_never_stops_the_program_from_exiting(reader_script):
    for run in range(20):
        call = CALLS[run % len(CALLS)]
        status, stdout, stderr = run_reader(reader_script, "exit", call)
        assert (status, stdout, stderr) == (0, "", ""), f"run {run} ({call})"


def test_ctrl_c_with_a_daemon_reader_ends_the_program_as_python_does(reader_script):
    for run in range(20):
        call = CALLS[run % len(CALLS)]
        status, stdout, stderr = run_reader(reader_script, "sigint", call)
        # An unhandled KeyboardInterrupt: its traceback, and the process
        # ends by SIGINT, so that the shell sees Ctrl-C.
        assert status == -signal.SIGINT, f"run {run} ({call}): {status}\n{stderr}"
        assert stdout == ""
        assert stderr.startswith("Traceback") and stderr.endswith("KeyboardInterrupt\n"), stderr
