"""Debian's headless Chromium, driven by Selenium, for the console's page
tests: started as the console's users on a headless machine start it, with a
fresh profile; and what a person sees of the page, read back from it."""
import base64
import os
import shutil
import signal
import tempfile
import time

import cv2
import numpy as np
from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.chrome.service import Service

from console import LONG_WAIT_S, frame_number

CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
FLAGS = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--autoplay-policy=no-user-gesture-required")


class Browser:
    def __init__(self, width=1500, height=1000, extra_flags=(), downloads=None):
        self.profile = tempfile.mkdtemp(prefix="zelisp-chromium-")
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for flag in (*FLAGS, *extra_flags, f"--user-data-dir={self.profile}", f"--window-size={width},{height}"):
            options.add_argument(flag)
        if downloads:
            options.add_experimental_option("prefs", {"download.default_directory": downloads,
                                                      "download.prompt_for_download": False})
        self.driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        self.driver.set_script_timeout(LONG_WAIT_S)
        if downloads:  # headless Chromium saves downloads only when told where
            self.driver.execute_cdp_cmd("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": downloads})

    def close(self):
        self.driver.quit()
        shutil.rmtree(self.profile, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def kill(self):
        """Ends the browser at once, as a crash or a closed laptop does: its
        processes (chromedriver's children) are killed by their ids."""
        driver_pid = self.driver.service.process.pid
        children = {driver_pid}
        for _ in range(5):  # chromium's own processes hang from the first one, a few levels down
            for entry in os.listdir("/proc"):
                if entry.isdigit():
                    try:
                        with open(f"/proc/{entry}/stat") as f:
                            parent = int(f.read().rsplit(")", 1)[1].split()[1])
                    except OSError:
                        continue
                    if parent in children:
                        children.add(int(entry))
        for pid in children - {driver_pid}:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass

    def phone(self, width=412, height=915):
        """The page as a phone of that size shows it."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": True})

    def run(self, script, *args):
        return self.driver.execute_script(script, *args)

    def screenshot(self, path=None):
        """The screen as a BGR image (and saved to `path`)."""
        png = self.driver.get_screenshot_as_png()
        if path:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(png)
        return cv2.imdecode(np.frombuffer(png, np.uint8), cv2.IMREAD_COLOR)

    def rect(self, element_id):
        return self.run("const r = document.getElementById(arguments[0]).getBoundingClientRect();"
                        "return [r.left, r.top, r.width, r.height];", element_id)

    def picture(self, element_id):
        """What an <img> or <video> shows now, as the browser decoded it; None before it has one."""
        data = self.run("""
            const source = document.getElementById(arguments[0]);
            const width = source.naturalWidth || source.videoWidth, height = source.naturalHeight || source.videoHeight;
            if (!width || (source.complete === false)) return null;
            const canvas = document.createElement('canvas');
            canvas.width = width; canvas.height = height;
            canvas.getContext('2d').drawImage(source, 0, 0);
            return canvas.toDataURL('image/png');""", element_id)
        if not data:
            return None
        return cv2.imdecode(np.frombuffer(base64.b64decode(data.split(",", 1)[1]), np.uint8), cv2.IMREAD_COLOR)

    def painted_number(self, element_id, view_width, view_height):
        image = self.picture(element_id)
        return None if image is None else frame_number(image, view_width, view_height)


# Reads the painted number of each presented video frame (the simulator's
# 32 cells in two complementary rows), with the time it was presented, and
# the console's capture clock (a frame number and its capture time) along.
VIDEO_WATCH = """
const [seconds, camera, done] = [arguments[0], arguments[1], arguments[arguments.length - 1]];
const video = document.getElementById('viewer-video');
const canvas = document.createElement('canvas');
canvas.width = video.videoWidth; canvas.height = video.videoHeight;
const g = canvas.getContext('2d', { willReadFrequently: true });
const vw = canvas.width, vh = canvas.height;
const cell = Math.min(Math.floor(vw / 48), Math.floor((vh - 2) / 5)) & ~1;
function painted() {
  const rows = g.getImageData(0, 0, vw, 3 * cell + 4).data;
  const luma = (x, y) => { const i = (Math.floor(y) * vw + Math.floor(x)) * 4;
    return 0.299 * rows[i] + 0.587 * rows[i + 1] + 0.114 * rows[i + 2]; };
  const cellLuma = (x0, y0) => { let t = 0; for (const j of [1, 2, 3]) for (const i of [1, 2, 3])
    t += luma(x0 + cell * i / 4, y0 + cell * j / 4); return t / 9; };
  let number = 0;
  for (let bit = 0; bit < 32; bit++) {
    const x = cell * (bit + 1), upper = cellLuma(x, cell) >= 128, lower = cellLuma(x, 2 * cell) >= 128;
    if (upper === lower) return null;
    number = number * 2 + (upper ? 1 : 0);
  }
  return number;
}
const frames = [], clock = [];
const started = performance.now();
let stopped = false;
async function tick() {
  while (!stopped) {
    const stats = await (await fetch('/api/stats', { cache: 'no-store' })).json();
    const c = stats.cameras.find((c) => c.camera === camera);
    clock.push([c.last_sequence, c.last_capture_unix_us / 1000]);
    await new Promise((r) => setTimeout(r, 200));
  }
}
tick();
function onFrame(now, meta) {
  g.drawImage(video, 0, 0);
  frames.push([painted(), performance.timeOrigin + meta.presentationTime]);
  if (performance.now() - started < seconds * 1000) video.requestVideoFrameCallback(onFrame);
  else finish();
}
const figures = () => ({ ...document.getElementById('viewer-mode').dataset });
const first = figures();
function finish() {
  stopped = true;
  done({ frames, clock, first, last: figures(), width: vw, height: vh, ms: performance.now() - started });
}
video.requestVideoFrameCallback(onFrame);
"""


def watch_webrtc(browser, camera, seconds):
    """What the open viewer's WebRTC video shows for `seconds`: the painted
    numbers of the presented frames, the latency of each (presentation time
    against the frame's capture time, from the capture clock sampled along,
    its period from the samples), frames decoded per second and kbit/s."""
    result = browser.driver.execute_async_script(VIDEO_WATCH, seconds, camera)
    clock = result["clock"]
    period = (clock[-1][1] - clock[0][1]) / max(1, clock[-1][0] - clock[0][0])
    numbers, latencies = [], []
    for number, shown in result["frames"]:
        if number is None:
            continue
        numbers.append(number)
        sequence, captured = min(clock, key=lambda sample: abs(sample[0] - number))
        latencies.append(shown - (captured + (number - sequence) * period))
    first, last, took = result["first"], result["last"], result["ms"] / 1000
    return {"numbers": numbers, "presented": len(result["frames"]), "latencies_ms": latencies,
            "fps_decoded": (int(last["framesDecoded"]) - int(first["framesDecoded"])) / took,
            "kbps": (int(last["bytesReceived"]) - int(first["bytesReceived"])) * 8 / took / 1000,
            "width": result["width"], "height": result["height"], "seconds": took}


def wait_for(condition, what, tries=LONG_WAIT_S * 5):
    """Asks `condition` until it gives something, each try waiting on the page a little."""
    for _ in range(tries):
        try:
            value = condition()
        except StaleElementReferenceException:
            value = None  # the page redrew the element between finding and reading it
        if value is not None and value is not False:
            return value
        time.sleep(0.2)
    raise AssertionError("timed out waiting for " + what)


def colourfulness(image):
    """Mean chroma of a BGR picture: the colour bars are far from grey."""
    ycrcb = cv2.cvtColor(image, cv2.COLOR_BGR2YCrCb).astype(np.int32)
    return float(np.abs(ycrcb[:, :, 1] - 128).mean() + np.abs(ycrcb[:, :, 2] - 128).mean())


def crop(image, rect):
    left, top, width, height = (int(v) for v in rect)
    return image[top:top + height, left:left + width]
