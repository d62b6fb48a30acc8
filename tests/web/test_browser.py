"""The console as a person uses it: headless Chromium (Debian's chromium and
chromedriver, driven by Selenium) opens the page served on the simulated
driver, watches a tile's painted frame numbers go up, moves the brightness
slider to either end and measures the tile's picture get darker and brighter,
and saves a screenshot for the documentation."""
import base64
import os
import shutil
import tempfile
import time

import cv2
import numpy as np
import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from console import LONG_WAIT_S, OUT, Console, frame_number

CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
SCREENSHOT = os.environ.get("WEB_SCREENSHOT", os.path.join(OUT, "zelisp-cam-console.png"))

pytestmark = pytest.mark.skipif(not (os.path.exists(CHROMIUM) and os.path.exists(CHROMEDRIVER)),
                                reason="needs Debian's chromium and chromium-driver")


@pytest.fixture()
def browser():
    profile = tempfile.mkdtemp(prefix="zelisp-chromium-")
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--disable-dev-shm-usage", f"--user-data-dir={profile}", "--window-size=1500,1000"):
        options.add_argument(flag)
    driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
    driver.set_script_timeout(LONG_WAIT_S)
    try:
        yield driver
    finally:
        driver.quit()
        shutil.rmtree(profile, ignore_errors=True)


def wait_for(condition, what):
    # Bounded by a count of tries, each of which waits on the page itself.
    for _ in range(LONG_WAIT_S * 5):
        try:
            value = condition()
        except StaleElementReferenceException:
            value = None  # the page redrew the element between finding and reading it
        if value is not None and value is not False:
            return value
        time.sleep(0.2)
    raise AssertionError("timed out waiting for " + what)


def tile_picture(driver, tile_id):
    """The picture the tile shows now, as the browser decoded it."""
    data = driver.execute_script("""
        const img = document.getElementById(arguments[0]);
        if (!img.complete || !img.naturalWidth) return null;
        const canvas = document.createElement('canvas');
        canvas.width = img.naturalWidth; canvas.height = img.naturalHeight;
        canvas.getContext('2d').drawImage(img, 0, 0);
        return canvas.toDataURL('image/png');""", tile_id)
    if not data:
        return None
    png = base64.b64decode(data.split(",", 1)[1])
    return cv2.imdecode(np.frombuffer(png, np.uint8), cv2.IMREAD_COLOR)


def tile_mean(driver, tile_id):
    """The mean luma of the picture the tile shows now, or None before it has one."""
    image = tile_picture(driver, tile_id)
    return None if image is None else float(cv2.cvtColor(image, cv2.COLOR_BGR2GRAY).mean())


def test_live_tiles_and_brightness_slider(browser):
    with Console(config="[cameras]\npresent = 0, 1, 2, 3\n") as console:
        browser.get(f"http://127.0.0.1:{console.port}/")
        wait_for(lambda: len(browser.find_elements(By.CSS_SELECTOR, "figure.tile")) == 12, "12 tiles")

        # The tile's frame number, read from its pixels, goes up, and the
        # caption names the same frame.
        numbers = []
        for _ in range(3):
            def next_number():
                image = tile_picture(browser, "tile-0-0")
                number = None if image is None else frame_number(image, 1920, 1080)
                return number if number is not None and (not numbers or number > numbers[-1]) else None
            numbers.append(wait_for(next_number, "a newer frame on tile 0/0"))
        assert numbers == sorted(set(numbers))
        caption = browser.find_element(By.CSS_SELECTOR, "figure[data-camera='0'][data-view='0'] .frame").text
        assert caption.startswith("#") and int(caption[1:]) >= numbers[0]

        # Brightness: the slider moved with the keyboard as a person does,
        # the value read back from the driver, and the picture itself
        # darker, then brighter, than it was, once new frames arrive.
        slider = browser.find_element(By.ID, "control-brightness")
        assert (slider.get_attribute("min"), slider.get_attribute("max"), slider.get_attribute("value")) == \
            ("0", "255", "128")
        readback = browser.find_element(By.ID, "readback-brightness")
        before = wait_for(lambda: tile_mean(browser, "tile-0-0"), "a picture on tile 0/0")
        other_before = wait_for(lambda: tile_mean(browser, "tile-1-0"), "a picture on tile 1/0")
        slider.click()  # the middle of the track: where the value already is
        for key, value, moved in ((Keys.HOME, 0, lambda mean: mean < before - 40),
                                  (Keys.END, 255, lambda mean: mean > before + 40)):
            slider.send_keys(key)
            wait_for(lambda: readback.get_attribute("data-value") == str(value), f"brightness read back as {value}")
            status, details = console.json("GET", "/api/cameras/0")
            assert [c["value"] for c in details["controls"] if c["name"] == "brightness"] == [[value]]

            def changed_picture():
                mean = tile_mean(browser, "tile-0-0")
                return mean if mean is not None and moved(mean) else None
            wait_for(changed_picture, f"tile 0/0 to change brightness from a mean of {before:.1f} at {value}")
        # Another camera's picture is its own: as bright as it was.
        other_after = wait_for(lambda: tile_mean(browser, "tile-1-0"), "a picture on tile 1/0")
        assert abs(other_after - other_before) < 10

        wait_for(lambda: browser.execute_script(
            "const row = document.getElementById('timing-3'); return row && row.cells[2].textContent !== '0';"),
            "timing rows")
        os.makedirs(os.path.dirname(SCREENSHOT), exist_ok=True)
        browser.save_screenshot(SCREENSHOT)
        assert os.path.getsize(SCREENSHOT) > 10000
