"""corvanectl against the real service."""

import json
import signal
import time

from harness import (
    COMMANDS, LEVEL, LEVEL_ECHO, OVERRIDE_ECHO, Instance, ServiceTest, SystemTest, wait_for,
)


class Client(ServiceTest):
    """Every command against one running service."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.corvane.settle()

    def setUp(self):
        self.corvane.order("ControlDRLC", level=0)

    def done(self, *arguments):
        done = self.corvane.ctl(*arguments)
        self.assertEqual((done.status, done.errors), (0, ""), done.whole)
        return done

    def refused(self, *arguments):
        done = self.corvane.ctl(*arguments)
        self.assertEqual((done.status, done.output), (1, ""), done.whole)
        self.assertRegex(done.errors, r"\Acorvanectl: [^\n]+\n\Z")
        return done.errors

    def test_StatusShowsTheWholeState(self):
        self.corvane.order("ControlDRLC", level=2, duration="00:30:00")
        status = self.done("--json", "status").json
        self.assertEqual((status["block"], status["event"]["stored"]), (1, True))
        self.assertEqual((status["event"]["level"], status["event"]["state"]), (2, "running"))
        self.assertLessEqual(status["event"]["secondsLeft"], 1800)
        self.assertEqual(status["defrost"]["enabled"], 0)
        self.assertEqual([each["id"] for each in status["defrost"]["reservations"]], ["0", "1"])
        self.assertEqual(sum(each["current"] for each in status["defrost"]["reservations"]), 1)
        self.assertEqual(status["consumption"], {"cumulative": "0.00", "monthly": "0.00"})
        screen = self.done("status").output
        for words in ("level 2, running", "Summer Season", "Winter Season", "0.00"):
            self.assertIn(words, screen)
        self.assertLessEqual(max(len(line) for line in screen.splitlines()), 120)

    def test_EventIsOrderedAndCancelled(self):
        start = time.strftime("%T", time.gmtime(time.time() + 3600))
        text = self.done("dr", "start", "--level", "3", "--duration", "01:30:00", "--start", start)
        self.assertIn("Ordered level 3", text.output)
        self.assertEqual(self.corvane.event()[1:3], (3, "01:30:00"))
        self.assertEqual(self.corvane.event()[3][11:], start)
        ordered = self.done("dr", "start", "--level", "4", "--json").json
        self.assertEqual((ordered["level"], ordered["state"]), (4, "running"))
        self.assertEqual(self.corvane.event()[1:3], (4, "04:30:00"))
        self.assertEqual(self.done("--json", "dr", "cancel").json, {"cancelled": True})
        self.assertIsNone(self.corvane.event())

    def test_OverrideIsRequested(self):
        mark = self.corvane.command_count()
        self.assertEqual(self.done("--json", "override", "on").json, {"requested": 1})
        self.assertIn("requested", self.done("override", "off").output)
        self.assert_commands_in_order(
            self.corvane, ["SET_SMARTGRID_OVERRIDE_FOREVER", "SET_SMARTGRID_OVERRIDE_OFF"], mark)

    def test_DefrostIsSwitchedUnlessAnEventIsStored(self):
        self.assertEqual(self.done("--json", "defrost", "on").json, {"enabled": 1})
        self.assertEqual(self.corvane.get("GetDelayDefrost")["enabled"], 1)
        self.assertIn("off", self.done("defrost", "off").output)
        self.corvane.order("ControlDRLC", level=1, duration="00:30:00")
        self.assertIn("event is stored", self.refused("defrost", "on"))
        self.assertEqual(self.corvane.get("GetDelayDefrost")["enabled"], 0)

    def test_ReservationsAreAddedListedAndRemoved(self):
        add = ("defrost", "add", "--start-date", "06-01", "--end-date", "08-31", "--at", "17:00",
               "--for", "02:00:00")
        added = self.done("--json", *add, "--description", "Evening peak").json
        self.assertEqual(added, {"id": "2"})
        self.assertIn("3", self.done(*add).output)
        self.assertIn("defrost remove", self.refused(*add))
        self.assertEqual(self.corvane.rows("defrost_usage_table")[2],
                         (2, "Evening peak", "0000-06-01T17:00:00", "0000-08-31T00:00:00",
                          "02:00:00"))
        self.assertIn("Evening peak", self.done("defrost", "list").output)
        listed = self.done("--json", "defrost", "list").json["reservations"]
        self.assertEqual([each["id"] for each in listed], ["0", "1", "2", "3"])
        for number in ("2", "3"):
            self.done("defrost", "remove", number)
        self.assertEqual(self.corvane.reservation_ids(), [0, 1])
        self.assertIn("there is no reservation 2", self.refused("defrost", "remove", "2"))

    def test_EnergyIsShown(self):
        self.assertEqual(self.done("--json", "energy").json,
                         {"cumulative": "0.00", "monthly": "0.00"})
        self.assertIn("last month", self.done("energy").output)

    def test_WatchShowsEachNotificationUntilInterrupted(self):
        text = self.corvane.start_program("corvanectl", "watch")
        lines = self.corvane.start_program("corvanectl", "--json", "watch")
        text.wait_for_output("watching")
        lines.wait_for_output('"begun"')
        # The watch begins with its first answer; the others are there when these are told.
        self.corvane.write(OVERRIDE_ECHO, 1)
        wait_for("the override is told", lambda: "override" in text.output and
                 '"SendOverrideNotify"' in lines.output)
        self.corvane.order("SetDelayDefrost", enabled=1)
        self.corvane.order("SetDelayDefrost", enabled=0)
        text.wait_for_output("defrost delay is on")
        lines.wait_for_output('"enabled":true')
        self.corvane.write(OVERRIDE_ECHO, 0)
        for watch in (text, lines):
            self.assert_stops(watch, signal.SIGINT)
        self.assertIn("on, events are not followed", text.output)
        told = [json.loads(line) for line in lines.output.splitlines()]
        switches = [each["enabled"] for each in told
                    if each.get("resource") == "SendDelayDefrostNotify"]
        self.assertEqual(switches[-2:], [True, False])

    def test_SettingsAreReadWrittenAndListed(self):
        self.done("settings", "set", "memory/example/number", "7")
        self.done("settings", "set", "--text", "memory/example/text", "7")
        self.assertEqual(self.done("settings", "get", "memory/example/number").output, "7\n")
        self.assertEqual(self.done("--json", "settings", "get", "memory/example/text").json,
                         {"key": "memory/example/text", "type": "text", "value": "7"})
        self.assertEqual(self.done("settings", "get", LEVEL).output, "0\n")
        listed = {each["key"]: each["value"]
                  for each in self.done("--json", "settings", "list").json["settings"]}
        self.assertEqual((listed["memory/example/number"], listed[LEVEL]), (7, 0))
        self.assertIn(COMMANDS, self.done("settings", "list").output)
        self.assertIn("never been written", self.refused("settings", "get", "db/none"))
        self.assertIn("refused", self.refused("settings", "set", "db/../x", "1"))

    def test_SettingsWatchShowsEveryCommandInOrder(self):
        watch = self.corvane.start_program("corvanectl", "settings", "watch", COMMANDS, LEVEL_ECHO)
        # A key of its own tells that the watch has begun.
        wait_for("the watch has begun", lambda: self.corvane.ctl(
            "settings", "set", LEVEL_ECHO, "0").status == 0 and LEVEL_ECHO in watch.output)
        self.corvane.order("ControlOverride", override=1)
        self.corvane.order("ControlOverride", override=0)
        watch.wait_for_output("SET_SMARTGRID_OVERRIDE_OFF")
        self.assert_stops(watch, signal.SIGINT)
        self.assertLess(watch.output.index("SET_SMARTGRID_OVERRIDE_FOREVER"),
                        watch.output.index("SET_SMARTGRID_OVERRIDE_OFF"))


class ClientAlone(SystemTest):
    """corvanectl without a service, and used wrongly."""

    @classmethod
    def setUpClass(cls):
        cls.corvane = Instance()

    def test_UnreachableServiceIsOneLineAndStatusOne(self):
        for command in (["energy"], ["dr", "cancel"], ["defrost", "list"], ["watch"]):
            done = self.corvane.ctl("--timeout", "0.3", *command)
            self.assertEqual((done.status, done.output), (1, ""), done.whole)
            self.assertRegex(done.errors, r"\Acorvanectl: [^\n]*127\.0\.0\.1[^\n]*\n\Z")

    def test_WrongUsageIsOneLineAndStatusTwo(self):
        for arguments in ([], ["jump"], ["dr"], ["dr", "start"], ["dr", "start", "--level", "5"],
                          ["dr", "start", "--level", "2", "--duration", "1h"],
                          ["override", "maybe"], ["defrost", "remove", "0"], ["--timeout", "x"],
                          ["--url", "http://127.0.0.1", "energy"],
                          ["--url", "coaps://127.0.0.1", "energy"]):
            with self.subTest(arguments=arguments):
                done = self.corvane.ctl(*arguments)
                self.assertEqual((done.status, done.output), (2, ""), done.whole)
                self.assertRegex(done.errors, r"\Acorvanectl: [^\n]+--help\n\Z")

    def test_HelpAndVersionAreNoErrors(self):
        for arguments in (["--help"], ["dr", "start", "--help"], ["--version"]):
            done = self.corvane.ctl(*arguments)
            self.assertEqual((done.status, done.errors), (0, ""))
            self.assertTrue(done.output)
