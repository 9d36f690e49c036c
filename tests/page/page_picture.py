"""The README's picture of the page: a summer afternoon, four minutes into an event of level 3.

A day passes 600 times as fast, so that there is something to see; the event then runs in real time,
so that its steps take what they take. Not a test, but it stands on the same ground.
"""

import json
import os
import subprocess
import urllib.request

from harness import Instance, SystemTest, wait_for
from page_test import LISTEN, is_healthy

PICTURE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "picture.mjs")
ZONE = "Europe/Berlin"
BEGIN = "2026-07-30T14:30"
DAY_SEC = 26 * 3600 + 10 * 60
SPEED = 600


def ask(method, path, body=None):
    request = urllib.request.Request(
        f"http://{LISTEN}/api/v1/{path}", method=method,
        data=None if body is None else json.dumps(body).encode(),
        headers={"X-Corvane": "1", "Content-Type": "application/json"},
    )
    with urllib.request.urlopen(request, timeout=10) as answer:
        return json.load(answer)


class Picture(SystemTest):
    def start_at(self, speed, at):
        clock = os.path.join(self.corvane.runtime, "clock")
        os.makedirs(self.corvane.runtime, exist_ok=True)
        made = self.corvane.start_program("corvane-clock", clock, "--speed", str(speed),
                                          "--at", at, "--zone", ZONE)
        wait_for("the clock", lambda: not made.is_alive())
        self.corvane.environment["CORVANE_CLOCK"] = clock
        appliance = self.corvane.start_program("corvane-appliance", "--listen", LISTEN)
        self.corvane.connect_wifi()
        service = self.corvane.start_program("corvane-timelapse")
        wait_for("everything to be up", is_healthy)
        wait_for("the first report",
                 lambda: ask("GET", "state")["demandResponse"]["reported"] is not None)
        return appliance, service

    def test_Picture(self):
        self.corvane = Instance(TZ=ZONE)
        appliance, service = self.start_at(SPEED, BEGIN)
        begin = ask("GET", "state")["at"]
        ask("PUT", "defrost", {"enabled": 1})
        wait_for("a day to pass", lambda: ask("GET", "state")["at"] - begin > DAY_SEC,
                 2 * DAY_SEC / SPEED)
        afternoon = ask("GET", "state")["localText"].replace(" ", "T")
        self.assert_stops(appliance)
        self.assert_stops(service)
        appliance, service = self.start_at(1, afternoon)
        subprocess.run([os.environ["CORVANE_NODE"], PICTURE], check=True,
                       env={**os.environ, "CORVANE_PAGE_URL": f"http://{LISTEN}"})
        self.assert_stops(service)
        self.assert_stops(appliance)
