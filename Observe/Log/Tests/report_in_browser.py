# SPDX-License-Identifier: MIT
"""The report as people see it, in headless Chromium."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

from browser import Browser
from logs import LINK_UP, READS_LOST, START, STOP, lines
import place

PICTURES = pathlib.Path(sys.argv.pop()) if len(sys.argv) > 1 else None
HOSTILE = [("_processDataMessage", "ERROR: Message received is not valid: </script><b onclick=x>&amp;\x1b[2J")]
UP_AGAIN = LINK_UP + [("_onConnected", "socket #1CONNECTED")]
RUN = [(0, START), (2, LINK_UP), (10, HOSTILE), (20, READS_LOST), (23, UP_AGAIN),
       (30, [("_connectedFunc", "Ask host to delay further writes")]),
       (42, [("_connectedFunc", "Warn host he can write again")]), (50, READS_LOST), (51, UP_AGAIN), (60, STOP)]
RANGE = "return document.getElementById('timeline').layout.xaxis.range.map(e => +new Date(e))"
CHOSEN = "const line = document.querySelector('#lines .chosen'); return line && line.textContent"


class Report(unittest.TestCase):
    """One page of one run."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        log = pathlib.Path(folder.name) / "log"
        log.mkdir()
        (log / "UsbHal1.log.keep").write_text(lines((0, START)), encoding="utf-8")
        (log / "UsbHal1.log").write_text(lines(*RUN), encoding="utf-8")
        cls.page = log.parent / "report.html"
        subprocess.run([place.PROGRAM, "report", cls.page, log], check=True)
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    def tearDown(self):
        self.assertEqual(self.browser.complaints(), [])

    def press(self, *keys):
        """Presses keys where the focus is."""
        for key in keys:
            self.browser.actions().send_keys(key).perform()

    def focus_timeline(self):
        """Goes to the time line with the tabulator only."""
        self.browser.find("#run").click()
        self.press("\ue00c")  # escape
        for _ in range(10):
            if self.browser.script("return document.activeElement.id") == "timeline":
                return
            self.press("\ue004")  # tabulator
        self.fail("the tabulator does not lead to the time line")

    def test_it_fits_wide_and_narrow_in_light_and_dark(self):
        """Nothing sticks out, and the colours follow."""
        for width in (400, 1600):
            for scheme in ("light", "dark"):
                with self.subTest(width=width, scheme=scheme):
                    self.browser.open(self.page, width, 1400, scheme)
                    sizes = self.browser.script(
                        "const page = document.documentElement; return [page.scrollWidth, page.clientWidth]")
                    self.assertEqual(sizes[0], sizes[1])
                    back = self.browser.script("return getComputedStyle(document.body).backgroundColor")
                    paper = self.browser.script("return document.getElementById('timeline').layout.paper_bgcolor")
                    self.assertEqual((back, paper), (("rgb(255, 255, 255)", "#ffffff") if scheme == "light"
                                                     else ("rgb(20, 24, 31)", "#14181f")))
                    if PICTURES:
                        self.browser.picture(PICTURES / f"report-{width}-{scheme}.png")

    def test_colours_follow_while_it_is_open(self):
        """In the evening."""
        self.browser.open(self.page)
        self.browser.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": "dark"}]})
        self.browser.wait("return document.getElementById('timeline').layout.paper_bgcolor === '#14181f'")

    def test_a_drag_zooms_and_a_double_click_shows_all(self):
        """With the mouse."""
        self.browser.open(self.page)
        whole = self.browser.script(RANGE)
        drag = self.browser.find("#timeline .nsewdrag")
        self.browser.actions().move_to_element_with_offset(drag, -200, 0).click_and_hold().move_by_offset(
            300, 0).release().perform()
        self.browser.wait(f"const at = (() => {{ {RANGE} }})(); return at[1] - at[0] < {whole[1] - whole[0]} / 2")
        self.browser.actions().double_click(drag).perform()
        self.browser.wait(f"const at = (() => {{ {RANGE} }})(); return at[1] - at[0] >= {whole[1] - whole[0]}")

    def test_a_click_on_the_loss_shows_its_lines(self):
        """The line of the loss is marked."""
        self.browser.open(self.page)
        mark = self.browser.find("#timeline .scatterlayer .points path")
        self.browser.actions().move_to_element(mark).click().perform()
        self.assertIn("Disconnect read attempts", self.browser.wait(CHOSEN))

    def test_hovering_tells_what_it_is(self):
        """Of the mark of the loss."""
        self.browser.open(self.page)
        self.browser.actions().move_to_element(self.browser.find("#timeline .scatterlayer .points path")).perform()
        text = self.browser.wait("const box = document.querySelector('.hoverlayer'); return box && box.textContent")
        self.assertIn("link lost: 5 reads without a valid message", text)

    def test_the_keyboard_does_all_of_it(self):
        """From event to event, in and out."""
        self.browser.open(self.page)
        self.focus_timeline()
        whole = self.browser.script(RANGE)
        self.press("\ue014")  # right
        self.assertIn("configuration is now set", self.browser.wait(CHOSEN))
        self.press("+")
        narrow = self.browser.script(RANGE)
        self.assertAlmostEqual((narrow[1] - narrow[0]) * 2, whole[1] - whole[0], delta=2)
        self.press("0")
        self.assertEqual(self.browser.script(RANGE), whole)

    def test_a_finding_leads_to_what_to_do(self):
        """Within the page."""
        self.browser.open(self.page)
        link = self.browser.find("#findings a")
        target = self.browser.script("return document.getElementById(arguments[0].hash.slice(1)).textContent", link)
        self.assertEqual(target, "The link comes and goes")
        away = self.browser.script("return [...document.querySelectorAll('a')].map(a => a.getAttribute('href'))"
                                   ".filter(href => !document.getElementById(href.slice(1)))")
        self.assertEqual(away, [])

    def test_what_a_host_sent_is_only_text(self):
        """Its bytes look like a piece of a page."""
        self.browser.open(self.page)
        self.assertEqual(self.browser.script("return document.querySelectorAll('[onclick]').length"), 0)
        self.assertIn("</script><b onclick=x>&amp;\\x1b[2J",
                      self.browser.script("return document.getElementById('lines').textContent"))

    def test_another_run_can_be_chosen(self):
        """The run before had no link."""
        self.browser.open(self.page)
        self.browser.script("const s = document.getElementById('run'); s.value = 0; s.dispatchEvent(new Event('change'))")
        self.assertIn("never came up", self.browser.find("#findings").text)

    def test_it_asks_for_nothing_else(self):
        """No address of anything outside of it."""
        self.browser.open(self.page)
        self.assertEqual(self.browser.script("return performance.getEntriesByType('resource').map(e => e.name)"
                                             ".filter(name => !name.startsWith('data:'))"), [])


if __name__ == "__main__":
    unittest.main()
