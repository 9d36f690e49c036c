"""The README's picture of the page: a summer afternoon, four minutes into an event of level 3.

A day passes 600 times as fast, so that there is something to see; the event then runs in real time,
so that its steps take what they take. Not a test, but it stands on the same ground.
"""

from harness import wait_for
from page_test import PageTest, ask, state

BEGIN = "2026-07-30T14:30"
DAY_SEC = 26 * 3600 + 10 * 60
SPEED = 600


class Picture(PageTest):
    def test_Picture(self):
        self.start_at(SPEED, BEGIN)
        begin = state()["at"]
        ask("PUT", "/api/v1/defrost", {"enabled": 1})
        wait_for("a day to pass", lambda: state()["at"] - begin > DAY_SEC, 2 * DAY_SEC / SPEED)
        afternoon = state()["localText"].replace(" ", "T")
        self.stop()
        self.start_at(1, afternoon)
        self.browse("picture.mjs")
