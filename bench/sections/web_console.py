"""Web console: "zelisp-cam serve" with 4 cameras x 3 views at 30 fps, each
tile polled by 2 viewers the way the page polls it, on the simulated driver.

Figures: the frames the capture lost while serving (sequence gaps), the
preview rate each viewer got per tile, the server's CPU (user + system time
over wall time, in cores), and the JPEG encoding cost per preview frame as the
server measured it. The viewers run on the same two cores as the server.
"""
import http.client
import os
import signal
import subprocess
import threading
import time
import json

TITLE = "Web console"


def _get(conn, path):
    conn.request("GET", path)
    response = conn.getresponse()
    return response.status, response.getheader("X-Preview-Generation"), response.read()


def _stats(port):
    conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    try:
        return json.loads(_get(conn, "/api/stats")[2])
    finally:
        conn.close()


def _cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def measure(context, quick):
    cam_tool, sim_run = context.get("cam_tool"), context.get("sim_run")
    if not cam_tool or not sim_run or not os.path.exists(cam_tool):
        return {"skipped": "zelisp-cam is not built"}
    seconds = 5 if quick else 20
    process = subprocess.Popen([sim_run, "--", cam_tool, "serve", "--listen", "127.0.0.1:0"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    port = None
    for line in process.stdout:
        if line.startswith("zelisp-cam: serving"):
            port = int(line.split("http://127.0.0.1:")[1].split("/")[0])
            break
    if port is None:
        process.wait()
        return {"skipped": "the server did not start"}
    try:
        layout = json.loads(_get(http.client.HTTPConnection("127.0.0.1", port, timeout=30), "/api/cameras")[2])
        tiles = [(c["camera"], v["view"]) for c in layout["cameras"] for v in c["views"]]
        stop = threading.Event()
        counts = [0] * (2 * len(tiles))  # previews received per viewer and tile

        def viewer(slot, camera, view):
            conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
            after = 0
            while not stop.is_set():
                status, generation, _ = _get(conn, f"/api/preview/{camera}/{view}.jpg?after={after}")
                if status == 200:
                    after = int(generation)
                    counts[slot] += 1
            conn.close()

        threads = [threading.Thread(target=viewer, args=(i * len(tiles) + t, c, v))
                   for i in range(2) for t, (c, v) in enumerate(tiles)]
        for thread in threads:
            thread.start()
        time.sleep(3)  # past the first fills of the buffers, which paint the whole picture
        before, cpu_before, started = _stats(port), _cpu_seconds(process.pid), time.monotonic()
        counts_before = list(counts)
        time.sleep(seconds)
        after, cpu_after, wall = _stats(port), _cpu_seconds(process.pid), time.monotonic() - started
        counts_after = list(counts)
        stop.set()
        for thread in threads:
            thread.join()
    finally:
        process.send_signal(signal.SIGINT)
        process.wait()
    drops = sum(a["dropped"] - b["dropped"] for a, b in zip(after["cameras"], before["cameras"]))
    frames = sum(a["frames"] - b["frames"] for a, b in zip(after["cameras"], before["cameras"]))
    rates = sorted((a - b) / wall for a, b in zip(counts_after, counts_before))
    jpegs = sum(t["jpegs"] for t in after["tiles"])
    jpeg_ms = sum(t["jpeg_ms"] * t["jpegs"] for t in after["tiles"]) / jpegs if jpegs else 0.0
    return {"seconds": round(wall, 1), "cameras": len(after["cameras"]), "tiles": len(tiles), "viewers": 2,
            "capture_frames": frames, "capture_drops": drops,
            "camera_fps": round(frames / wall / len(after["cameras"]), 1),
            "tile_fps_min": round(rates[0], 1), "tile_fps_median": round(rates[len(rates) // 2], 1),
            "tile_fps_max": round(rates[-1], 1), "server_cpu_cores": round((cpu_after - cpu_before) / wall, 2),
            "jpeg_ms_per_preview": round(jpeg_ms, 2), "preview_size": "640x360"}


def report(figures):
    lines = [f"## {TITLE}", ""]
    if "skipped" in figures:
        return lines + [f"Not measured: {figures['skipped']}."]
    lines += [
        f"`zelisp-cam serve` with {figures['cameras']} cameras x 3 views at 30 fps ({figures['tiles']} tiles), "
        f"each tile polled by {figures['viewers']} viewers as the page polls it (the viewers share the machine's "
        f"cores with the server), over {figures['seconds']} s:",
        "",
        "| Figure | Value |",
        "|---|---|",
        f"| Capture: frames / drops | {figures['capture_frames']} / {figures['capture_drops']} |",
        f"| Capture rate per camera | {figures['camera_fps']} fps |",
        f"| Preview rate per tile and viewer (min / median / max) | {figures['tile_fps_min']} / "
        f"{figures['tile_fps_median']} / {figures['tile_fps_max']} fps |",
        f"| Server CPU | {figures['server_cpu_cores']} cores |",
        f"| JPEG encoding per preview frame ({figures['preview_size']}, quality 75) | "
        f"{figures['jpeg_ms_per_preview']} ms |",
    ]
    return lines
