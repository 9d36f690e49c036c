"""A demand-response event: from the order to the end, and over a restart."""

import signal
import time

import coap
from harness import (
    DEFROST_ACTIVE, DEFROST_ENABLED, LEVEL, LEVEL_ECHO, NORMAL, Instance, ServiceTest, SystemTest,
    wait_for,
)

LEVEL2, LEVEL3 = "SET_SMARTGRID_LEVEL2", "SET_SMARTGRID_LEVEL3"


class TypicalEvent(ServiceTest):
    """One event as the remote side and the Micom see it, told in one go."""

    def test_EventIsOrderedCommandedConfirmedReportedEndedAndReset(self):
        corvane = self.corvane
        corvane.settle()
        watcher = corvane.start_program("coap-client-openssl", "-m", "get", "-w", "-s", "60",
                                        corvane.url + "/KestProxyTest/SendDRLCNotify")
        watcher.wait_for_output('"seq":')
        blocks = corvane.observe("SendDefrostBlockNotify")
        corvane.order("SetDelayDefrost", enabled=1)
        mark = corvane.command_count()

        ordered = corvane.coap_client("post", "ControlDRLC", '{"level": 2, "duration": "00:00:10"}')
        ordered_at = time.time()
        self.assertEqual((ordered.output.strip(), ordered.errors), ('{"result":1}', ""))

        rowid, level, duration, start = corvane.event()
        self.assertEqual((rowid, level, duration), (0, 2, "00:00:10"))
        self.assertIn(start, [time.strftime("%FT%T", time.gmtime(ordered_at - ago))
                              for ago in range(5)])
        self.assertEqual(blocks.wait(lambda value: value["block"] == 1)["block"], 1)
        self.assertEqual(corvane.value(DEFROST_ENABLED), 0)
        self.assertEqual(corvane.get("GetDelayDefrost")["enabled"], 0)

        corvane.wait_for_command(LEVEL2, mark)
        self.assertEqual(corvane.value(LEVEL), 0, "the level is not confirmed yet")
        corvane.write(LEVEL_ECHO, 2)
        corvane.wait_for_value(LEVEL, 2)
        watcher.wait_for_output('{"level":2,')
        self.assertEqual(corvane.get("GetDRLCOverride")["level"], 2)

        wait_for("the table is empty", lambda: corvane.event() is None)
        self.assertGreaterEqual(time.time(), ordered_at + 9)
        corvane.wait_for_value(LEVEL, 0)
        self.assert_commands_in_order(corvane, [LEVEL2, NORMAL], mark)
        self.assertEqual(blocks.wait(lambda value: value["block"] == 0)["block"], 0)
        last = wait_for("the end is reported", lambda: [
            line for line in watcher.output.splitlines() if line.startswith('{"level":0,')][1:])
        self.assertIn('"recent":', last[0])
        corvane.write(LEVEL_ECHO, 0)
        answer = corvane.get("GetDRLCOverride")
        self.assertEqual((answer["level"], answer["override"]), (0, 0))
        self.assertEqual(corvane.get("GetDefrostBlock")["block"], 0)
        blocks.close()
        self.assert_stops(watcher, signal.SIGINT)

    def test_EventInTheFutureWaitsAndIsCancelledByLevelZero(self):
        corvane = self.corvane
        start = time.strftime("%T", time.gmtime(time.time() + 3600))
        mark = corvane.command_count()
        corvane.order("ControlDRLC", level=4, duration="00:10:00", start=start)
        self.assertEqual(corvane.event()[3][11:], start)
        self.assertEqual(corvane.get("GetDefrostBlock")["block"], 1)
        corvane.order("ControlDRLC", level=0)
        self.assertIsNone(corvane.event())
        self.assertEqual(corvane.get("GetDefrostBlock")["block"], 0)
        self.assert_commands_in_order(corvane, [NORMAL], mark)
        self.assertNotIn("SET_SMARTGRID_LEVEL4", corvane.commands(mark))

    def test_EventWithoutDurationLastsFourAndAHalfHours(self):
        self.corvane.order("ControlDRLC", level=1)
        self.assertEqual(self.corvane.event()[1:3], (1, "04:30:00"))
        self.corvane.order("ControlDRLC", level=0)

    def test_NewEventTakesThePlaceOfTheOldOne(self):
        corvane = self.corvane
        start = time.strftime("%T", time.gmtime(time.time() + 7200))
        corvane.order("ControlDRLC", level=1, duration="00:10:00", start=start)
        corvane.order("ControlDRLC", level=3, duration="00:20:00", start=start)
        self.assertEqual(corvane.event()[1:3], (3, "00:20:00"))
        corvane.order("ControlDRLC", level=0)

    def test_DroppingToLevelZeroByItselfEndsTheEvent(self):
        corvane = self.corvane
        mark = corvane.command_count()
        corvane.order("ControlDRLC", level=3, duration="00:20:00")
        corvane.wait_for_command(LEVEL3, mark)
        corvane.write(LEVEL_ECHO, 3)
        corvane.wait_for_value(LEVEL, 3)
        corvane.write(LEVEL_ECHO, 0)
        wait_for("the table is empty", lambda: corvane.event() is None)
        corvane.wait_for_value(LEVEL, 0)
        self.assert_commands_in_order(corvane, [LEVEL3, NORMAL], mark)


class RestartInEvent(SystemTest):
    """Two services are restarted in the middle of an event, side by side."""

    @classmethod
    def setUpClass(cls):
        cls.confirmed = Instance("confirmed", "127.0.0.1:5683")
        cls.unconfirmed = Instance("unconfirmed", "127.0.0.1:5684")
        cls.stored = {}
        both = (cls.confirmed, cls.unconfirmed)
        for corvane in both:
            corvane.connect_wifi()
            corvane.start_service()
        for corvane in both:
            corvane.wait_until_launched()
            corvane.settle()
            corvane.order("SetDelayDefrost", enabled=1)
            corvane.order("ControlDRLC", level=3, duration="00:30:00")
            corvane.wait_for_command(LEVEL3)
            cls.stored[corvane] = corvane.event()
        cls.confirmed.write(LEVEL_ECHO, 3)
        cls.confirmed.wait_for_value(LEVEL, 3)
        # The confirmed one is stopped, the other one is killed before the Micom has answered.
        cls.status = cls.confirmed.service.stop()
        cls.unconfirmed.service.kill()
        cls.marks = {corvane: corvane.command_count() for corvane in both}
        for corvane in both:
            corvane.start_service()
        for corvane in both:
            corvane.wait_until_launched()

    @classmethod
    def tearDownClass(cls):
        for corvane in (cls.confirmed, cls.unconfirmed):
            corvane.service.send(signal.SIGTERM)
        assert [cls.confirmed.service.wait(), cls.unconfirmed.service.wait()] == [0, 0]

    def test_StopInAnEventIsClean(self):
        self.assertEqual(self.status, 0)

    def test_EventIsStillThere(self):
        for corvane in (self.confirmed, self.unconfirmed):
            self.assertEqual(corvane.event(), self.stored[corvane])
            self.assertEqual(corvane.get("GetDefrostBlock")["block"], 1)
            self.assertEqual(corvane.get("GetDelayDefrost")["enabled"], 0)

    def test_ConfirmedLevelIsCommandedAtOnceAndNoOther(self):
        self.assert_commands_in_order(self.confirmed, [LEVEL3], self.marks[self.confirmed])
        self.assertNotIn(NORMAL, self.confirmed.commands(self.marks[self.confirmed]))

    def test_UnconfirmedLevelIsCommandedByTheRunningEvent(self):
        mark = self.marks[self.unconfirmed]
        self.unconfirmed.wait_for_command(LEVEL3, mark)
        self.assert_commands_in_order(self.unconfirmed, [NORMAL, LEVEL3], mark)
        self.assertEqual(self.unconfirmed.value(DEFROST_ACTIVE), 0)

    def test_ConfirmationAfterTheRestartIsReported(self):
        with self.unconfirmed.observe("SendDRLCNotify") as levels:
            self.unconfirmed.write(LEVEL_ECHO, 3)
            self.assertEqual(levels.wait(lambda value: value["level"] == 3)["level"], 3)
        self.unconfirmed.wait_for_value(LEVEL, 3)
        self.assertEqual(self.unconfirmed.request(coap.GET, "GetDRLCOverride").json["level"], 3)
