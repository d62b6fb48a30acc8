"""The loads the console's load test and its benchmark put on it: slow and
idle clients by the hundred, header and body floods, and every view
watched while snapshots pour in."""
import os
import socket
import threading
import time

from console import LONG_WAIT_S, mjpeg_parts, open_stream


def as_remote_client():
    """The viewers of a board run on other computers: here, on the board's
    own cores, the calling thread yields to the console it measures (nice 19,
    below even its picture workers)."""
    os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), 19)


def connect_from(address, port):
    s = socket.socket()
    s.bind((address, 0))
    s.settimeout(LONG_WAIT_S)
    s.connect(("127.0.0.1", port))
    return s


def answer_times(console, count):
    """Seconds each of `count` GET /api/stats took, one after another."""
    times = []
    for _ in range(count):
        started = time.monotonic()
        assert console.request("GET", "/api/stats")[0] == 200
        times.append(time.monotonic() - started)
    return times


class SlowClients:
    """`count` connections from ten loopback addresses (the per-address
    limit is 64): half say nothing, half send a request one byte a second."""

    def __init__(self, port, count):
        self.idle, self.slow = [], []
        for i in range(count):
            s = connect_from(f"127.0.0.{2 + i % 10}", port)
            (self.idle if i % 2 else self.slow).append(s)
        self.request = b"GET /api/stats HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n" % port
        self.stopping = threading.Event()
        self.dripper = threading.Thread(target=self._drip)
        self.dripper.start()

    def _drip(self):
        for step in range(len(self.request)):
            for s in self.slow:
                try:
                    s.send(self.request[step:step + 1])
                except OSError:
                    pass  # closed by the server
            if self.stopping.wait(1):
                return

    def close(self):
        self.stopping.set()
        self.dripper.join()
        for s in self.idle + self.slow:
            s.close()


def flood(port, header_mb=30, header_floods=10, body_mb=10, body_floods=10):
    """Requests with megabytes of headers, and chunked bodies of megabytes."""
    head = b"GET /api/stats HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n" % port
    line = b"X-Flood: " + b"a" * (1 << 20) + b"\r\n"
    for _ in range(header_floods):
        with socket.create_connection(("127.0.0.1", port), timeout=LONG_WAIT_S) as s:
            try:
                s.sendall(head)
                for _ in range(header_mb):
                    s.sendall(line)
            except (BrokenPipeError, ConnectionResetError):
                pass  # refused after the first 32 KiB
    chunks = b"".join(b"%x\r\n%s\r\n" % (4096, b" " * 4096) for _ in range(body_mb * 256)) + b"0\r\n\r\n"
    answers = []
    for _ in range(body_floods):
        with socket.create_connection(("127.0.0.1", port), timeout=LONG_WAIT_S) as s:
            s.sendall(b"PUT /api/cameras/0/controls/hue HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n"
                      b"Transfer-Encoding: chunked\r\n\r\n" % port + chunks)
            answers.append(s.recv(100))
    return answers


# The viewers and snapshot clients of watch_and_snap stand for many computers
# but all come from 127.0.0.1 here: the console they load is started with
# this, well above their number, since on a busy machine the console may not
# yet have reaped the connections a client has just closed, and it closes a
# new one from an address past its limit without an answer.
MANY_CLIENTS_FROM_LOOPBACK = ["--max-connections-per-address", "256"]


def watch_and_snap(console, seconds, views, viewers=8, snapshotters=40):
    """`viewers` full-size MJPEG streams and `snapshotters` snapshot clients
    over `views` for `seconds`: (parts read, snapshots taken, errors). The
    console is started with MANY_CLIENTS_FROM_LOOPBACK."""
    stop = threading.Event()
    errors = []
    counts = {"parts": 0, "snapshots": 0}
    lock = threading.Lock()

    def viewer(camera, view):
        as_remote_client()
        conn, response = open_stream(console, f"/stream/{camera}/{view}.mjpg?size=full")
        try:
            last = -1
            while not stop.is_set():
                [(sequence, _)] = mjpeg_parts(response, 1)
                if sequence <= last:
                    errors.append(f"viewer {camera}/{view}: frame {sequence} after {last}")
                last = sequence
                with lock:
                    counts["parts"] += 1
        except Exception as error:  # noqa: BLE001 - reported to the caller
            errors.append(f"viewer {camera}/{view}: {error!r}")
        finally:
            conn.close()

    def snapshots(camera, view):
        as_remote_client()
        try:
            while not stop.is_set():
                status, _, _ = console.request("GET", f"/api/snapshot/{camera}/{view}.png")
                if status != 200:
                    errors.append(f"snapshot {camera}/{view}: {status}")
                with lock:
                    counts["snapshots"] += 1
        except Exception as error:  # noqa: BLE001 - reported to the caller, not lost with the thread
            errors.append(f"snapshot {camera}/{view}: {error!r}")

    threads = [threading.Thread(target=viewer, args=views[i % len(views)]) for i in range(viewers)]
    threads += [threading.Thread(target=snapshots, args=views[i % len(views)]) for i in range(snapshotters)]
    for thread in threads:
        thread.start()
    time.sleep(seconds)
    stop.set()
    for thread in threads:
        thread.join(LONG_WAIT_S)
    return counts["parts"], counts["snapshots"], errors
