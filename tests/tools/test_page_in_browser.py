"""Shows a page of tools/sum-report in a headless Chromium and looks for its marks."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from page_builder import pixels, sample

NAMES = ("chromium", "chromium-browser", "google-chrome")
BROWSER = next(filter(None, map(shutil.which, NAMES)), None)
SIZE = "1100,2600"
LIGHT, DARK = 1, 0  # the browser's numbers for schemes of colours


def colours(page, scheme):
    """The colours that the page's style gives to its marks, by name."""
    light, dark = page.split("prefers-color-scheme: dark", 1)
    style = light if scheme == LIGHT else dark
    return {name: tuple(bytes.fromhex(value))
            for name, value in re.findall(r"--(\w+): #([0-9a-f]{6})", style)}


@unittest.skipUnless(BROWSER, "Chromium isn't installed (Debian: apt-get install chromium)")
class Browser(unittest.TestCase):
    def screenshot(self, page, scheme):
        with tempfile.TemporaryDirectory() as directory:
            place = pathlib.Path(directory)
            (place / "page.html").write_text(page)
            command = [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                       f"--user-data-dir={place / 'profile'}", "--disable-dev-shm-usage",
                       f"--blink-settings=preferredColorScheme={scheme}",
                       "--force-color-profile=srgb", f"--window-size={SIZE}",
                       f"--screenshot={place / 'page.png'}",
                       (place / "page.html").as_uri()]
            done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True,
                                  timeout=240, check=False, env=os.environ | {"HOME": directory})
            self.assertTrue((place / "page.png").exists(), done.stderr.decode(errors="replace"))
            return pixels(place / "page.png")

    def test_marks_are_there_in_light_and_dark(self):
        page = sample("counters")
        for scheme in (LIGHT, DARK):
            with self.subTest(scheme="light" if scheme == LIGHT else "dark"):
                want, seen = colours(page, scheme), self.screenshot(page, scheme)
                # Four functions as bars and lanes, in their order of time, cells of the matrix,
                # lines of counters; on the page's own background.
                for name, least in (("s1", 20000), ("s2", 10000), ("s3", 5000), ("s4", 5000),
                                    ("q7", 2000), ("page", 50000), ("card", 50000)):
                    self.assertGreater(seen.get(want[name], 0), least, name)
                # Nothing has the colours of series that the run doesn't have.
                for name in ("s6", "s7", "s8"):
                    self.assertLess(seen.get(want[name], 0), 20, name)


if __name__ == "__main__":
    unittest.main()
