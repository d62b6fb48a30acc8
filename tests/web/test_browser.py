"""The console as a person uses it: headless Chromium opens the page served on
the simulated driver and is driven with the keyboard and the mouse; what it
shows is read back from the page and from screenshots (painted frame
numbers, colours, greyed tiles, what is on screen at a phone's width).
The screenshot of the documentation is taken here too."""
import os
import re
import signal
import socket
import subprocess

import cv2
import numpy as np
import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

from browser import CHROMEDRIVER, CHROMIUM, Browser, colourfulness, crop, wait_for
from console import CAM, LONG_WAIT_S, OUT, SIM_RUN, Console, frame_number

SCREENSHOT = os.environ.get("WEB_SCREENSHOT", os.path.join(OUT, "zelisp-cam-console.png"))
FOUR = "[cameras]\npresent = 0, 1, 2, 3\n"

pytestmark = pytest.mark.skipif(not (os.path.exists(CHROMIUM) and os.path.exists(CHROMEDRIVER)),
                                reason="needs Debian's chromium and chromium-driver")


def tile_mean(browser, tile_id):
    image = browser.picture(tile_id)
    return None if image is None else float(cv2.cvtColor(image, cv2.COLOR_BGR2GRAY).mean())


def newer_number(browser, tile_id, width, height, than):
    number = browser.painted_number(tile_id, width, height)
    return number if number is not None and number > than else None


def test_live_tiles_and_tuning_with_keyboard_and_mouse():
    with Console(config=FOUR) as console, Browser() as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: len(page.find_elements(By.CSS_SELECTOR, "figure.tile")) == 12, "12 tiles")
        assert [c.text for c in page.find_elements(By.CSS_SELECTOR, ".camera-card header h2")] == [
            "camera 0", "camera 1", "camera 2", "camera 3"]
        # Every tile has its snapshot, live view and format.
        for figure in page.find_elements(By.CSS_SELECTOR, "figure.tile"):
            camera, view = figure.get_attribute("data-camera"), figure.get_attribute("data-view")
            snapshot = figure.find_element(By.LINK_TEXT, "Snapshot")
            assert snapshot.get_attribute("href").endswith(f"/api/snapshot/{camera}/{view}.png")
            assert [b.text for b in figure.find_elements(By.TAG_NAME, "button")][:2] == ["Live", "Format"]

        # The tile's painted frame numbers go up, and its caption names one of them.
        numbers = [0]
        for _ in range(3):
            numbers.append(wait_for(lambda: newer_number(browser, "tile-0-0", 1920, 1080, numbers[-1]),
                                    "a newer frame on tile 0/0"))
        caption = page.find_element(By.CSS_SELECTOR, "figure[data-camera='0'][data-view='0'] .frame").text
        assert caption.startswith("#") and int(caption[1:]) >= numbers[1]

        # Brightness with the keyboard: the range and unit beside it, the
        # driver's read-back after each change, the picture darker, then brighter.
        slider = page.find_element(By.ID, "control-brightness")
        assert (slider.get_attribute("min"), slider.get_attribute("max"), slider.get_attribute("value")) == ("0", "255", "128")
        assert page.find_element(By.ID, "range-brightness").text == "0..255 level"
        readback = page.find_element(By.ID, "readback-brightness")
        before = wait_for(lambda: tile_mean(browser, "tile-0-0"), "a picture on tile 0/0")
        other_before = wait_for(lambda: tile_mean(browser, "tile-1-0"), "a picture on tile 1/0")
        slider.click()  # the middle of the track: where the value already is
        for key, value, moved in ((Keys.HOME, 0, lambda mean: mean < before - 40),
                                  (Keys.END, 255, lambda mean: mean > before + 40)):
            slider.send_keys(key)
            wait_for(lambda: readback.get_attribute("data-value") == str(value), f"brightness read back as {value}")
            details = console.json("GET", "/api/cameras/0")[1]
            assert [c["value"] for c in details["controls"] if c["name"] == "brightness"] == [[value]]
            wait_for(lambda: (lambda m: m is not None and moved(m))(tile_mean(browser, "tile-0-0")),
                     f"tile 0/0 to change brightness from {before:.1f} at {value}")
        other_after = wait_for(lambda: tile_mean(browser, "tile-1-0"), "a picture on tile 1/0")
        assert abs(other_after - other_before) < 10  # another camera's picture is its own

        # A menu for aec: the mode chosen, the driver's read-back beside it.
        aec = Select(page.find_element(By.ID, "control-aec"))
        assert [o.text for o in aec.options] == ["automatic (0)", "manual (1)", "shutter priority (2)",
                                                 "aperture priority (3)"]
        aec.select_by_visible_text("shutter priority (2)")
        wait_for(lambda: page.find_element(By.ID, "readback-aec").text == "manual", "aec read back as manual")

        # Manual fields: empty or invalid entries say why and send nothing.
        mec = [page.find_element(By.ID, "control-mec" if i == 0 else f"control-mec-{i}") for i in range(6)]
        assert all(field.size["width"] >= 48 for field in mec)  # five digits fit
        set_mec = page.find_element(By.ID, "set-mec")
        error = page.find_element(By.ID, "error-mec")
        set_mec.click()
        wait_for(lambda: error.is_displayed() and error.text == "mec word 1: enter a whole number 0..65535", "mec error")
        for i, field in enumerate(mec):
            field.send_keys(str(100 + i))
        mec[3].clear()
        mec[3].send_keys("12x")
        set_mec.click()
        wait_for(lambda: error.text == "mec word 4: 12x is not a whole number 0..65535", "mec error")
        mec[3].clear()
        mec[3].send_keys("70000")
        mec[3].send_keys(Keys.ENTER)
        wait_for(lambda: error.text == "mec word 4 must be 0..65535", "mec error")
        assert not any("mec set" in e["text"] for e in console.events())  # nothing was sent
        mec[3].clear()
        mec[3].send_keys("103")
        set_mec.click()
        wait_for(lambda: page.find_element(By.ID, "readback-mec").text.split() == "100 101 102 103 104 105 (sent)".split(),
                 "mec sent")
        assert not error.is_displayed()
        assert all(field.size["width"] >= 48 for field in mec)  # the long read-back leaves the fields their room

        # The event panel shows the console's events as they come.
        wait_for(lambda: any("camera 0: mec set to [100,101,102,103,104,105]" in li.text
                             for li in page.find_elements(By.CSS_SELECTOR, "#event-list li")), "the mec event")

        wait_for(lambda: browser.run("const row = document.getElementById('timing-3');"
                                     "return row && row.cells[2].textContent !== '0';"), "timing rows")
        screen = browser.screenshot(SCREENSHOT)
        # The screenshot shows live colour bars where the tiles are.
        assert colourfulness(crop(screen, browser.rect("tile-2-1"))) > 20


def test_start_stop_snapshot_and_format_from_the_tiles(tmp_path):
    downloads = str(tmp_path)
    with Console(["--cameras", "0,1"]) as console, Browser(downloads=downloads) as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: browser.painted_number("tile-1-1", 1280, 720), "a picture on tile 1/1")

        # Stop camera 1 with its button: its tiles grey out, camera 0 goes on.
        page.find_element(By.ID, "run-1").click()
        card = page.find_element(By.CSS_SELECTOR, ".camera-card[data-camera='1']")
        wait_for(lambda: "stopped" in card.get_attribute("class") and page.find_element(By.ID, "run-1").text == "Start",
                 "camera 1 stopped")
        assert [c["running"] for c in console.stats()["cameras"]] == [True, False]
        screen = browser.screenshot(os.path.join(OUT, "stopped-camera.png"))
        assert colourfulness(crop(screen, browser.rect("tile-1-1"))) < colourfulness(crop(screen, browser.rect("tile-0-1"))) / 2
        page.find_element(By.ID, "run-1").send_keys(Keys.ENTER)  # the keyboard works as well as the mouse
        wait_for(lambda: page.find_element(By.ID, "run-1").text == "Stop", "camera 1 started")
        assert [c["running"] for c in console.stats()["cameras"]] == [True, True]

        # The snapshot button saves the full view as PNG.
        page.find_element(By.CSS_SELECTOR, "figure[data-camera='0'][data-view='1'] a.button").click()
        # Named after the camera, the view and the frame it shows.
        saved = wait_for(lambda: [name for name in os.listdir(downloads) if name.endswith(".png")] or None,
                         "the snapshot file")
        number = re.fullmatch(r"camera0-view1-(\d+)\.png", saved[0])
        assert number, saved
        image = cv2.imread(os.path.join(downloads, saved[0]))
        assert image.shape == (720, 1280, 3) and frame_number(image) == int(number.group(1))

        # A new format for view 2: a wrong size is refused on the page, a good one applied.
        figure = page.find_element(By.CSS_SELECTOR, "figure[data-camera='0'][data-view='2']")
        figure.find_element(By.XPATH, ".//button[text()='Format']").click()
        Select(page.find_element(By.ID, "format-0-2-format")).select_by_visible_text("YUYV")
        width = page.find_element(By.ID, "format-0-2-width")
        height = page.find_element(By.ID, "format-0-2-height")
        width.clear()
        width.send_keys("321")
        figure.find_element(By.XPATH, ".//button[text()='Apply']").click()
        wait_for(lambda: page.find_element(By.ID, "format-0-2-error").text ==
                 "width and height: even whole numbers, 2..65534", "the size error")
        assert console.json("GET", "/api/cameras")[1]["cameras"][0]["views"][2]["format"] == "NV12"
        width.clear()
        width.send_keys("320")
        height.clear()
        height.send_keys("240")
        page.find_element(By.ID, "format-0-2").submit()
        wait_for(lambda: page.find_element(By.CSS_SELECTOR, "figure[data-camera='0'][data-view='2'] .format").text ==
                 "YUYV 320x240", "the new format in the caption")
        wait_for(lambda: (lambda image: image is not None and image.shape[:2] == (240, 320) and
                          frame_number(image) is not None)(browser.picture("tile-0-2")), "a 320x240 picture")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def test_a_phone_reaches_the_controls_and_the_page_survives_a_restart():
    port = free_port()
    listen = f"127.0.0.1:{port}"
    console = Console(["--cameras", "0,1"], listen=listen)
    try:
        with Browser() as browser:
            browser.phone()
            page = browser.driver
            page.get(f"http://127.0.0.1:{port}/")
            wait_for(lambda: browser.painted_number("tile-0-0", 1920, 1080), "a picture on tile 0/0")
            assert browser.run("return window.innerWidth") == 412
            # The controls are one tap away, not below every tile.
            page.find_element(By.XPATH, "//nav[@id='sections']/button[text()='Tuning']").click()
            slider = page.find_element(By.ID, "control-brightness")
            wait_for(slider.is_displayed, "the tuning section")
            left, top, width, height = browser.rect("control-brightness")
            assert 0 <= top and top + height <= 915 and left + width <= 412
            assert not page.find_element(By.ID, "views").is_displayed()
            browser.screenshot(os.path.join(OUT, "phone-tuning.png"))
            page.find_element(By.XPATH, "//nav[@id='sections']/button[text()='Views']").click()
            wait_for(lambda: page.find_element(By.ID, "tile-0-0").is_displayed(), "the views again")
            # The console dies: the page says so, greys the pictures and marks the figures stale.
            console.process.send_signal(signal.SIGKILL)
            console.process.wait(LONG_WAIT_S)
            status = page.find_element(By.ID, "status")
            wait_for(lambda: status.text.startswith("disconnected: no answer from the board"), "the disconnected state")
            assert browser.run("return getComputedStyle(document.querySelector('.fps'), '::after').content") == '" (stale)"'
            screen = browser.screenshot(os.path.join(OUT, "disconnected.png"))
            assert colourfulness(crop(screen, browser.rect("tile-0-0"))) < 3
            last = browser.painted_number("tile-0-0", 1920, 1080)

            # It comes back on the same address: the page reconnects by itself.
            console.__exit__()
            console = Console(["--cameras", "0,1"], listen=listen)
            wait_for(lambda: status.text.startswith("up "), "the page to reconnect")
            wait_for(lambda: (lambda n: n is not None and n != last)(browser.painted_number("tile-0-0", 1920, 1080)),
                     "pictures of the new run")
            screen = browser.screenshot()
            assert colourfulness(crop(screen, browser.rect("tile-0-0"))) > 20
    finally:
        console.__exit__()


def test_group_page_draws_the_skew_chart_clear_of_its_labels():
    with Console(["--group", "--views", "2"], config="[cameras]\npresent = 0, 1\n[camera 1]\nfps = 15\n") as console, \
            Browser() as browser:
        page = browser.driver
        page.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: not page.find_element(By.ID, "group-panel").get_attribute("hidden") and
                 console.stats()["group"]["sets"] > 20, "frame sets")
        assert page.find_element(By.ID, "group-figures").text.endswith(" incomplete")
        # The trace's colour is in the plot and nowhere in the label margins.
        counts = wait_for(lambda: browser.run("""
            const c = document.getElementById('skew-chart'), g = c.getContext('2d');
            const trace = (x, y, w, h) => { const d = g.getImageData(x, y, w, h).data; let n = 0;
              for (let i = 0; i < d.length; i += 4) if (d[i + 2] > 150 && d[i + 2] - d[i] > 60) n++; return n; };
            const plot = trace(56, 10, c.width - 64, c.height - 32);
            return plot ? [plot, trace(0, 0, 56, c.height), trace(0, c.height - 22, c.width, 22)] : null;"""), "a trace")
        assert counts[0] > 0 and counts[1:] == [0, 0]
        assert page.find_element(By.ID, "run-0").get_attribute("disabled") == "true"  # a group starts and stops as one


def test_a_page_of_another_site_gets_nothing():
    # DNS rebinding as a browser lives it: attacker.test resolves to the
    # board, so the attacker's page is, to the browser, of the console's
    # origin; and the same page also tries the board's own address.
    with Console(["--cameras", "0"]) as console, \
            Browser(extra_flags=["--host-resolver-rules=MAP attacker.test 127.0.0.1"]) as browser:
        page = browser.driver
        page.get(f"http://attacker.test:{console.port}/")
        assert "is not a name of this console" in page.find_element(By.TAG_NAME, "body").text
        tries = browser.driver.execute_async_script("""
            const [port, done] = [arguments[0], arguments[arguments.length - 1]];
            const send = (url, method, mode) => fetch(url, { method, mode, body: '{"value": 200}',
              headers: mode === 'no-cors' ? {} : { 'Content-Type': 'application/json' } }).then((r) => r.status, () => 'failed');
            const image = new Image();
            const loaded = new Promise((resolve) => { image.onload = () => resolve('shown'); image.onerror = () => resolve('refused'); });
            image.src = `http://127.0.0.1:${port}/stream/0/0.mjpg`;
            Promise.all([
              send('/api/cameras/0/controls/hue', 'PUT', 'same-origin'),
              fetch('/api/stats').then((r) => r.status),
              send(`http://127.0.0.1:${port}/api/cameras/0/controls/hue`, 'PUT', 'cors'),
              send(`http://127.0.0.1:${port}/api/cameras/0/controls/hue`, 'POST', 'no-cors'),
              loaded,
            ]).then(done);""", console.port)
        # Rebound name: misdirected. The board's own address: a PUT's
        # preflight is refused, a form-like POST gets an answer the page
        # cannot read (0), and the console refused it all the same.
        assert tries == [421, 421, "failed", 0, "refused"]
        stats = console.stats()
        assert (stats["streams"]["served"], stats["streams"]["active"]) == (0, 0)
        details = console.json("GET", "/api/cameras/0")[1]
        assert next(c["value"] for c in details["controls"] if c["name"] == "hue") == [128]
        assert not any("hue set" in e["text"] for e in console.events())
