"""Debian's headless Chromium, driven by Selenium, for the console's page
tests: started as the console's users on a headless machine start it, with a
fresh profile; and what a person sees of the page, read back from it."""
import base64
import os
import shutil
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
