"""The service in a clock that runs 600 times as fast as the real one."""

import os
import time

from harness import LEVEL, LEVEL_ECHO, NORMAL, Instance, SystemTest, wait_for

SPEED = 600
START = "2026-07-31T14:50"  # in Berlin, ten minutes before the summer window opens
LEVEL3 = "SET_SMARTGRID_LEVEL3"
HELD, RELEASED = "SET_SMARTGRID_ENABLE", "SET_SMARTGRID_DISABLE"
HOUR = 3600


class Timelapse(SystemTest):
    """An afternoon and evening with a defrost window and an event, in half a minute."""

    def setUp(self):
        self.corvane = Instance("timelapse", TZ="Europe/Berlin")
        clock = os.path.join(self.corvane.folder, "clock")
        made = self.corvane.start_program(
            "corvane-clock", clock, "--speed", str(SPEED), "--at", START, "--zone", "Europe/Berlin")
        self.assertEqual(made.wait(), 0, made.log)
        self.corvane.connect_wifi()
        self.corvane.environment["CORVANE_CLOCK"] = clock
        self.corvane.service = self.corvane.start_program("corvane-timelapse")
        self.corvane.wait_until_launched()
        # The Micom's writes carry no time, so they need no clock.
        del self.corvane.environment["CORVANE_CLOCK"]

    def sent(self, command, after):
        """When the command was first sent after a second of the day, in UTC."""
        for line in self.corvane.service.log.splitlines():
            if line.endswith("Send To Micom Info that " + command):
                hours, minutes, seconds = line[11:23].split(":")
                at = int(hours) * HOUR + int(minutes) * 60 + float(seconds)
                if at >= after:
                    return at
        return None

    def wait_until_sent(self, command, after):
        return wait_for(f"{command} is sent", lambda: self.sent(command, after))

    def test_WindowAndEventStartAndEndAtTheirVirtualTimes(self):
        corvane = self.corvane
        corvane.settle()
        corvane.order("SetDelayDefrost", enabled=1)

        opens, closes = 13 * HOUR, 17 * HOUR  # 15:00 to 19:00 in Berlin
        # A busy machine may be late by any time, but nothing is early; that it is not as late as in
        # real time is held by the deadline of each wait.
        held = self.wait_until_sent(HELD, 0)
        self.assertGreaterEqual(held, opens)
        released = self.wait_until_sent(RELEASED, held)
        self.assertGreaterEqual(released, closes)

        with corvane.observe("SendDRLCNotify") as levels:
            begin, length = int(released) + HOUR, 2 * HOUR
            start = time.strftime("%T", time.gmtime(begin))
            corvane.order("ControlDRLC", level=3, duration="02:00:00", start=start)
            sent = self.wait_until_sent(LEVEL3, 0)
            self.assertGreaterEqual(sent, begin)
            corvane.write(LEVEL_ECHO, 3)
            shown = levels.wait(lambda value: value["level"] == 3)
            self.assertTrue(shown["at"].startswith("2026-07-31T"), shown)
            self.assertGreater(self.wait_until_sent(NORMAL, sent), begin + length)
            levels.wait(lambda value: value["level"] == 0)
        self.assertIsNone(corvane.event())
        corvane.wait_for_value(LEVEL, 0)
        self.assert_stops(corvane.service)


class TimelapseWithoutClock(SystemTest):
    def test_MissingClockIsOneLineAndStatus1(self):
        corvane = Instance("clockless", CORVANE_CLOCK="/nonexistent/clock")
        service = corvane.start_program("corvane-timelapse")
        self.assertEqual(service.wait(), 1)
        self.assertEqual(service.log, "clock: cannot open /nonexistent/clock: "
                                      "No such file or directory (CORVANE_CLOCK)\n")
        self.assertFalse(os.path.exists(corvane.state))
