"""./run as a newcomer starts it, beside another instance. It builds the release if that is old."""

import os
import signal

from harness import Instance, SystemTest

BUILD_DEADLINE_SEC = 780
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


class Demo(SystemTest):
    """The demonstration by itself, and interrupted."""

    @classmethod
    def setUpClass(cls):
        cls.other = Instance("other")
        cls.other.start()

    @classmethod
    def tearDownClass(cls):
        assert cls.other.service.stop() == 0

    def run_script(self, name, port, *arguments, **environment):
        # The compiler's cache is kept in the home folder.
        instance = Instance(name, f"127.0.0.1:{port}", HOME=os.environ.get("HOME", "/"),
                            **environment)
        return instance, instance.start_program(ROOT + "/run", *arguments)

    def test_DemonstrationShowsEveryStepAndEndsWell(self):
        mark = self.other.command_count()
        instance, run = self.run_script("demo", 15683, "--demo")
        self.assertEqual(run.wait(BUILD_DEADLINE_SEC), 0, run.output)
        self.assertEqual(run.sanitizer_reports(), [])
        steps = ["ordered", "commanded to the appliance", "confirmed by the appliance",
                 "reported to the remote side", "ended", "back to normal"]
        places = [run.output.index("✓ " + step) for step in steps]
        self.assertEqual(places, sorted(places))
        self.assertNotIn("✗", run.output)
        self.assertIsNone(instance.event())
        self.assertNotIn("SET_SMARTGRID_LEVEL3", self.other.commands(mark))

    def test_InterruptEndsTheOneThatStaysUp(self):
        _, run = self.run_script("interrupted", 15684)
        run.wait_for_output("The service stays up.", deadline_sec=BUILD_DEADLINE_SEC)
        self.assertEqual(run.stop(signal.SIGINT), 130)

    def test_ClockOfAFastRunBeforeIsNotTaken(self):
        _, run = self.run_script("slow", 15686, CORVANE_CLOCK="/nonexistent/clock")
        run.wait_for_output("The live page is at", deadline_sec=BUILD_DEADLINE_SEC)
        self.assertEqual(run.stop(signal.SIGINT), 130)

    def test_PortOfAnotherInstanceIsTold(self):
        _, run = self.run_script("late", 5683, "--demo")
        self.assertEqual(run.wait(BUILD_DEADLINE_SEC), 1)
        self.assertIn("127.0.0.1:5683", run.log)
        self.assertIn("CORVANE_COAP_LISTEN", run.log)
        self.assertNotIn("ordered", run.output)

    def test_WrongArgumentIsWrongUsage(self):
        _, run = self.run_script("wrong", 15685, "--dmeo")
        self.assertEqual(run.wait(), 2)
        self.assertIn("'--dmeo'", run.log)
