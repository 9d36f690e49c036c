"""The page in front of the real programs: starts them, and lets the browser's tests use the page.

The size and the theme come from the environment, CORVANE_PAGE_SIZE and CORVANE_PAGE_THEME, so that
each pair is a test of its own with programs of its own.
"""

import json
import os
import subprocess
import urllib.request

from harness import Instance, SystemTest, wait_for

LISTEN = "127.0.0.1:8080"
ZONE = "Europe/Berlin"
FOLDER = os.path.dirname(os.path.abspath(__file__))


def ask(method, path, body=None):
    """The answer of the appliance, which has to be a success."""
    request = urllib.request.Request(
        f"http://{LISTEN}{path}", method=method,
        data=None if body is None else json.dumps(body).encode(),
        headers={"X-Corvane": "1", "Content-Type": "application/json"},
    )
    with urllib.request.urlopen(request, timeout=10) as answer:
        return json.load(answer)


def state():
    return ask("GET", "/api/v1/state")


def is_healthy():
    try:
        return ask("GET", "/health")["status"] == "ok"
    except OSError:
        return False


class PageTest(SystemTest):
    """Programs, and a browser that looks at their page."""

    def setUp(self):
        self.corvane = Instance(TZ=ZONE)
        self.programs = []

    def start(self, service="corvane"):
        # The appliance first: it has to hear the level that the service commands at its start.
        self.corvane.connect_wifi()
        self.programs = [
            self.corvane.start_program("corvane-appliance", "--listen", LISTEN),
            self.corvane.start_program(service),
        ]
        wait_for("everything to be up", is_healthy)
        wait_for("the first report", lambda: state()["demandResponse"]["reported"] is not None)

    def start_at(self, speed, local_time):
        """The same, in a time of its own."""
        os.makedirs(self.corvane.runtime, exist_ok=True)
        clock = os.path.join(self.corvane.runtime, "clock")
        made = self.corvane.start_program(
            "corvane-clock", clock, "--speed", str(speed), "--at", local_time, "--zone", ZONE)
        wait_for("the clock", lambda: not made.is_alive())
        self.corvane.environment["CORVANE_CLOCK"] = clock
        self.start("corvane-timelapse")

    def browse(self, *arguments):
        """Runs a script of the browser to its end, which has to be good."""
        done = subprocess.run(
            [os.environ["CORVANE_NODE"], *arguments], cwd=FOLDER,
            env={**os.environ, "CORVANE_PAGE_URL": f"http://{LISTEN}"},
            text=True, capture_output=True, check=False,
        )
        print(done.stdout + done.stderr)
        self.stop()
        self.assertEqual(done.returncode, 0, "what the browser has seen; see above")

    def stop(self):
        while self.programs:
            self.assert_stops(self.programs.pop())


class RealPage(PageTest):
    def test_PageDoesWhatItShows(self):
        self.start()
        self.browse("--test", "--test-reporter=spec", "real.test.mjs")


class FastPage(PageTest):
    def test_DayPassesOnThePageAsFastAsForThePrograms(self):
        self.start_at(60, "2026-07-31T14:50")
        self.browse("--test", "--test-reporter=spec", "fast.test.mjs")
