"""./run as a newcomer starts it, beside another instance. It builds the release if that is old."""

import os
import signal
import subprocess

from harness import Instance, SystemTest, wait_for

BUILD_DEADLINE_SEC = 780
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def child_of(program, name):
    """The process id of the program's child, whose name the system cuts."""
    for line in subprocess.run(["ps", "-e", "-o", "pid=,ppid=,comm="], text=True, check=True,
                               capture_output=True).stdout.splitlines():
        pid, parent, command = line.split(None, 2)
        if int(parent) == program.pid and command == name[:15]:
            return int(pid)
    raise AssertionError(f"there is no {name}")


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

    def test_ServiceThatIsKilledIsStartedAgain(self):
        instance, run = self.run_script("killed", 15687)
        run.wait_for_output("The service stays up.", deadline_sec=BUILD_DEADLINE_SEC)
        os.kill(child_of(run, "corvane"), signal.SIGKILL)
        run.wait_for_output("The service has ended with status 137.")
        run.wait_for_output("Service      gone: ")
        wait_for("the service to answer again", lambda: instance.ctl("energy").status == 0)
        os.kill(child_of(run, "corvane-appliance"), signal.SIGKILL)
        self.assertEqual(run.wait(), 1)
        self.assertIn("run: the appliance has ended with status 137", run.log)

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
