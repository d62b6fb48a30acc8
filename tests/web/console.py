"""Starting "zelisp-cam serve" on the simulated driver and talking to it.

The server is started through zelisp-sim-run exactly as a user starts it,
on 127.0.0.1 with port 0; the port is read from the line it prints. Frame
numbers are read from the pictures: the simulated sensor paints each frame's
sequence number as 32 cells in two complementary rows near the top.
"""
import http.client
import json
import os
import signal
import subprocess
import tempfile

import cv2
import numpy as np

SIM_RUN = os.environ.get("ZELISP_SIM_RUN", "zelisp-sim-run")
CAM = os.environ.get("ZELISP_CAM", "zelisp-cam")
OUT = os.environ.get("WEB_TEST_OUT", tempfile.gettempdir())

# Bounds for loops that wait on the server: generous, for a loaded machine.
LONG_WAIT_S = 60


class Console:
    def __init__(self, args=(), config=None):
        os.makedirs(OUT, exist_ok=True)
        command = [SIM_RUN]
        if config:
            fd, path = tempfile.mkstemp(suffix=".ini", dir=OUT)
            with os.fdopen(fd, "w") as f:
                f.write(config)
            command += ["--config", path]
        command += ["--", CAM, "serve", "--listen", "127.0.0.1:0", *args]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.output = []
        self.port = None
        for line in self.process.stdout:
            self.output.append(line)
            if line.startswith("zelisp-cam: serving"):
                self.port = int(line.split("http://127.0.0.1:")[1].split("/")[0])
                break
        if self.port is None:
            self.process.wait(LONG_WAIT_S)
            raise RuntimeError("server did not start: " + "".join(self.output) + self.process.stderr.read())

    def stop(self):
        """Ctrl-C; returns (exit status, the rest of standard output)."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
        out, _ = self.process.communicate(timeout=LONG_WAIT_S)
        return self.process.returncode, out

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.communicate(timeout=LONG_WAIT_S)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.communicate()

    def connection(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=LONG_WAIT_S)

    def request(self, method, path, body=None, headers=None):
        """Returns (status, headers, body bytes)."""
        conn = self.connection()
        try:
            conn.request(method, path, body=body, headers=headers or {})
            response = conn.getresponse()
            return response.status, dict(response.getheaders()), response.read()
        finally:
            conn.close()

    def json(self, method, path, value=None, headers=None, raw=None):
        body = raw if raw is not None else (None if value is None else json.dumps(value))
        all_headers = {"Content-Type": "application/json", **(headers or {})} if body is not None else headers
        status, _, data = self.request(method, path, body, all_headers)
        return status, json.loads(data)

    def preview(self, camera, view, after=0, size="preview"):
        """The next picture newer than `after`: (generation, sequence, BGR image)."""
        for _ in range(LONG_WAIT_S):
            status, headers, data = self.request("GET", f"/api/preview/{camera}/{view}.jpg?after={after}&size={size}")
            if status == 200:
                image = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
                return int(headers["X-Preview-Generation"]), int(headers["X-Frame-Sequence"]), image
            assert status == 204, (status, data)
        raise AssertionError("no preview")


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
