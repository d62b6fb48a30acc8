"""The live view over WebRTC, in headless Chromium on the simulated driver:
the page's viewer negotiates with the console's WHEP address and plays the
H.264 stream; the frame number the simulator paints is read from each
decoded video frame. When WebRTC cannot be had, the viewer falls back to
MJPEG. Frame rate, latency and bandwidth are printed here and measured for
docs/performance.md by the benchmark (bench/sections/web_console.py)."""
import os
import statistics

import pytest
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from browser import CHROMEDRIVER, CHROMIUM, Browser, wait_for
from console import LONG_WAIT_S, Console

pytestmark = pytest.mark.skipif(not (os.path.exists(CHROMIUM) and os.path.exists(CHROMEDRIVER)),
                                reason="needs Debian's chromium and chromium-driver")

# Reads the painted number of each presented video frame (the simulator's
# 32 cells in two complementary rows), with the time it was presented, and
# the console's capture clock (a frame number and its capture time) along.
WATCH = """
const [seconds, done] = [arguments[0], arguments[arguments.length - 1]];
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
    const c = stats.cameras.find((c) => c.camera === 0);
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


def test_webrtc_view_plays_the_cameras_frames():
    with Console(["--cameras", "0"]) as console, Browser() as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: browser.painted_number("tile-0-1", 1280, 720), "a picture on tile 0/1")
        before = console.stats()
        page.find_element(By.CSS_SELECTOR, "figure[data-camera='0'][data-view='1']").find_element(
            By.XPATH, ".//button[text()='Live']").click()
        mode = page.find_element(By.ID, "viewer-mode")
        wait_for(lambda: mode.text.startswith("WebRTC · H.264"), "the WebRTC view", tries=LONG_WAIT_S * 5)
        wait_for(lambda: mode.get_attribute("data-frames-decoded"), "the viewer's figures")
        stats = console.stats()
        assert (stats["webrtc"]["sessions"], stats["streams"]["active"]) == (1, 1)
        seconds = 10
        result = browser.driver.execute_async_script(WATCH, seconds)
        assert (result["width"], result["height"]) == (1280, 720)
        numbers = [n for n, _ in result["frames"] if n is not None]
        assert len(numbers) >= len(result["frames"]) * 0.9 and len(numbers) > 10
        assert numbers == sorted(set(numbers))  # every frame shown once, in order
        # Latency: the presentation time against the frame's capture time,
        # from the capture clock sampled along (its rate from the samples).
        clock = result["clock"]
        period = (clock[-1][1] - clock[0][1]) / max(1, clock[-1][0] - clock[0][0])
        latencies = []
        for number, shown in result["frames"]:
            if number is None:
                continue
            sequence, captured = min(clock, key=lambda sample: abs(sample[0] - number))
            latencies.append(shown - (captured + (number - sequence) * period))
        first, last, took = result["first"], result["last"], result["ms"] / 1000
        decoded = (int(last["framesDecoded"]) - int(first["framesDecoded"])) / took
        kbps = (int(last["bytesReceived"]) - int(first["bytesReceived"])) * 8 / took / 1000
        print(f"\nWebRTC 1280x720: {decoded:.1f} fps decoded, latency median {statistics.median(latencies):.0f} ms, "
              f"{kbps:.0f} kbit/s")
        after = console.stats()
        assert after["cameras"][0]["dropped"] == before["cameras"][0]["dropped"]
        assert after["webrtc"]["frames_sent"] > 10

        # Closing the viewer ends the session (DELETE) and frees its slot.
        page.find_element(By.ID, "viewer-close").click()
        wait_for(lambda: console.stats()["webrtc"]["sessions"] == 0, "the session to end")
        wait_for(lambda: console.stats()["streams"]["active"] == 0, "the slot to be free")
        assert any(e["text"].startswith("WebRTC viewer on camera 0 view 1 ended after ") for e in console.events())


def test_viewer_falls_back_to_mjpeg_without_webrtc():
    # Host candidates on an address this machine does not have: no ICE
    # connection can be made, so no picture comes by WebRTC.
    with Console(["--cameras", "0", "--webrtc-address", "192.0.2.1"]) as console, Browser() as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: page.find_elements(By.CSS_SELECTOR, "figure.tile") or None, "the tiles")
        page.find_element(By.CSS_SELECTOR, "figure[data-camera='0'][data-view='2']").find_element(
            By.XPATH, ".//button[text()='Live']").click()
        mode = page.find_element(By.ID, "viewer-mode")
        wait_for(lambda: mode.text.startswith("MJPEG (WebRTC: "), "the MJPEG fallback", tries=LONG_WAIT_S * 5)
        numbers = [wait_for(lambda: browser.painted_number("viewer-image", 640, 360), "a picture in the viewer")]
        numbers.append(wait_for(lambda: (lambda n: n is not None and n > numbers[0] and n)(
            browser.painted_number("viewer-image", 640, 360)), "the next picture"))
        stats = console.stats()
        assert (stats["webrtc"]["sessions"], stats["streams"]["active"]) == (0, 1)  # the WebRTC session was ended
        ActionChains(page).send_keys(Keys.ESCAPE).perform()  # Escape closes the viewer
        wait_for(lambda: not page.find_element(By.ID, "viewer").is_displayed(), "the viewer to close")
        wait_for(lambda: console.stats()["streams"]["active"] == 0, "the stream to end")
