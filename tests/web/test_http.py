"""zelisp-cam serve over HTTP, on the simulated driver: every endpoint of the
JSON API, the previews and streams read back frame by frame, every refusal,
the token and same-origin rules, the stream limit, several viewers and a
stalled one against the capture's own drop count, and Ctrl-C."""
import socket
import subprocess

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
    assert b'<script src="/app.js" defer></script>' in page
    assert "default-src 'self'" in headers["Content-Security-Policy"]
    for path, kind in (("/app.js", "text/javascript"), ("/style.css", "text/css")):
        status, headers, _ = console.request("GET", path)
        assert (status, headers["Content-Type"]) == (200, kind + "; charset=utf-8")

    status, layout = console.json("GET", "/api/cameras")
    assert status == 200
    assert (layout["group"], layout["trigger"], layout["max_streams"]) == (False, "free-running", 8)
    assert [c["camera"] for c in layout["cameras"]] == [0, 1]
    assert layout["cameras"][1]["node"] == "/dev/video1"
    views = [(v["view"], v["format"], v["width"], v["height"], v["preview"]["width"], v["preview"]["height"])
             for v in layout["cameras"][1]["views"]]
    assert views == [(0, "NV12", 1920, 1080, 640, 360), (1, "NV12", 1280, 720, 640, 360),
                     (2, "YUYV", 320, 240, 320, 240)]
    assert layout["cameras"][1]["views"][2]["stream"] == "/stream/1/2.mjpg"
    assert layout["cameras"][1]["views"][2]["snapshot"] == "/api/snapshot/1/2.png"


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
    conn, response = open_stream(console, "/stream/0/1.mjpg")
    try:
        assert response.status == 200
        assert response.getheader("Content-Type") == "multipart/x-mixed-replace; boundary=zelispframe"
        parts = mjpeg_parts(response, 4)
    finally:
        conn.close()
    sequences = [s for s, _ in parts]
    assert sequences == sorted(set(sequences))
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


def test_snapshot_is_the_full_view_as_png(console):
    status, headers, data = console.request("GET", "/api/snapshot/0/0.png")
    assert (status, headers["Content-Type"]) == (200, "image/png")
    image = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
    assert image.shape == (1080, 1920, 3)
    assert frame_number(image) is not None
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
     "controls are changed with PUT and read with GET /api/cameras/N"),
    ("POST", "/api/cameras/1/controls/brightness", '{"value": 1}', 405,
     "POST is not used on /api/cameras/1/controls/brightness"),
    ("GET", "/nothing", None, 404, "no such resource: /nothing"),
    ("PUT", "/api/cameras/1/controls/brightness", '{"value": "%s"}' % ("9" * 5000), 413,
     "request body over 4096 bytes"),
])
def test_refusals_answer_json_and_change_nothing(console, method, path, body, status, message):
    before = controls_of(console, 1)[0]
    headers = {"Content-Type": "application/json"} if body is not None else {}
    got, answer = console.json(method, path, headers=headers, raw=body)
    assert (got, answer["error"]) == (status, message)
    if message.startswith("brightness must"):
        assert answer["range"] == {"min": 0, "max": 255}
    assert controls_of(console, 1)[0] == before


def test_requests_from_other_sites_are_refused(console):
    put = "/api/cameras/0/controls/hue"
    body = '{"value": 7}'
    origin = f"http://127.0.0.1:{console.port}"
    for headers in ({"Origin": "http://evil.example"}, {"Sec-Fetch-Site": "cross-site"},
                    {"Origin": origin, "Sec-Fetch-Site": "same-site"}):
        status, answer = console.json("PUT", put, raw=body, headers=headers)
        assert (status, answer["error"]) == (
            403, "cross-origin request refused: changes come from this console's own page"), headers
    # A name of another site pointed at 127.0.0.1 (DNS rebinding) is not this console.
    status, answer = console.json("GET", "/api/cameras", headers={"Host": f"evil.example:{console.port}"})
    assert (status, answer["error"]) == (403, "the Host header must name this console's loopback address")
    assert controls_of(console, 0)[0]["hue"]["value"] == [128]
    status, answer = console.json("PUT", put, raw=body, headers={"Origin": origin, "Sec-Fetch-Site": "same-origin"})
    assert (status, answer["value"]) == (200, [7])


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
    assert tile["previews"] >= 1 and tile["jpegs"] >= 1 and tile["jpeg_ms"] > 0
    assert stats["group"] is None and stats["trigger"] == "free-running"


def test_token_rules():
    with Console(["--token", "s3cret"], config=TWO_CAMERAS) as console:
        for headers, message in (({}, "this console needs its token: open /login?token=TOKEN, or send the "
                                       "X-Zelisp-Token header"),
                                 ({"X-Zelisp-Token": "wrong"}, "wrong token"),
                                 ({"Cookie": "zelisp_token=s3cre"}, "wrong token")):
            for path in ("/", "/api/cameras", "/stream/0/0.mjpg", "/api/snapshot/0/0.png"):
                status, answer = console.json("GET", path, headers=headers)
                assert (status, answer["error"]) == (401, message), (path, headers)
        status, answer = console.json("PUT", "/api/cameras/0/controls/hue", {"value": 9})
        assert status == 401
        for headers in ({"X-Zelisp-Token": "s3cret"}, {"Authorization": "Bearer s3cret"},
                        {"Cookie": "theme=dark; zelisp_token=s3cret"}):
            assert console.json("GET", "/api/cameras", headers=headers)[0] == 200
        status, answer = console.json("GET", "/login?token=nope")
        assert (status, answer["error"]) == (401, "wrong token")
        status, headers, _ = console.request("GET", "/login?token=s3cret")
        assert (status, headers["Location"]) == (303, "/")
        assert headers["Set-Cookie"] == "zelisp_token=s3cret; Path=/; HttpOnly; SameSite=Strict"
        status, answer = console.json("PUT", "/api/cameras/0/controls/hue", {"value": 9},
                                      headers={"Cookie": "zelisp_token=s3cret"})
        assert (status, answer["value"]) == (200, [9])


def run_tool(*args):
    return subprocess.run([SIM_RUN, "--", CAM, "serve", *args], capture_output=True, text=True, timeout=LONG_WAIT_S)


def test_command_line_refusals():
    run = run_tool("--listen", "0.0.0.0:8080")
    assert (run.returncode, run.stderr.splitlines()[0]) == (
        64, "zelisp-cam: --token is needed to listen on 0.0.0.0: every request from the network must carry it")
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
        stalled.sendall(b"GET /stream/0/0.mjpg?size=full HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")

        viewers = [open_stream(console, f"/stream/{c}/{v}.mjpg") for c, v in ((0, 0), (0, 0), (1, 1), (1, 2))]
        seen = [[] for _ in viewers]
        for _ in range(8):
            for i, (_, response) in enumerate(viewers):
                seen[i] += [s for s, _ in mjpeg_parts(response, 1)]
        for sequences in seen:
            assert sequences == sorted(set(sequences))

        status, stats = console.json("GET", "/api/stats")
        assert stats["streams"]["active"] == 5
        # The stalled viewer is dropped once the server's write to it times out.
        for _ in range(LONG_WAIT_S * 4):
            for _, response in viewers:
                mjpeg_parts(response, 1)
            status, stats = console.json("GET", "/api/stats")
            if stats["streams"]["viewers_dropped"] >= 1:
                break
        assert stats["streams"]["viewers_dropped"] == 1
        assert stats["streams"]["active"] == 4
        for camera, before in zip(stats["cameras"], baseline):
            assert (camera["dropped"] - before["dropped"], camera["refused"], camera["error"]) == (0, 0, None), camera
            assert camera["frames"] > before["frames"] + 8
        for conn, _ in viewers:
            conn.close()
        stalled.close()


def test_group_shows_the_frame_set_skew_and_trigger():
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
        # Triggered cameras of one rate take their frames on the same tick.
        assert (group["max_skew_us"], group["mean_skew_us"]) == (0, 0.0)
        assert len(group["recent"]) >= 5 and all(skew == 0 for _, skew in group["recent"])
        status, layout = console.json("GET", "/api/cameras")
        assert (layout["group"], [len(c["views"]) for c in layout["cameras"]]) == (True, [1, 1, 1])


def test_ctrl_c_stops_cleanly_with_a_stream_open():
    console = Console(["--cameras", "1"])
    with console:
        conn, response = open_stream(console, "/stream/1/0.mjpg")
        mjpeg_parts(response, 1)
        status, out = console.stop()
        conn.close()
    assert status == 0
    assert out.endswith("zelisp-cam: stopped; every camera closed\n")
