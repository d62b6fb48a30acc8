"""Web console: "zelisp-cam serve" on the simulated driver, driven by the
clients of its tests (tests/web: console.py, load.py, browser.py).

- Tiles: 4 cameras x 3 views at 30 fps, each tile polled by 2 viewers as the
  page polls it: capture drops, pictures per tile and viewer, server CPU
  (user + system time over wall time, in cores), JPEG cost per picture.
- Clients: answer times of GET /api/stats while 500 slow and idle clients
  are connected; RSS growth through them and through header and body floods;
  time to stop on SIGTERM with 300 clients connected.
- Full load: 8 full-size MJPEG viewers and 40 snapshot clients over the 12
  views for a minute: capture drops, MJPEG pictures per viewer, snapshots.
- WebRTC: a 1280x720 view played in headless Chromium: frames decoded per
  second, capture-to-presentation latency (the painted frame number of each
  presented frame against that frame's capture time), bit rate; beside it
  the same view's full-size MJPEG stream over the same time.

The viewers run on the same cores as the server and the simulated sensors,
at the lowest priority (nice 19), as clients on other computers would not
take the board's processor.
"""
import http.client
import os
import signal
import statistics
import sys
import threading
import time

TITLE = "Web console"
FOUR = "[cameras]\npresent = 0, 1, 2, 3\n"


def _cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def _warm(console):
    """Past the first fill of every buffer, which may cost a frame."""
    for _ in range(600):
        stats = console.stats()
        if all(c["frames"] >= 30 for c in stats["cameras"]):
            return stats
        time.sleep(0.1)
    return console.stats()


def _drops(after, before):
    return sum(a["dropped"] - b["dropped"] for a, b in zip(after["cameras"], before["cameras"]))


def tiles(web, load, seconds):
    with web.Console(config=FOUR) as console:
        layout = console.json("GET", "/api/cameras")[1]
        views = [(c["camera"], v["view"]) for c in layout["cameras"] for v in c["views"]]
        stop = threading.Event()
        counts = [0] * (2 * len(views))

        def viewer(slot, camera, view):
            load.as_remote_client()
            conn = http.client.HTTPConnection("127.0.0.1", console.port, timeout=60)
            after = 0
            while not stop.is_set():
                conn.request("GET", f"/api/preview/{camera}/{view}.jpg?after={after}")
                response = conn.getresponse()
                response.read()
                if response.status == 200:
                    after = int(response.getheader("X-Preview-Generation"))
                    counts[slot] += 1
            conn.close()

        threads = [threading.Thread(target=viewer, args=(i * len(views) + t, c, v))
                   for i in range(2) for t, (c, v) in enumerate(views)]
        for thread in threads:
            thread.start()
        before = _warm(console)
        time.sleep(2)
        before, cpu_before, started = console.stats(), _cpu_seconds(console.process.pid), time.monotonic()
        counts_before = list(counts)
        time.sleep(seconds)
        after, cpu_after, wall = console.stats(), _cpu_seconds(console.process.pid), time.monotonic() - started
        rates = sorted((a - b) / wall for a, b in zip(list(counts), counts_before))
        stop.set()
        for thread in threads:
            thread.join()
    frames = sum(a["frames"] - b["frames"] for a, b in zip(after["cameras"], before["cameras"]))
    pictures = sum(t["pictures"] for t in after["tiles"])
    jpeg_ms = sum(t["jpeg_ms"] * t["pictures"] for t in after["tiles"]) / pictures if pictures else 0.0
    return {"seconds": round(wall, 1), "capture_frames": frames, "capture_drops": _drops(after, before),
            "camera_fps": round(frames / wall / len(after["cameras"]), 1),
            "tile_fps_min": round(rates[0], 1), "tile_fps_median": round(rates[len(rates) // 2], 1),
            "tile_fps_max": round(rates[-1], 1), "server_cpu_cores": round((cpu_after - cpu_before) / wall, 2),
            "jpeg_ms": round(jpeg_ms, 2)}


def clients(web, load):
    with web.Console(["--cameras", "0"]) as console:
        load.answer_times(console, 5)
        rss_before = console.rss_kb()
        idle = load.answer_times(console, 50)
        crowd = load.SlowClients(console.port, 500)
        try:
            busy = load.answer_times(console, 50)
            rss_crowd = console.rss_kb() - rss_before
        finally:
            crowd.close()
        load.flood(console.port)
        rss_flood = console.rss_kb() - rss_before
        hangers = [load.connect_from(f"127.0.0.{20 + i % 5}", console.port) for i in range(300)]
        started = time.monotonic()
        console.stop(signal.SIGTERM)
        stop_s = time.monotonic() - started
        for s in hangers:
            s.close()
    busy.sort()
    return {"idle_median_ms": round(statistics.median(idle) * 1000, 1),
            "busy_median_ms": round(statistics.median(busy) * 1000, 1),
            "busy_p95_ms": round(busy[int(len(busy) * 0.95)] * 1000, 1),
            "rss_crowd_mb": round(rss_crowd / 1024, 1), "rss_flood_mb": round(rss_flood / 1024, 1),
            "stop_s": round(stop_s, 2)}


def full_load(web, load, seconds):
    with web.Console(load.MANY_CLIENTS_FROM_LOOPBACK, config=FOUR) as console:
        before = _warm(console)
        cpu_before, started = _cpu_seconds(console.process.pid), time.monotonic()
        views = [(c, v) for c in range(4) for v in range(3)]
        parts, snapshots, errors = load.watch_and_snap(console, seconds, views)
        wall = time.monotonic() - started
        after, cpu = console.stats(), _cpu_seconds(console.process.pid) - cpu_before
    return {"seconds": round(wall, 1), "capture_drops": _drops(after, before), "errors": len(errors),
            "mjpeg_fps_per_viewer": round(parts / wall / 8, 1), "snapshots_per_s": round(snapshots / wall, 1),
            "server_cpu_cores": round(cpu / wall, 2)}


def webrtc(web, chromium, seconds):
    from selenium.webdriver.common.by import By

    with web.Console(["--cameras", "0"]) as console, chromium.Browser() as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        before = _warm(console)
        page.find_element(By.CSS_SELECTOR, "figure[data-camera='0'][data-view='1']").find_element(
            By.XPATH, ".//button[text()='Live']").click()
        chromium.wait_for(lambda: page.find_element(By.ID, "viewer-mode").get_attribute("data-frames-decoded"),
                          "the WebRTC view")
        time.sleep(2)
        seen = chromium.watch_webrtc(browser, camera=0, seconds=seconds)
        after = console.stats()
        page.find_element(By.ID, "viewer-close").click()
        # The same view as MJPEG, full size, for as long.
        conn, response = web.open_stream(console, "/stream/0/1.mjpg?size=full")
        started, received, pictures = time.monotonic(), 0, 0
        while time.monotonic() - started < seconds:
            received += len(response.read1(1 << 16))
        took = time.monotonic() - started
        conn.close()
    latencies = sorted(seen["latencies_ms"])
    return {"seconds": round(seen["seconds"], 1), "width": seen["width"], "height": seen["height"],
            "encoder": after["webrtc"]["encoder"], "fps_decoded": round(seen["fps_decoded"], 1),
            "latency_median_ms": round(statistics.median(latencies)) if latencies else None,
            "latency_p95_ms": round(latencies[int(len(latencies) * 0.95)]) if latencies else None,
            "kbps": round(seen["kbps"]), "mjpeg_kbps": round(received * 8 / took / 1000),
            "capture_drops": _drops(after, before)}


def measure(context, quick):
    cam_tool, sim_run = context.get("cam_tool"), context.get("sim_run")
    if not cam_tool or not sim_run or not os.path.exists(cam_tool):
        return {"skipped": "zelisp-cam is not built"}
    os.environ.update(ZELISP_SIM_RUN=sim_run, ZELISP_CAM=cam_tool,
                      WEB_TEST_OUT=os.path.join(context.get("build_dir", "."), "web-bench"))
    tests = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "web")
    sys.path.insert(0, os.path.abspath(tests))
    import browser as chromium  # noqa: E402 - the tests' own clients
    import console as web  # noqa: E402
    import load  # noqa: E402

    seconds = 5 if quick else 20
    figures = {"measured": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()), "load": os.getloadavg()[0]}
    figures.update({"tiles": tiles(web, load, seconds), "clients": clients(web, load),
               "full_load": full_load(web, load, 10 if quick else 60)})
    figures["webrtc"] = webrtc(web, chromium, seconds) if os.path.exists(chromium.CHROMIUM) else None
    return figures


def report(figures):
    lines = [f"## {TITLE}", ""]
    if "skipped" in figures:
        return lines + [f"Not measured: {figures['skipped']}."]
    t, c, f, w = figures["tiles"], figures["clients"], figures["full_load"], figures["webrtc"]
    lines += [
        "`zelisp-cam serve` on the simulated driver; the clients run on the same two cores as the server and the "
        "simulated sensors, at nice 19 (they stand for other computers), Chromium at the normal priority "
        "(`bench/sections/web_console.py`, with the clients of `tests/web/`). Measured "
        f"{figures.get('measured', '')}, load average {figures.get('load', 0):.2f} at the start.",
        "",
        "| Figure | Value | Goal |",
        "|---|---|---|",
        f"| Tiles: 4 cameras x 3 views at 30 fps, each tile polled by 2 viewers, {t['seconds']} s: capture frames / "
        f"drops | {t['capture_frames']} / {t['capture_drops']} | 0 drops |",
        f"| Tiles: pictures per tile and viewer (min / median / max) | {t['tile_fps_min']} / {t['tile_fps_median']} / "
        f"{t['tile_fps_max']} fps | |",
        f"| Tiles: server CPU; JPEG encoding per 640x360 picture | {t['server_cpu_cores']} cores; {t['jpeg_ms']} ms | |",
        f"| GET /api/stats, median: alone / with 500 slow and idle clients connected (95th percentile) | "
        f"{c['idle_median_ms']} / {c['busy_median_ms']} ms ({c['busy_p95_ms']} ms) | < 100 ms |",
        f"| RSS growth: 500 slow and idle clients / after 300 MB of headers and 100 MB of chunked bodies | "
        f"{c['rss_crowd_mb']} / {c['rss_flood_mb']} MB | < 10 MB |",
        f"| Stop on SIGTERM with 300 clients connected | {c['stop_s']} s | < 2 s |",
        f"| Full load, {f['seconds']} s: 8 full-size MJPEG viewers and 40 snapshot clients over the 12 views: capture "
        f"drops | {f['capture_drops']} | 0 |",
        f"| Full load: MJPEG pictures per viewer; snapshots answered | {f['mjpeg_fps_per_viewer']} fps; "
        f"{f['snapshots_per_s']} per s | |",
        f"| Full load: server CPU | {f['server_cpu_cores']} cores | |",
    ]
    if w:
        lines += [
            f"| WebRTC, {w['width']}x{w['height']} view in headless Chromium ({w['encoder']}), {w['seconds']} s: frames "
            f"decoded | {w['fps_decoded']} fps | ≥ 29 fps |",
            f"| WebRTC: capture to presentation, median (95th percentile) | {w['latency_median_ms']} ms "
            f"({w['latency_p95_ms']} ms) | median < 150 ms |",
            f"| Bit rate of that view: WebRTC / full-size MJPEG | {w['kbps']} / {w['mjpeg_kbps']} kbit/s | |",
            f"| WebRTC: capture drops | {w['capture_drops']} | 0 |",
        ]
    return lines
