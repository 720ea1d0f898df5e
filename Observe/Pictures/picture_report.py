# SPDX-License-Identifier: MIT
"""A picture of a report at the moment when the link was lost.

Called with the report and the picture to write.
"""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "Log" / "Tests"))

from browser import Browser  # pylint: disable=wrong-import-position


def main(report, picture):
    """Goes to the loss with the mouse, as a reader would."""
    browser = Browser()
    try:
        browser.open(report, 1100, 1240)
        mark = browser.find("#timeline .scatterlayer .points path")
        browser.actions().move_to_element(mark).click().perform()
        browser.wait("return document.querySelector('#lines .chosen') !== null")
        browser.actions().move_to_element(browser.find("h1")).perform()
        browser.wait("return document.querySelectorAll('.hoverlayer .hovertext').length === 0")
        browser.picture(picture)
    finally:
        browser.close()


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
