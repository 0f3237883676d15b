"""Chromium without a window, driven by Selenium."""

import contextlib
import json
import os
import shutil
import sys

from support import eventually

# Debian's, whichever interpreter runs this.
sys.path.append("/usr/lib/python3/dist-packages")
with contextlib.suppress(ImportError):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.keys import Keys

DRIVER = shutil.which("chromedriver")
IS_THERE = shutil.which("chromium") and DRIVER and "selenium" in sys.modules


class Browser(contextlib.AbstractContextManager):
    """One page. What its console complains of, and every address that it asked for, is kept."""

    def __init__(self):
        options = webdriver.ChromeOptions()
        for argument in ("headless=new", "no-sandbox", "disable-gpu", "disable-dev-shm-usage",
                         "hide-scrollbars", "lang=en", "window-size=1360,900"):
            options.add_argument(f"--{argument}")
        options.accept_insecure_certs = True
        options.set_capability("goog:loggingPrefs", {"browser": "SEVERE", "performance": "ALL"})
        self.driver = webdriver.Chrome(options=options, service=Service(DRIVER, env={**os.environ, "TZ": "UTC"}))
        self.call = self.driver.execute_cdp_cmd
        self.driver.set_script_timeout(30)

    def __exit__(self, *_):
        self.driver.quit()

    @property
    def complaints(self):
        return self.driver.get_log("browser")

    @property
    def addresses(self):
        said = [json.loads(entry["message"])["message"] for entry in self.driver.get_log("performance")]
        return [each["params"]["request"]["url"] for each in said if each["method"] == "Network.requestWillBeSent"]

    def see(self, expression):
        """The value of an expression of JavaScript; True for an element."""
        return self.driver.execute_async_script(
            f"const [say] = arguments, it = await ({expression}); say(it instanceof Node || it);")

    def until(self, expression, within=20.0):
        """Waits until the expression is true, and gives its value."""
        if value := eventually(lambda: self.see(expression), within, every=0.05):
            return value
        raise AssertionError(f"not within {within} s: {expression}\n{self.complaints}")

    def press(self, *keys):
        """Texts, or keys by their names."""
        for key in keys:
            webdriver.ActionChains(self.driver).send_keys(getattr(Keys, key.upper(), key)).perform()

    def screenshot(self, path, width=1360, height=900, dark=False, phone=False):
        """What a person sees on a screen of that size, and whether something sticks out at the side."""
        self.call("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})
        self.call("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "mobile": phone, "deviceScaleFactor": 1 + phone})
        self.see("new Promise((done) => requestAnimationFrame(() => setTimeout(done, 300)))")
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(self.driver.get_screenshot_as_png())
        return self.see("document.documentElement.scrollWidth > innerWidth")
