"""The page of a measurement in a browser: page_test.py VEXO_PROGRAM. Ends with 77 where there is no chromium."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import browser

VEXO = sys.argv.pop(1)
HOSTILE = "<b>'&amp;\"</script>"  # as a path: a folder in a folder


def vexo(*arguments, code=0):
    done = subprocess.run([VEXO, *arguments, "--quiet"], stderr=subprocess.PIPE, text=True, check=False)
    assert done.returncode == code, (arguments, done.returncode, done.stderr)


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="vexo-page-")
        cls.scan, cls.page = os.path.join(cls.work, HOSTILE), cls.at("result/report.html")
        vexo("simulate", "bust", "--size", "320x256", "--out", cls.scan)
        vexo("measure", cls.scan, "--accept-verdict", "--out", cls.at("result"))
        with open(cls.page, encoding="utf-8") as page:
            if "built without three.js" in page.read():
                raise unittest.SkipTest("the program was built without three.js")
        cls.browser = browser.Browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()
        shutil.rmtree(cls.work)

    @classmethod
    def at(cls, name):
        return os.path.join(cls.work, name)

    def setUp(self):
        self.browser.size(1000, 800)

    def expect_quiet(self):
        """Nothing but the file was asked for, no policy was broken, no script failed."""
        asked = [event["request"]["url"] for event in self.browser.seen("Network.requestWillBeSent")]
        self.assertEqual([url[:5] for url in asked if not url.startswith("data:image/")], ["file:"])
        self.assertEqual(self.browser.seen("Runtime.exceptionThrown"), [])
        self.assertEqual([e for e in self.browser.seen("Log.entryAdded") if e["entry"]["level"] == "error"], [])

    def test_points_are_drawn_and_turn_with_the_pointer_and_change_with_the_colour(self):
        self.browser.open(self.page, " points")
        self.expect_quiet()
        first = self.browser.picture("#view")
        self.assertGreater(len(first), 5000, "one colour alone is smaller by far")
        self.browser.drag("#view", 120, 40)
        turned = self.browser.wait_for(lambda: (p := self.browser.picture("#view")) != first and p, "the turned cloud")
        for colour in ("grey", "sigma", "cause"):
            self.browser.value(f"document.querySelector('[value={colour}]').click()")
            turned = self.browser.wait_for(lambda: (p := self.browser.picture("#view")) != turned and p, colour)
        self.assertLess(os.path.getsize(self.page), 8e6)

    def test_names_of_folders_stay_texts(self):
        self.browser.open(self.page, "script>, ")
        self.assertEqual(self.browser.value("document.querySelector('h1').innerText"), "script>")
        self.assertIn(self.scan, self.browser.value("document.body.innerText"))
        self.assertEqual(self.browser.value("document.querySelectorAll('b').length"), 0)

    def test_no_page_is_wider_than_a_phone(self):
        self.browser.size(380, 800)
        self.browser.open(self.page, " points")
        self.assertEqual(self.browser.value("document.documentElement.scrollWidth"), 380)

    def test_without_webgl_the_page_says_so_and_has_its_pictures(self):
        blind = browser.Browser("--disable-3d-apis")
        self.addCleanup(blind.close)
        blind.open(self.page, "without 3D view")
        self.assertIn("has no WebGL", blind.value("document.body.innerText"))
        self.assertGreaterEqual(blind.value("[...document.images].filter((i) => i.naturalWidth > 100).length"), 7)

    def test_a_cloud_of_no_points_shows_why(self):
        vexo("measure", self.scan, "--disparity", "5000:6000", "--out", self.at("none"), code=1)
        self.browser.open(self.at("none/report.html"), "script>")
        self.expect_quiet()
        text = self.browser.value("document.body.innerText")
        self.assertIn("Nothing was measured.", text)
        self.assertIn("every disparity lies outside [5000, 6000]", text)
        self.assertIn("--depth", text)


if __name__ == "__main__":
    if not browser.CHROMIUM:
        print("skipped: there is no chromium to look at the pages with")
        sys.exit(77)
    unittest.main(verbosity=2)
