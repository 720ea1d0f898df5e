# SPDX-License-Identifier: MIT
"""A page in headless Chromium."""

import json
import pathlib

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

WAIT = 20  # seconds that something may take to happen


class Browser:
    """Opens pages without a network, wide or narrow, light or dark."""

    def __init__(self):
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--force-device-scale-factor=1",
                         "--host-resolver-rules=MAP * ~NOTFOUND"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        options.binary_location = "/usr/bin/chromium"
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)

    def close(self):
        """Ends the browser."""
        self.driver.quit()

    def open(self, path, width=1600, height=1200, scheme="light"):
        """Opens a file and waits for its pictures."""
        send = self.driver.execute_cdp_cmd
        send("Emulation.setDeviceMetricsOverride",
             {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        send("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        self.driver.get(pathlib.Path(path).resolve().as_uri())
        self.wait("return document.querySelectorAll('#timeline .main-svg').length > 0")

    def wait(self, script):
        """Waits until a script returns something; returns that."""
        return WebDriverWait(self.driver, WAIT).until(lambda driver: driver.execute_script(script))

    def script(self, text, *arguments):
        """What a script returns."""
        return self.driver.execute_script(text, *arguments)

    def find(self, selector):
        """The first element of a kind."""
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def actions(self):
        """A chain of mouse and keys."""
        return ActionChains(self.driver)

    def complaints(self):
        """What stands in the console."""
        return [json.dumps(entry) for entry in self.driver.get_log("browser")]

    def picture(self, path):
        """Writes what is in the window."""
        self.driver.save_screenshot(str(path))
