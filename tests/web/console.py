"""Starting "zelisp-cam serve" on the simulated driver and talking to it.

The server is started through zelisp-sim-run exactly as a user starts it,
on 127.0.0.1 with port 0; the port is read from the line it prints. Frame
numbers are read from the pictures: the simulated sensor paints each frame's
sequence number as 32 cells in two complementary rows near the top.
"""
import http.client
import json
import os
import re
import signal
import ssl
import subprocess
import tempfile
import threading

import cv2
import numpy as np

SIM_RUN = os.environ.get("ZELISP_SIM_RUN", "zelisp-sim-run")
CAM = os.environ.get("ZELISP_CAM", "zelisp-cam")
UNPLUG = os.environ.get("ZELISP_WEB_UNPLUG", "zelisp-web-unplug")
OUT = os.environ.get("WEB_TEST_OUT", tempfile.gettempdir())

# Bounds for loops that wait on the server: generous, for a loaded machine.
LONG_WAIT_S = 60


class Console:
    """zelisp-cam serve on the simulator. `args` are serve's options; `env`
    adds to the environment; `listen` replaces 127.0.0.1:0."""

    def __init__(self, args=(), config=None, env=None, listen="127.0.0.1:0"):
        os.makedirs(OUT, exist_ok=True)
        command = [SIM_RUN]
        self.config = None
        if config:
            fd, self.config = tempfile.mkstemp(suffix=".ini", dir=OUT)
            with os.fdopen(fd, "w") as f:
                f.write(config)
            command += ["--config", self.config]
        command += ["--", CAM, "serve", "--listen", listen, *args]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        env={**os.environ, **(env or {})})
        # Standard error is read all along, so that the console never waits on a full pipe.
        self.errors = []
        self.error_reader = threading.Thread(target=self._read_errors, daemon=True)
        self.error_reader.start()
        self.output = []
        self.port = None
        self.scheme = "http"
        self.token = None
        for line in self.process.stdout:
            self.output.append(line)
            found = re.match(r"zelisp-cam: serving \d+ cameras? on (https?)://[^/]*:(\d+)/", line)
            if found:
                self.scheme, self.port = found.group(1), int(found.group(2))
            made = re.search(r"/login\?token=(\S+)$", line)
            if made:  # a token made for this run, printed before the serving line
                self.token = made.group(1)
            if self.port is not None:
                break
        if self.port is None:
            self.process.wait(LONG_WAIT_S)
            raise RuntimeError("server did not start: " + "".join(self.output) + self.stderr())

    def _read_errors(self):
        for line in self.process.stderr:
            self.errors.append(line)

    def stderr(self):
        self.error_reader.join(timeout=LONG_WAIT_S if self.process.poll() is not None else 0)
        return "".join(self.errors)

    def rss_kb(self):
        with open(f"/proc/{self.process.pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def stop(self, sig=signal.SIGINT):
        """Ctrl-C (or `sig`); returns (exit status, the rest of standard output)."""
        if self.process.poll() is None:
            self.process.send_signal(sig)
        out = self.process.stdout.read()
        self.process.wait(LONG_WAIT_S)
        self.error_reader.join(LONG_WAIT_S)
        return self.process.returncode, out

    def __enter__(self):
        return self

    def __exit__(self, exc_type=None, *exc):
        running = self.process.poll() is None
        if running:
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.wait(LONG_WAIT_S)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process.stdout.close()
        self.error_reader.join(LONG_WAIT_S)
        # A console stopped by Ctrl-C exits 0: a sanitizer's report at the
        # exit (a leak, say) makes it fail the test that ran it.
        if running and exc_type is None:
            assert self.process.returncode == 0, self.stderr()[-3000:]

    def unplug(self, camera):
        """Pulls the camera out of the console's board, as a USB camera is
        pulled out: a program joins the board through the console's
        descriptor of it, described by the same configuration file."""
        pid = self.process.pid
        board = next(fd for fd in os.listdir(f"/proc/{pid}/fd")
                     if os.readlink(f"/proc/{pid}/fd/{fd}").startswith("/memfd:zelisp-sim-board"))
        env = {**os.environ, "ZELISP_SIM_BOARD": f"{pid}/{board}"}
        env.pop("ZELISP_SIM_CONFIG", None)
        if self.config:
            env["ZELISP_SIM_CONFIG"] = self.config
        subprocess.run([UNPLUG, str(camera)], env=env, check=True, timeout=LONG_WAIT_S)

    def connection(self, timeout=LONG_WAIT_S):
        if self.scheme == "https":
            return http.client.HTTPSConnection("127.0.0.1", self.port, timeout=timeout,
                                               context=ssl._create_unverified_context())
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)

    def request(self, method, path, body=None, headers=None):
        """Returns (status, headers, body bytes). A Host in `headers` replaces the usual one."""
        conn = self.connection()
        try:
            headers = dict(headers or {})
            if "Host" in headers:
                conn.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
                for key, value in headers.items():
                    conn.putheader(key, value)
                data = body.encode() if isinstance(body, str) else body
                if data is not None:
                    conn.putheader("Content-Length", str(len(data)))
                conn.endheaders(data)
            else:
                conn.request(method, path, body=body, headers=headers)
            response = conn.getresponse()
            return response.status, dict(response.getheaders()), response.read()
        finally:
            conn.close()

    def json(self, method, path, value=None, headers=None, raw=None):
        body = raw if raw is not None else (None if value is None else json.dumps(value))
        all_headers = {"Content-Type": "application/json", **(headers or {})} if body is not None else headers
        status, _, data = self.request(method, path, body, all_headers)
        return status, json.loads(data) if data else None

    def preview(self, camera, view, after=0, size="preview", headers=None):
        """The next picture newer than `after`: (generation, sequence, BGR image)."""
        for _ in range(LONG_WAIT_S):
            status, answer, data = self.request(
                "GET", f"/api/preview/{camera}/{view}.jpg?after={after}&size={size}", headers=headers)
            if status == 200:
                image = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
                return int(answer["X-Preview-Generation"]), int(answer["X-Frame-Sequence"]), image
            assert status == 204, (status, data)
        raise AssertionError("no preview")

    def stats(self, headers=None):
        status, body = self.json("GET", "/api/stats", headers=headers)
        assert status == 200, body
        return body

    def events(self, after=0, headers=None):
        status, body = self.json("GET", f"/api/events?after={after}&wait=0", headers=headers)
        assert status == 200, body
        return body["events"]


def luma(image):
    return cv2.cvtColor(image, cv2.COLOR_BGR2GRAY) if image.ndim == 3 else image


def frame_number(image, view_width=None, view_height=None):
    """The number painted into a view of view_width x view_height, read from
    `image`, which may be that view scaled; None when it does not read."""
    y = luma(image).astype(np.int32)
    height, width = y.shape
    view_width = view_width or width
    view_height = view_height or height
    cell = min(view_width // 48, (view_height - 2) // 5) & ~1
    if cell < 2:
        return None
    sx, sy = width / view_width, height / view_height

    def cell_luma(x0, y0):
        total = 0
        for j in (1, 2, 3):
            for i in (1, 2, 3):
                total += y[int((y0 + cell * j / 4) * sy), int((x0 + cell * i / 4) * sx)]
        return total / 9

    number = 0
    for bit in range(32):
        x = cell * (bit + 1)
        upper = cell_luma(x, cell) >= 128
        lower = cell_luma(x, 2 * cell) >= 128
        if upper == lower:
            return None
        number = number << 1 | int(upper)
    return number


def mjpeg_parts(response, count):
    """Reads `count` parts of a multipart MJPEG response: [(sequence, image)]."""
    parts = []
    while len(parts) < count:
        line = response.readline()
        if not line:
            raise AssertionError("stream ended")
        if line.strip() != b"--zelispframe":
            continue
        headers = {}
        while True:
            line = response.readline().strip()
            if not line:
                break
            key, value = line.decode().split(":", 1)
            headers[key.strip().lower()] = value.strip()
        data = response.read(int(headers["content-length"]))
        image = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
        parts.append((int(headers["x-frame-sequence"]), image))
    return parts


def open_stream(console, path):
    conn = console.connection()
    conn.request("GET", path)
    response = conn.getresponse()
    return conn, response
