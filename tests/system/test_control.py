"""Reservations, defrost delay and the override: what the remote side and the appliance order."""

import time

import coap
from harness import (
    DEFROST_ACTIVE, DEFROST_ENABLED, DISPLAY_OVERRIDE, OVERRIDE, OVERRIDE_ECHO, ServiceTest,
)

EVENING = {"startTime": "0000-06-01T17:00:00", "endTime": "0000-08-31T00:00:00",
           "period": "02:00:00", "description": "Evening peak"}
MORNING = {"startTime": "0000-12-01T07:00:00", "endTime": "0000-02-28T00:00:00",
           "period": "01:30:00"}
FOREVER, OFF = "SET_SMARTGRID_OVERRIDE_FOREVER", "SET_SMARTGRID_OVERRIDE_OFF"
HOLD, RELEASE = "SET_SMARTGRID_ENABLE", "SET_SMARTGRID_DISABLE"


class Reservations(ServiceTest):
    """The four places for reservations, two of them the seasons'."""

    def setUp(self):
        self.assertEqual(self.corvane.reservation_ids(), [0, 1])

    def tearDown(self):
        for number in ("2", "3"):
            self.corvane.order("DelDefrostReservations", id=number)

    def create(self, **members):
        return self.corvane.request(coap.POST, "CreateDefrostReservations", members)

    def stored(self, number):
        return [row[1:] for row in self.corvane.rows("defrost_usage_table") if row[0] == number][0]

    def test_TwoAreTakenAndTheThirdIsRefusedUntilOneIsDeleted(self):
        first, second, third = (self.create(**EVENING), self.create(**MORNING),
                                self.create(**MORNING))
        self.assertEqual((first.status, first.json), (204, {"result": 1, "id": "2"}))
        self.assertEqual((second.status, second.json), (204, {"result": 1, "id": "3"}))
        self.assertEqual((third.status, third.json), (409, {"result": 0, "error": 507}))
        self.assertEqual(self.corvane.reservation_ids(), [0, 1, 2, 3])
        self.assertEqual(self.stored(2), ("Evening peak", EVENING["startTime"],
                                          EVENING["endTime"], EVENING["period"]))
        self.assertEqual(self.stored(3)[0], "")

        self.assertEqual(self.corvane.order("DelDefrostReservations", id="2"), {"result": 1})
        self.assertEqual(self.corvane.reservation_ids(), [0, 1, 3])
        self.assertEqual(self.create(**EVENING).json, {"result": 1, "id": "2"})

    def test_ListComesInOrderOfIdsWithEveryMember(self):
        self.create(**EVENING)
        reservations = self.corvane.get("GetDefrostReservations")["reservations"]
        self.assertEqual([each["id"] for each in reservations], ["0", "1", "2"])
        self.assertEqual(reservations[0], {
            "id": "0", "description": "Summer Season", "startTime": "0000-05-01T15:00:00",
            "endTime": "0000-10-31T00:00:00", "period": "04:00:00"})
        self.assertEqual(reservations[2], {"id": "2", **EVENING})

    def test_SetAddsAReservation(self):
        self.create(**EVENING)
        self.assertEqual(self.corvane.order("SetDefrostReservations", **MORNING), {"result": 1})
        self.assertEqual(self.corvane.reservation_ids(), [0, 1, 2, 3])
        self.assertEqual(self.stored(2)[0], "Evening peak")
        self.assertEqual(self.stored(3)[1:],
                         (MORNING["startTime"], MORNING["endTime"], MORNING["period"]))
        answer = self.corvane.request(coap.POST, "SetDefrostReservations", MORNING)
        self.assertEqual((answer.status, answer.json), (409, {"result": 0}))

    def test_CreationAndDeletionAreNotified(self):
        with self.corvane.observe("SendDefrostReservationsNotify") as changes:
            seq = changes.last.json["seq"]
            self.create(**EVENING)
            created = changes.wait(lambda value: value["seq"] == seq + 1)
            self.assertEqual((created["action"], created["entries"]), (0, [{"id": "2", **EVENING}]))
            self.corvane.order("DelDefrostReservations", id="2")
            deleted = changes.wait(lambda value: value["seq"] == seq + 2)
            self.assertEqual((deleted["action"], deleted["entries"][0]["id"]), (2, "2"))
            self.assertEqual([each["seq"] for each in deleted["recent"]][-2:], [seq + 1, seq + 2])

    def test_DeletingOneThatIsNotThereIsHandled(self):
        self.assertEqual(self.corvane.order("DelDefrostReservations", id="3"), {"result": 1})


class Defrost(ServiceTest):
    """Defrost delay, and what a stored event makes of it."""

    def setUp(self):
        self.corvane.order("ControlDRLC", level=0)
        self.corvane.order("SetDelayDefrost", enabled=0)

    def test_SwitchingIsKeptAndNotified(self):
        with self.corvane.observe("SendDelayDefrostNotify") as switches:
            self.corvane.order("SetDelayDefrost", enabled=1)
            self.assertEqual(self.corvane.value(DEFROST_ENABLED), 1)
            self.assertTrue(switches.wait(lambda value: value["enabled"] is True))
            self.assertEqual(self.corvane.get("GetDelayDefrost"), {"result": 1, "enabled": 1})
            self.corvane.order("SetDelayDefrost", enabled=0)
            self.assertTrue(switches.wait(lambda value: value["enabled"] is False))
        self.assertEqual(self.corvane.value(DEFROST_ENABLED), 0)

    def test_SwitchingOnWhileAnEventIsStoredIsHandledButChangesNothing(self):
        start = time.strftime("%T", time.gmtime(time.time() + 3600))
        self.corvane.order("ControlDRLC", level=2, duration="00:10:00", start=start)
        with self.corvane.observe("SendDelayDefrostNotify") as switches:
            seq = switches.last.json["seq"]
            self.assertEqual(self.corvane.order("SetDelayDefrost", enabled=1), {"result": 1})
            refusal = switches.wait(lambda value: value["seq"] > seq)
            self.assertEqual((refusal["seq"], refusal["enabled"]), (seq + 1, False))
        self.assertEqual(self.corvane.value(DEFROST_ENABLED), 0)
        self.assertEqual(self.corvane.get("GetDelayDefrost")["enabled"], 0)
        self.corvane.order("ControlDRLC", level=0)
        self.corvane.order("SetDelayDefrost", enabled=1)
        self.assertEqual(self.corvane.get("GetDelayDefrost")["enabled"], 1)

    def test_WindowOfTheWholeDayHoldsDefrostWhileEnabled(self):
        mark = self.corvane.command_count()
        self.corvane.order("CreateDefrostReservations", startTime="0000-01-01T00:00:00",
                           endTime="0000-12-31T00:00:00", period="23:59:59", description="Always")
        self.corvane.order("SetDelayDefrost", enabled=1)
        self.corvane.wait_for_command(HOLD, mark)
        self.corvane.wait_for_value(DEFROST_ACTIVE, 1)
        self.corvane.order("SetDelayDefrost", enabled=0)
        self.corvane.wait_for_value(DEFROST_ACTIVE, 0)
        self.assert_commands_in_order(self.corvane, [HOLD, RELEASE], mark)
        self.corvane.order("DelDefrostReservations", id="2")


class Override(ServiceTest):
    """The override, from all three sides that can ask for it."""

    def setUp(self):
        self.corvane.write(OVERRIDE_ECHO, 0)
        self.corvane.wait_for_value(OVERRIDE, 0)
        self.mark = self.corvane.command_count()

    def test_RemoteOrderIsCommandedAndHoldsWhenTheMicomReportsIt(self):
        with self.corvane.observe("SendOverrideNotify") as overrides:
            self.corvane.order("ControlOverride", override=1)
            self.corvane.wait_for_command(FOREVER, self.mark)
            self.assertEqual(self.corvane.value(OVERRIDE), 0, "it is not reported yet")
            self.corvane.write(OVERRIDE_ECHO, 1)
            self.corvane.wait_for_value(OVERRIDE, 1)
            self.assertTrue(overrides.wait(lambda value: value["override"] == 1))
            self.corvane.order("ControlOverride", override=0)
            self.assert_commands_in_order(self.corvane, [FOREVER, OFF], self.mark)
            self.corvane.write(OVERRIDE_ECHO, 0)
            self.assertTrue(overrides.wait(lambda value: value["override"] == 0))
        self.assertEqual(self.corvane.get("GetDRLCOverride")["override"], 0)

    def test_DisplaysSwitchIsCommanded(self):
        self.corvane.write(DISPLAY_OVERRIDE, 1)
        self.corvane.wait_for_command(FOREVER, self.mark)
        self.corvane.write(DISPLAY_OVERRIDE, 0)
        self.corvane.wait_for_command(OFF, self.mark)
        self.assert_commands_in_order(self.corvane, [FOREVER, OFF], self.mark)

    def test_OtherValueOfTheDisplayIsCommandedAsNothing(self):
        self.corvane.write(DISPLAY_OVERRIDE, 2)
        self.corvane.service.wait_for_output("Callback Set DR_Override From LCD : 2")
        self.corvane.write(DISPLAY_OVERRIDE, 0)
        self.corvane.wait_for_command(OFF, self.mark)
        commands = self.corvane.commands(self.mark)
        self.assertEqual([each for each in commands if each in (FOREVER, OFF)], [OFF])

    def test_MicomsOwnSwitchIsKeptAndNotifiedOnce(self):
        with self.corvane.observe("SendOverrideNotify") as overrides:
            seq = overrides.last.json["seq"]
            self.corvane.write(OVERRIDE_ECHO, 1)
            self.corvane.write(OVERRIDE_ECHO, 1)
            self.corvane.write(OVERRIDE_ECHO, 0)
            last = overrides.wait(lambda value: value["override"] == 0 and value["seq"] > seq)
            self.assertEqual(last["seq"], seq + 2)

    def test_RemoteOrderIsOneCommandEach(self):
        for value, command in ((1, FOREVER), (1, FOREVER), (0, OFF)):
            mark = self.corvane.command_count()
            self.corvane.order("ControlOverride", override=value)
            commands = self.corvane.commands(mark)
            self.assertEqual([each for each in commands if each in (FOREVER, OFF)], [command])
