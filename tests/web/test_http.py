"""zelisp-cam serve over HTTP, on the simulated driver: every endpoint of the
JSON API, the previews, streams and snapshots read back frame by frame,
every refusal, start and stop, a view's new format, the event panel's feed,
late commands withdrawn, the stream limit, several viewers and a stalled one
against the capture's own drop count, and Ctrl-C."""
import json
import socket
import subprocess
import threading
import time

import cv2
import numpy as np
import pytest

from console import CAM, LONG_WAIT_S, SIM_RUN, Console, frame_number, mjpeg_parts, open_stream

TWO_CAMERAS = "[cameras]\npresent = 0, 1\n[camera 1]\nview2 = YUYV 320x240\n"


@pytest.fixture(scope="module")
def console():
    with Console(config=TWO_CAMERAS) as running:
        yield running


def test_page_and_camera_layout(console):
    status, headers, page = console.request("GET", "/")
    assert status == 200
    assert headers["Content-Type"] == "text/html; charset=utf-8"
    assert b'<script type="module" src="/app.js"></script>' in page
    assert "default-src 'self'" in headers["Content-Security-Policy"]
    assert headers["X-Frame-Options"] == "DENY"
    for path, kind in (("/app.js", "text/javascript; charset=utf-8"), ("/tiles.js", "text/javascript; charset=utf-8"),
                       ("/style.css", "text/css; charset=utf-8"), ("/favicon.svg", "image/svg+xml")):
        status, headers, _ = console.request("GET", path)
        assert (status, headers["Content-Type"]) == (200, kind)

    status, layout = console.json("GET", "/api/cameras")
    assert status == 200
    assert (layout["group"], layout["trigger"], layout["max_streams"]) == (False, "free-running", 8)
    assert layout["formats"] == ["NV12", "NV21", "YUYV", "RGB3", "GREY"]
    assert [c["camera"] for c in layout["cameras"]] == [0, 1]
    assert layout["cameras"][1]["node"] == "/dev/video1"
    views = [(v["view"], v["format"], v["width"], v["height"], v["preview"]["width"], v["preview"]["height"])
             for v in layout["cameras"][1]["views"]]
    assert views == [(0, "NV12", 1920, 1080, 640, 360), (1, "NV12", 1280, 720, 640, 360),
                     (2, "YUYV", 320, 240, 320, 240)]
    assert layout["cameras"][1]["views"][2]["stream"] == "/stream/1/2.mjpg"
    assert layout["cameras"][1]["views"][2]["snapshot"] == "/api/snapshot/1/2.png"
    assert layout["cameras"][1]["views"][2]["whep"] == "/whep/1/2"
    assert layout["cameras"][1]["running"] is True


@pytest.mark.parametrize("camera,view,width,height", [(0, 0, 1920, 1080), (1, 2, 320, 240)])
def test_previews_carry_the_frames_painted_numbers(console, camera, view, width, height):
    generation, previous = 0, None
    for _ in range(4):
        generation, sequence, image = console.preview(camera, view, after=generation)
        assert image.shape[1] == min(width, 640)
        assert frame_number(image, width, height) == sequence
        assert previous is None or sequence > previous
        previous = sequence


def test_mjpeg_stream_and_full_size_stream(console):
    # The first picture of a stream shows a frame taken after it was asked for.
    before = next(c["last_sequence"] for c in console.stats()["cameras"] if c["camera"] == 0)
    conn, response = open_stream(console, "/stream/0/1.mjpg")
    try:
        assert response.status == 200
        assert response.getheader("Content-Type") == "multipart/x-mixed-replace; boundary=zelispframe"
        parts = mjpeg_parts(response, 4)
    finally:
        conn.close()
    sequences = [s for s, _ in parts]
    assert sequences == sorted(set(sequences))
    assert sequences[0] > before
    for sequence, image in parts:
        assert image.shape[:2] == (360, 640)
        assert frame_number(image, 1280, 720) == sequence

    conn, response = open_stream(console, "/stream/0/1.mjpg?size=full")
    try:
        [(sequence, image)] = mjpeg_parts(response, 1)
    finally:
        conn.close()
    assert image.shape[:2] == (720, 1280)
    assert frame_number(image) == sequence

    # HEAD says what the stream is and sends nothing after the headers: the
    # answer pipelined after it on the same connection reads whole, and no
    # stream slot was taken.
    served = console.stats()["streams"]["served"]
    host = b"Host: 127.0.0.1:%d\r\n" % console.port
    with socket.create_connection(("127.0.0.1", console.port), timeout=LONG_WAIT_S) as s:
        s.sendall(b"HEAD /stream/0/1.mjpg HTTP/1.1\r\n" + host + b"\r\n"
                  b"GET /api/cameras HTTP/1.1\r\n" + host + b"Connection: close\r\n\r\n")
        received = b""
        while chunk := s.recv(1 << 16):
            received += chunk
    head, _, rest = received.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200 OK\r\n")
    assert b"\r\nContent-Type: multipart/x-mixed-replace; boundary=zelispframe\r\n" in head + b"\r\n"
    assert rest.startswith(b"HTTP/1.1 200 OK\r\n"), rest[:40]
    assert json.loads(rest.partition(b"\r\n\r\n")[2])["cameras"][0]["camera"] == 0
    assert console.stats()["streams"]["served"] == served


def test_snapshot_is_the_full_view_as_png(console):
    before = next(c["last_sequence"] for c in console.stats()["cameras"] if c["camera"] == 0)
    status, headers, data = console.request("GET", "/api/snapshot/0/0.png")
    assert (status, headers["Content-Type"]) == (200, "image/png")
    image = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
    assert image.shape == (1080, 1920, 3)
    # The next frame after the request, as its header says.
    assert frame_number(image) == int(headers["X-Frame-Sequence"]) > before
    assert headers["Content-Disposition"] == f'inline; filename="camera0-view0-{headers["X-Frame-Sequence"]}.png"'

    # Snapshots asked for together share one frame.
    answers = [None] * 6
    def snap(i):
        answers[i] = console.request("GET", "/api/snapshot/0/1.png")
    threads = [threading.Thread(target=snap, args=(i,)) for i in range(len(answers))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert all(a[0] == 200 for a in answers)
    for status, headers, data in answers:
        image = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
        assert frame_number(image) == int(headers["X-Frame-Sequence"])
    assert len({a[1]["X-Frame-Sequence"] for a in answers}) <= 3
    status, _, data = console.request("GET", "/api/snapshot/1/2.png")
    image = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
    assert (status, image.shape) == (200, (240, 320, 3))


def controls_of(console, camera):
    status, details = console.json("GET", f"/api/cameras/{camera}")
    assert status == 200
    return {c["name"]: c for c in details["controls"]}, details


def test_controls_are_applied_and_read_back(console):
    controls, details = controls_of(console, 1)
    assert list(controls) == ["brightness", "contrast", "saturation", "hue", "sharpness", "gamma", "denoise",
                              "awb", "aec", "mwb", "mec", "abnormal"]
    assert controls["brightness"]["fields"] == [{"label": "value", "min": 0, "max": 255}]
    assert (controls["brightness"]["kind"], controls["brightness"]["unit"]) == ("slider", "level")
    assert (controls["aec"]["kind"], controls["aec"]["menu"]) == ("menu", [
        {"value": 0, "label": "automatic"}, {"value": 1, "label": "manual"}, {"value": 2, "label": "shutter priority"},
        {"value": 3, "label": "aperture priority"}])
    assert controls["awb"]["menu"] == [{"value": 0, "label": "off"}, {"value": 1, "label": "automatic"}]
    assert [f["label"] for f in controls["mec"]["fields"]] == [f"word {i}" for i in range(1, 7)]
    assert controls["denoise"]["fields"] == [{"label": "luma", "min": 0, "max": 10},
                                             {"label": "chroma", "min": 0, "max": 10}]
    assert (controls["mwb"]["readable"], controls["mwb"]["value"]) == (False, None)
    assert details["abnormal"] == "00 00 00 00 00 00 00 00 00 00 00 00 00 00"

    cases = [("brightness", 200, [200]), ("contrast", 10, [10]), ("saturation", 0, [0]), ("hue", 255, [255]),
             ("sharpness", 9, [9]), ("gamma", 4294967295, [4294967295]), ("denoise", [3, 7], [3, 7]),
             ("awb", False, [0]), ("aec", 3, [1]), ("mwb", [1, 2, 65535], [1, 2, 65535]),
             ("mec", [1, 2, 3, 4, 5, 6], [1, 2, 3, 4, 5, 6])]
    for name, value, read in cases:
        status, answer = console.json("PUT", f"/api/cameras/1/controls/{name}", {"value": value})
        assert (status, answer["value"]) == (200, read), name
    controls, _ = controls_of(console, 1)
    for name, _, read in cases:
        assert controls[name]["value"] == read, name
    # Camera 0 has controls of its own.
    assert controls_of(console, 0)[0]["brightness"]["value"] == [128]


@pytest.mark.parametrize("method,path,body,status,message", [
    ("PUT", "/api/cameras/1/controls/brightness", '{"value": 256}', 400, "brightness must be 0..255"),
    ("PUT", "/api/cameras/1/controls/brightness", '{"value": -1}', 400, "brightness must be 0..255"),
    ("PUT", "/api/cameras/1/controls/denoise", '{"value": [3, 11]}', 400, "denoise chroma must be 0..10"),
    ("PUT", "/api/cameras/1/controls/denoise", '{"value": 3}', 400, "denoise takes 2 values"),
    ("PUT", "/api/cameras/1/controls/sharpness", '{"value": 2.5}', 400, "sharpness must be a whole number, 0..10"),
    ("PUT", "/api/cameras/1/controls/aec", '{"value": 4}', 400, "aec must be 0..3"),
    ("PUT", "/api/cameras/1/controls/mwb", '{"value": [1, 2, 70000]}', 400, "mwb gain 3 must be 0..65535"),
    ("PUT", "/api/cameras/1/running", '{"value": 1}', 400, 'the body must be {"value": true} or {"value": false}'),
    ("PUT", "/api/cameras/1/views/0", '{"format": "MJPG", "width": 640, "height": 360}', 400,
     'the body must be {"format": NV12|NV21|YUYV|RGB3|GREY, "width": W, "height": H}, with W and H even, 2..65534'),
    ("PUT", "/api/cameras/1/views/0", '{"format": "NV12", "width": 641, "height": 360}', 400,
     'the body must be {"format": NV12|NV21|YUYV|RGB3|GREY, "width": W, "height": H}, with W and H even, 2..65534'),
    ("PUT", "/api/cameras/1/views/0", '{"format": "NV12", "width": 4294967936, "height": 360}', 400,
     'the body must be {"format": NV12|NV21|YUYV|RGB3|GREY, "width": W, "height": H}, with W and H even, 2..65534'),
    ("GET", "/api/events?after=x", None, 400, "after must be an event number"),
    ("GET", "/api/events?wait=11", None, 400, "wait must be 0..10 seconds"),
    ("POST", "/whep/0/0", "v=0", 415, "the offer is sent as application/sdp"),
    ("DELETE", "/whep/0/0/nosuchsession", None, 404, "no WebRTC session /whep/0/0/nosuchsession"),
    ("PUT", "/api/cameras/1/controls/brightness", '{"value": 1', 400, 'the body must be a JSON object {"value": ...}'),
    ("PUT", "/api/cameras/1/controls/brightness", '[1]', 400, 'the body must be a JSON object {"value": ...}'),
    ("PUT", "/api/cameras/1/controls/brightness", '{"v": 1}', 400, 'the body must be a JSON object {"value": ...}'),
    ("PUT", "/api/cameras/1/controls/abnormal", '{"value": 1}', 405, "abnormal is read only"),
    ("PUT", "/api/cameras/1/controls/zoom", '{"value": 1}', 404,
     "no control 'zoom' (controls: brightness, contrast, saturation, hue, sharpness, gamma, denoise, awb, aec, "
     "mwb, mec, abnormal)"),
    ("PUT", "/api/cameras/7/controls/brightness", '{"value": 1}', 404, "no camera 7 in this console (cameras 0, 1)"),
    ("GET", "/api/cameras/2", None, 404, "no camera 2 in this console (cameras 0, 1)"),
    ("GET", "/api/cameras/99999999", None, 404, "no camera 99999999 in this console (cameras 0, 1)"),
    ("GET", "/api/snapshot/0/3.png", None, 404, "camera 0 has no enabled view 3"),
    ("GET", "/stream/5/0.mjpg", None, 404, "no camera 5 in this console (cameras 0, 1)"),
    ("GET", "/stream/0/0.mjpg?size=huge", None, 400, "size must be preview or full"),
    ("GET", "/api/preview/0/0.jpg?after=x", None, 400, "after must be a preview number"),
    ("GET", "/api/cameras/1/controls/brightness", None, 405,
     "GET is not used on /api/cameras/1/controls/brightness"),
    ("POST", "/api/cameras/1/controls/brightness", '{"value": 1}', 405,
     "POST is not used on /api/cameras/1/controls/brightness"),
    ("GET", "/whep/0/0", None, 405, "GET is not used on /whep/0/0"),
    ("GET", "/nothing", None, 404, "no such resource: /nothing"),
    ("PUT", "/api/cameras/1/controls/brightness", '{"value": "%s"}' % ("9" * 5000), 413,
     "request body over 4096 bytes"),
])
def test_refusals_answer_json_and_change_nothing(console, method, path, body, status, message):
    before = controls_of(console, 1)  # the controls, and the camera's views
    headers = {"Content-Type": "text/plain" if path.startswith("/whep") else "application/json"} if body is not None else {}
    got, answer = console.json(method, path, headers=headers, raw=body)
    assert (got, answer["error"]) == (status, message)
    if message.startswith("brightness must"):
        assert answer["range"] == {"min": 0, "max": 255}
    assert controls_of(console, 1) == before


def test_stats_count_frames_of_every_camera(console):
    console.preview(0, 2)
    status, stats = console.json("GET", "/api/stats")
    assert status == 200
    assert [c["camera"] for c in stats["cameras"]] == [0, 1]
    for camera in stats["cameras"]:
        assert camera["frames"] > 0 and camera["error"] is None
        assert camera["last_sequence"] >= camera["frames"] - 1
    assert [(t["camera"], t["view"]) for t in stats["tiles"]] == [(c, v) for c in (0, 1) for v in (0, 1, 2)]
    tile = stats["tiles"][2]
    assert tile["pictures"] >= 1 and tile["jpeg_ms"] > 0 and tile["error"] is None
    assert stats["group"] is None and stats["trigger"] == "free-running"
    assert stats["webrtc"]["encoder"] in ("x264enc", "openh264enc", "v4l2h264enc")
    assert stats["http"]["connections"] >= 1 and stats["http"]["requests"] > 0


def run_tool(*args):
    return subprocess.run([SIM_RUN, "--", CAM, "serve", *args], capture_output=True, text=True, timeout=LONG_WAIT_S)


def test_command_line_refusals():
    run = run_tool("--listen", "8080")
    assert (run.returncode, run.stderr.splitlines()[0]) == (
        64, "zelisp-cam: --listen takes ADDR:PORT, for example 0.0.0.0:8080 (port 0: any free port)")
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        port = taken.getsockname()[1]
        run = run_tool("--listen", f"127.0.0.1:{port}")
    assert (run.returncode, run.stderr) == (69, f"zelisp-cam: cannot listen on 127.0.0.1:{port}: "
                                                "Address already in use\n")


def test_stream_limit_answers_503_and_frees_on_close():
    with Console(["--max-streams", "2", "--cameras", "0"]) as console:
        streams = [open_stream(console, "/stream/0/2.mjpg") for _ in range(2)]
        for _, response in streams:
            assert response.status == 200
            mjpeg_parts(response, 1)
        status, answer = console.json("GET", "/stream/0/1.mjpg")
        assert (status, answer["error"]) == (503, "at most 2 streams at once: close one first")
        streams.pop()[0].close()
        for _ in range(LONG_WAIT_S * 10):  # the server notices the closed one at its next frame
            conn, response = open_stream(console, "/stream/0/1.mjpg")
            if response.status == 200:
                break
            conn.close()
        assert response.status == 200
        mjpeg_parts(response, 1)
        conn.close()
        streams[0][0].close()

        # With the camera stopped no picture comes to show a hang-up: the
        # server looks at the sockets of waiting streams, and viewers that
        # opened a stream and left give their slots and sockets back.
        def all_slots_free():
            deadline = time.monotonic() + LONG_WAIT_S
            while console.stats()["streams"]["active"] and time.monotonic() < deadline:
                time.sleep(0.05)
            stats = console.stats()
            return (stats["streams"]["active"], stats["http"]["connections"]) == (0, 1)

        assert console.json("PUT", "/api/cameras/0/running", {"value": False})[0] == 200
        assert all_slots_free()
        for _ in range(3):
            streams = [open_stream(console, "/stream/0/2.mjpg") for _ in range(2)]
            assert [response.status for _, response in streams] == [200, 200]
            for conn, _ in streams:
                conn.close()
            assert all_slots_free()


UNPLUGGED = "taking a frame: a driver request failed, or the frame was refused"


def test_an_unplugged_cameras_streams_end_and_newcomers_are_refused():
    # A camera pulled out while viewers watch: their streams end at once as
    # a multipart body ends (the closing boundary, then the chunked body's
    # end), their slots are free, the stats and the event list say why in
    # the library's words, and the other camera's viewer goes on.
    with Console(config=TWO_CAMERAS) as console:
        streams = [open_stream(console, path) for path in ("/stream/1/0.mjpg", "/stream/1/2.mjpg?size=full",
                                                           "/stream/0/2.mjpg")]
        for _, response in streams:
            mjpeg_parts(response, 2)
        console.unplug(1)
        for conn, response in streams[:2]:
            rest = response.read()  # returns once the chunked body has ended
            assert rest.endswith(b"\r\n--zelispframe--\r\n"), rest[-40:]
            conn.close()
        [(sequence, image)] = mjpeg_parts(streams[2][1], 1)
        assert frame_number(image, 640, 360) == sequence
        stats = console.stats()
        assert [(c["camera"], c["error"]) for c in stats["cameras"]] == [(0, None), (1, UNPLUGGED)]
        assert stats["streams"]["active"] == 1
        why = "camera 1 stopped: " + UNPLUGGED
        events = console.events()
        assert [(e["kind"], e["text"]) for e in events if e["source"] == "console"][-1] == ("warning", why)
        assert ("failure", "/dev/video1", "/dev/video1 get frame failed") in [
            (e["kind"], e["node"], e["text"]) for e in events if e["source"] == "library"]

        # Newcomers are told at once, and take no slot.
        for method, path, body, headers in (
                ("GET", "/stream/1/1.mjpg", None, None), ("GET", "/api/preview/1/0.jpg?after=1000000", None, None),
                ("GET", "/api/snapshot/1/2.png", None, None),
                ("POST", "/whep/1/2", "v=0\r\n", {"Content-Type": "application/sdp"})):
            status, _, answer = console.request(method, path, body, headers)
            assert (status, json.loads(answer)) == (503, {"error": why}), path
        assert console.stats()["streams"] == {**stats["streams"], "active": 1}
        [(later, _)] = mjpeg_parts(streams[2][1], 1)
        assert later > sequence
        streams[2][0].close()


def test_a_group_ends_with_a_member_unplugged():
    # The group's frame sets need every member: with one pulled out, the
    # viewers of the others end too, and the frame-set loop stops reading
    # instead of failing again on every wake-up (the failure is said once).
    with Console(["--group", "--views", "2"], config=TWO_CAMERAS) as console:
        conn, response = open_stream(console, "/stream/0/2.mjpg")
        mjpeg_parts(response, 2)
        console.unplug(1)
        assert response.read().endswith(b"\r\n--zelispframe--\r\n")
        conn.close()
        failed = "reading a frame set: a driver request failed, or the frame was refused"
        stopped = "the group stopped with camera 1"
        assert [(c["camera"], c["error"]) for c in console.stats()["cameras"]] == [(0, stopped), (1, failed)]
        status, answer = console.json("GET", "/stream/0/2.mjpg")
        assert (status, answer) == (503, {"error": "camera 0 stopped: " + stopped})
        # A command the capture thread runs: it has been round its loop since.
        assert console.json("PUT", "/api/cameras/0/running", {"value": False})[0] == 409
        texts = [e["text"] for e in console.events()]
        assert texts.count("camera 1 stopped: " + failed) == 1 and texts.count("camera 0 stopped: " + stopped) == 1
        failures = [e for e in console.events() if e["source"] == "library" and e["kind"] == "failure"]
        assert [(e["node"], e["text"]) for e in failures] == [("/dev/video1", "/dev/video1 get frame failed")]


# Slow cameras and deep queues: capture only drops a frame if its thread
# stalls for 1.4 s, so any drop below is the server's fault, not the machine's.
CALM = "[cameras]\npresent = 0, 1\n" + "".join(f"[camera {c}]\nfps = 5\nmax_buffers = 8\n" for c in (0, 1))


def test_four_viewers_and_a_stalled_one_cost_the_capture_no_frame():
    with Console(["--buffers", "8"], config=CALM) as console:
        # The simulated sensor paints each buffer whole the first time it
        # fills it, which may cost a frame at the start: count from after that.
        for _ in range(LONG_WAIT_S * 10):
            baseline = console.json("GET", "/api/stats")[1]["cameras"]
            if all(camera["frames"] >= 16 for camera in baseline):
                break
            console.preview(0, 0)
        # A viewer that asks for the full-size stream and never reads it.
        stalled = socket.socket()
        stalled.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        stalled.connect(("127.0.0.1", console.port))
        stalled.sendall(b"GET /stream/0/0.mjpg?size=full HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % console.port)

        viewers = [open_stream(console, f"/stream/{c}/{v}.mjpg") for c, v in ((0, 0), (0, 0), (1, 1), (1, 2))]
        seen = [[] for _ in viewers]
        for _ in range(8):
            for i, (_, response) in enumerate(viewers):
                seen[i] += [s for s, _ in mjpeg_parts(response, 1)]
        for sequences in seen:
            assert sequences == sorted(set(sequences))

        status, stats = console.json("GET", "/api/stats")
        assert stats["streams"]["active"] == 5
        # The stalled viewer is closed once nothing has moved on its
        # connection for the idle time (10 s); the others go on meanwhile.
        for _ in range(LONG_WAIT_S * 4):
            for _, response in viewers:
                mjpeg_parts(response, 1)
            status, stats = console.json("GET", "/api/stats")
            if stats["streams"]["active"] == 4:
                break
        assert stats["streams"]["active"] == 4
        stalled.settimeout(LONG_WAIT_S)
        try:
            while stalled.recv(1 << 16):
                pass  # what was sent before the close, then the end
        except ConnectionResetError:
            pass
        for camera, before in zip(stats["cameras"], baseline):
            assert (camera["dropped"] - before["dropped"], camera["refused"], camera["error"]) == (0, 0, None), camera
            assert camera["frames"] > before["frames"] + 8
        for conn, _ in viewers:
            conn.close()
        stalled.close()


def test_group_shows_the_frame_set_skew_and_trigger():
    # Triggered cameras of one rate take their frames on the same tick. A
    # sensor takes its first frame on the first tick a frame time after its
    # stream starts, and the members start one after another: a tick that
    # falls between two starts (more often on a loaded machine) puts the
    # later members one frame behind for good, which the group does not line
    # up, so every set then shows exactly one period (30 fps) and the console
    # is started again.
    for attempt in range(5):
        with Console(["--group", "--trigger", "internal", "1", "2", "--views", "2"],
                     config="[cameras]\npresent = 0, 1, 2\n") as console:
            console.preview(2, 2)
            for _ in range(LONG_WAIT_S * 10):
                status, stats = console.json("GET", "/api/stats")
                if stats["group"]["sets"] >= 5:
                    break
                console.preview(0, 2)
            group = stats["group"]
            assert stats["trigger"] == "internal 1 2 0"
            assert group["sets"] >= 5 and group["incomplete"] == 0
            status, layout = console.json("GET", "/api/cameras")
            assert (layout["group"], [len(c["views"]) for c in layout["cameras"]]) == (True, [1, 1, 1])
            if group["max_skew_us"] == 0:
                break
            assert abs(group["max_skew_us"] - 1e6 / 30) <= 1, group
    assert (group["max_skew_us"], group["mean_skew_us"]) == (0, 0.0)
    assert len(group["recent"]) >= 5 and all(skew == 0 for _, skew in group["recent"])


def test_ctrl_c_stops_cleanly_with_a_stream_open():
    console = Console(["--cameras", "1"])
    with console:
        conn, response = open_stream(console, "/stream/1/0.mjpg")
        mjpeg_parts(response, 1)
        status, out = console.stop()
        conn.close()
    assert status == 0
    assert out.endswith("zelisp-cam: stopped; every camera closed\n")


def test_start_and_stop_a_camera():
    with Console(["--cameras", "0,1"]) as console:
        console.preview(0, 1)
        status, answer = console.json("PUT", "/api/cameras/0/running", {"value": False})
        assert (status, answer) == (200, {"camera": 0, "running": False})
        frames = next(c["frames"] for c in console.stats()["cameras"] if c["camera"] == 0)
        # Stopped: no picture and no snapshot, while camera 1 goes on.
        status, _, _ = console.request("GET", "/api/preview/0/1.jpg?after=1000000")
        assert status == 204
        status, answer = console.json("GET", "/api/snapshot/0/1.png")
        assert (status, answer["error"]) == (503, "no frame from camera 0 within 5 s")
        console.preview(1, 1)
        stats = {c["camera"]: c for c in console.stats()["cameras"]}
        assert (stats[0]["running"], stats[0]["frames"], stats[0]["fps"]) == (False, frames, 0)
        assert stats[1]["running"] is True
        layout = console.json("GET", "/api/cameras")[1]["cameras"]
        assert [c["running"] for c in layout] == [False, True]
        # Stopping twice changes nothing; starting again brings frames,
        # and the driver's new numbering costs no "dropped" frame.
        assert console.json("PUT", "/api/cameras/0/running", {"value": False})[0] == 200
        assert console.json("PUT", "/api/cameras/0/running", {"value": True}) == (200, {"camera": 0, "running": True})
        generation, sequence, image = console.preview(0, 1)
        assert frame_number(image, 1280, 720) == sequence
        for _ in range(LONG_WAIT_S * 10):
            again = next(c for c in console.stats()["cameras"] if c["camera"] == 0)
            if again["frames"] > frames + 5:
                break
            console.preview(0, 1, after=generation)
        assert (again["running"], again["dropped"], again["refused"]) == (True, 0, 0)
        texts = [e["text"] for e in console.events()]
        assert "camera 0 stopped" in texts and "camera 0 started" in texts


def test_a_view_gets_a_new_format_and_size():
    with Console(["--cameras", "0"]) as console:
        status, answer = console.json("PUT", "/api/cameras/0/views/2", {"format": "YUYV", "width": 320, "height": 240})
        assert status == 200, answer
        assert (answer["asked"], answer["held"]) == ("YUYV 320x240", "YUYV 320x240")
        assert [(v["view"], v["format"], v["width"], v["height"]) for v in answer["views"]] == [
            (0, "NV12", 1920, 1080), (1, "NV12", 1280, 720), (2, "YUYV", 320, 240)]
        generation, sequence, image = console.preview(0, 2)
        assert image.shape[:2] == (240, 320)
        assert frame_number(image) == sequence
        status, headers, data = console.request("GET", "/api/snapshot/0/2.png")
        image = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
        assert (status, image.shape) == (200, (240, 320, 3))

        # Larger than the sensor: the driver refuses, the library says why,
        # and the view keeps its format.
        status, answer = console.json("PUT", "/api/cameras/0/views/2", {"format": "NV12", "width": 4000, "height": 3000})
        assert status == 400
        assert answer["error"] == ("camera 0 view 2 cannot be NV12 4000x3000: isp_set_view_format: "
                                   "a driver request failed, or the frame was refused (-11)")
        layout = console.json("GET", "/api/cameras")[1]["cameras"][0]
        assert (layout["views"][2]["format"], layout["views"][2]["width"], layout["running"]) == ("YUYV", 320, True)
        console.preview(0, 2, after=generation)
        for _ in range(LONG_WAIT_S * 10):
            events = console.events()
            if any(e["source"] == "library" and e["text"] == "/dev/video0 set view format failed" for e in events):
                break
            time.sleep(0.1)
        library = [(e["kind"], e["node"], e["text"]) for e in events if e["source"] == "library"]
        assert ("failure", "/dev/video0", "/dev/video0 set view format failed") in library
        assert ("system-error", "/dev/video0", "set format: Invalid argument") in library
        assert console.stats()["cameras"][0]["dropped"] == 0
        assert console.stop()[0] == 0
    # On standard error the library's lines come after their camera, as in the tool's other commands.
    errors = console.stderr().splitlines()
    assert errors[:2] == ["camera 0: /dev/video0 view input supported combination: 7",
                          "camera 0: /dev/video0 view input combination: 7"]
    assert "camera 0: /dev/video0 set view format failed" in errors
    assert "camera 0: set format: Invalid argument" in errors


def test_frames_the_library_refuses_are_counted_and_said():
    # At 120 fps the frames come 8.3 ms apart, and the library takes one
    # only 12 ms or more after the last: every other frame is refused.
    with Console(["--cameras", "0", "--buffers", "8"], config="[camera 0]\nfps = 120\n") as console:
        for _ in range(LONG_WAIT_S * 10):
            camera = console.stats()["cameras"][0]
            if camera["frames"] >= 20:
                break
            time.sleep(0.1)
        # Every sequence number up to the last taken is a frame taken, refused or dropped.
        assert camera["frames"] + camera["refused"] + camera["dropped"] - camera["last_sequence"] in (1, 2), camera
        assert console.json("PUT", "/api/cameras/0/running", {"value": False})[0] == 200
        camera = console.stats()["cameras"][0]
        assert (camera["error"], camera["running"], camera["refused"] >= 10) == (None, False, True), camera
        events = console.events()
        assert [e["source"] for e in events if "ERROR: buf_ts = " in e["text"]] == ["library"]
        assert [e["node"] for e in events if "further refusals are counted" in e["text"]] == ["/dev/video0"]
        assert console.stop()[0] == 0
    # The first refusal is shown with its reason, the rest only counted (at
    # 120 fps some 60 lines a second would bury everything else).
    stderr = console.stderr()
    refusals = [line for line in stderr.splitlines() if "ERROR: buf_ts = " in line]
    assert len(refusals) == 1, refusals[:3]
    assert refusals[0].startswith("camera 0: /dev/video0ERROR: buf_ts = "), refusals[0]
    assert "seq = 1mlast = " in refusals[0]
    assert ("zelisp-cam: camera 0: the library refused a frame; further refusals are counted in the statistics, "
            "not shown\n") in stderr


# One member of the group never produces a frame (a scripted sensor), so
# every set read waits its full 100 ms for it: the capture thread looks at
# its queue only between those waits, long after a short command limit.
SLOW_SETS = "[cameras]\npresent = 0, 1\n[camera 1]\nmode = scripted\n"


def wait_for_set_reads(console):
    """Until the set reads wait on the silent member (each counts as incomplete)."""
    for _ in range(LONG_WAIT_S * 10):
        if console.stats()["group"]["incomplete"] >= 3:
            return
        time.sleep(0.1)
    raise AssertionError("no set read waited")


def test_late_commands_are_withdrawn_and_never_applied():
    with Console(["--group", "--cameras", "0,1", "--command-timeout", "20"], config=SLOW_SETS) as console:
        wait_for_set_reads(console)
        answers = []
        for value in range(10, 30):
            status, answer = console.json("PUT", "/api/cameras/0/controls/brightness", {"value": value})
            answers.append((value, status, answer))
        withdrawn = [value for value, status, _ in answers if status == 503]
        applied = [value for value, status, _ in answers if status == 200]
        assert withdrawn, answers
        for value, status, answer in answers:
            assert (status, answer) in ((200, {"name": "brightness", "read_back": True, "value": [value]}), (
                503, {"error": "the capture thread did not take the request within 20 ms: it was withdrawn and "
                               "nothing changed"})), value
        # Read back (a read is a command too, and may be withdrawn as well).
        time.sleep(0.5)  # long past any set read: a withdrawn command would have run by now
        for _ in range(LONG_WAIT_S * 10):
            status, details = console.json("GET", "/api/cameras/0")
            if status == 200:
                break
        brightness = next(c["value"] for c in details["controls"] if c["name"] == "brightness")
        assert brightness == [applied[-1] if applied else 128]
        notes = [e["text"] for e in console.events() if e["kind"] == "warning"]
        for value in withdrawn:
            assert f"camera 0: brightness set by 127.0.0.1 was withdrawn: the capture thread did not take it " \
                   f"within 20 ms" in notes


def test_a_full_command_queue_refuses_at_once():
    with Console(["--group", "--cameras", "0,1"], config=SLOW_SETS) as console:
        wait_for_set_reads(console)
        # 48 changes at once, while the capture thread sits in a set read:
        # the queue takes 32, the others are refused without waiting.
        for _ in range(5):
            results = [None] * 48
            def put(i):
                results[i] = console.json("PUT", "/api/cameras/0/controls/contrast", {"value": i})
            threads = [threading.Thread(target=put, args=(i,)) for i in range(len(results))]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            full = [r for r in results if r[0] == 503]
            if full:
                break
        assert full and all(r[1] == {"error": "the capture thread has 32 requests waiting: try again"} for r in full)
        assert all(r[0] in (200, 503) for r in results)
        assert len([r for r in results if r[0] == 200]) >= 32
