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

from browser import CHROMEDRIVER, CHROMIUM, Browser, wait_for, watch_webrtc
from console import LONG_WAIT_S, Console

pytestmark = pytest.mark.skipif(not (os.path.exists(CHROMIUM) and os.path.exists(CHROMEDRIVER)),
                                reason="needs Debian's chromium and chromium-driver")

def click_live(page, camera, view):
    """The Live button of a tile, clicked as a person does."""
    page.find_element(By.CSS_SELECTOR, f"figure[data-camera='{camera}'][data-view='{view}']").find_element(
        By.XPATH, ".//button[text()='Live']").click()


def test_webrtc_view_plays_the_cameras_frames():
    with Console(["--cameras", "0"]) as console, Browser() as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: browser.painted_number("tile-0-1", 1280, 720), "a picture on tile 0/1")
        # Counted from after the first fill of every buffer, which may cost a frame.
        before = wait_for(lambda: (lambda s: s if s["cameras"][0]["frames"] >= 30 else None)(console.stats()), "30 frames")
        click_live(page, 0, 1)
        mode = page.find_element(By.ID, "viewer-mode")
        wait_for(lambda: mode.text.startswith("WebRTC · H.264"), "the WebRTC view", tries=LONG_WAIT_S * 5)
        wait_for(lambda: mode.get_attribute("data-frames-decoded"), "the viewer's figures")
        stats = console.stats()
        assert (stats["webrtc"]["sessions"], stats["streams"]["active"]) == (1, 1)
        seen = watch_webrtc(browser, camera=0, seconds=10)
        assert (seen["width"], seen["height"]) == (1280, 720)
        numbers = seen["numbers"]
        assert len(numbers) >= seen["presented"] * 0.9 and len(numbers) > 10
        assert numbers == sorted(set(numbers))  # every frame shown once, in order
        print(f"\nWebRTC 1280x720: {seen['fps_decoded']:.1f} fps decoded, latency median "
              f"{statistics.median(seen['latencies_ms']):.0f} ms, {seen['kbps']:.0f} kbit/s")
        after = console.stats()
        assert after["cameras"][0]["dropped"] == before["cameras"][0]["dropped"]
        assert after["webrtc"]["frames_sent"] > 10

        # Closing the viewer ends the session (DELETE) and frees its slot.
        page.find_element(By.ID, "viewer-close").click()
        wait_for(lambda: console.stats()["webrtc"]["sessions"] == 0, "the session to end")
        wait_for(lambda: console.stats()["streams"]["active"] == 0, "the slot to be free")
        assert any(e["text"].startswith("WebRTC viewer on camera 0 view 1 ended after ") for e in console.events())


def test_an_unplugged_cameras_live_view_ends_and_says_why():
    # The camera of the live view is pulled out: the console ends the
    # session, and the page says why in the viewer instead of falling back
    # to a stream that is over, while the other camera's tile goes on.
    why = "camera 1 stopped: taking a frame: a driver request failed, or the frame was refused"
    with Console(["--cameras", "0,1"]) as console, Browser() as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: page.find_elements(By.CSS_SELECTOR, "figure.tile") or None, "the tiles")
        click_live(page, 1, 2)
        mode = page.find_element(By.ID, "viewer-mode")
        wait_for(lambda: mode.get_attribute("data-frames-decoded"), "the WebRTC view", tries=LONG_WAIT_S * 5)
        console.unplug(1)
        wait_for(lambda: mode.text == why, "the viewer to say why")
        assert not page.find_element(By.ID, "viewer-video").is_displayed()
        assert not page.find_element(By.ID, "viewer-image").is_displayed()
        card = page.find_element(By.CSS_SELECTOR, "section.camera-card[data-camera='1'] header .error")
        assert card.text == why.split(": ", 1)[1]
        wait_for(lambda: (lambda s: (s["webrtc"]["sessions"], s["streams"]["active"]) == (0, 0))(console.stats()),
                 "the session to end")
        ended = [e["text"] for e in console.events() if e["text"].startswith("WebRTC viewer on camera 1 view 2 ended")]
        assert len(ended) == 1 and ended[0].endswith(" frames: " + why), ended
        first = wait_for(lambda: browser.painted_number("tile-0-2", 640, 360), "a picture on tile 0/2")
        wait_for(lambda: (lambda n: n is not None and n > first)(browser.painted_number("tile-0-2", 640, 360)),
                 "the next picture of camera 0")
        # Opened again, the view is refused and says the same, taking no slot.
        page.find_element(By.ID, "viewer-close").click()
        click_live(page, 1, 0)
        wait_for(lambda: mode.text == why, "the viewer to say why again")
        assert console.stats()["streams"]["active"] == 0


def test_viewer_falls_back_to_mjpeg_without_webrtc():
    # Host candidates on an address this machine does not have: no ICE
    # connection can be made, so no picture comes by WebRTC.
    with Console(["--cameras", "0", "--webrtc-address", "192.0.2.1"]) as console, Browser() as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: page.find_elements(By.CSS_SELECTOR, "figure.tile") or None, "the tiles")
        click_live(page, 0, 2)
        mode = page.find_element(By.ID, "viewer-mode")
        wait_for(lambda: mode.text.startswith("MJPEG (WebRTC: "), "the MJPEG fallback", tries=LONG_WAIT_S * 5)
        numbers = [wait_for(lambda: browser.painted_number("viewer-image", 640, 360), "a picture in the viewer")]
        numbers.append(wait_for(lambda: (lambda n: n is not None and n > numbers[0] and n)(
            browser.painted_number("viewer-image", 640, 360)), "the next picture"))
        # The failed WebRTC session ends and gives its slot back; the MJPEG stream holds one.
        wait_for(lambda: (lambda s: (s["webrtc"]["sessions"], s["streams"]["active"]) == (0, 1))(console.stats()),
                 "the WebRTC session to end")
        ActionChains(page).send_keys(Keys.ESCAPE).perform()  # Escape closes the viewer
        wait_for(lambda: not page.find_element(By.ID, "viewer").is_displayed(), "the viewer to close")
        wait_for(lambda: console.stats()["streams"]["active"] == 0, "the stream to end")


def test_a_vanished_viewer_gives_its_slot_back():
    # A browser that dies sends no DELETE: the connectivity checks that go
    # on during the session fail, and the session ends by itself.
    with Console(["--cameras", "0"]) as console:
        browser = Browser()
        try:
            page = browser.driver
            page.get(f"http://127.0.0.1:{console.port}/")
            wait_for(lambda: page.find_elements(By.CSS_SELECTOR, "figure.tile") or None, "the tiles")
            click_live(page, 0, 2)
            wait_for(lambda: page.find_element(By.ID, "viewer-mode").text.startswith("WebRTC · H.264"), "the WebRTC view")
            assert console.stats()["webrtc"]["sessions"] == 1
            browser.kill()
        finally:
            browser.close()
        wait_for(lambda: console.stats()["webrtc"]["sessions"] == 0, "the session to end", tries=LONG_WAIT_S * 15)
        assert console.stats()["streams"]["active"] == 0
