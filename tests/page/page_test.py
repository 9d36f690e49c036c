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
TESTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "real.test.mjs")


def is_healthy():
    try:
        with urllib.request.urlopen(f"http://{LISTEN}/health", timeout=5) as answer:
            return json.load(answer)["status"] == "ok"
    except OSError:
        return False


class RealPage(SystemTest):
    def test_PageDoesWhatItShows(self):
        corvane = Instance(TZ="Europe/Berlin")
        # The appliance first: it has to hear the level that the service commands at its start.
        appliance = corvane.start_program("corvane-appliance", "--listen", LISTEN)
        corvane.start()
        wait_for("the appliance to be healthy", is_healthy)
        tests = subprocess.run(
            [os.environ["CORVANE_NODE"], "--test", "--test-reporter=spec", TESTS],
            env={**os.environ, "CORVANE_PAGE_URL": f"http://{LISTEN}"},
            text=True, capture_output=True, check=False,
        )
        print(tests.stdout + tests.stderr)
        self.assert_stops(appliance)
        self.assert_stops(corvane.service)
        self.assertEqual(tests.returncode, 0, "the browser's tests; see above")
