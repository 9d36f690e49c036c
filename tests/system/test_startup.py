"""The start: what waits for what, and what can be asked meanwhile."""

import signal

import coap
from harness import LAUNCHED, NORMAL, Instance, SystemTest

DECLARED = [
    "GetDRLCOverride", "ControlOverride", "ControlDRLC", "GetDefrostReservations",
    "CreateDefrostReservations", "SetDefrostReservations", "DelDefrostReservations",
    "GetDelayDefrost", "SetDelayDefrost", "GetDefrostBlock", "GetEnergyConsumption",
    "SendOverrideNotify", "SendDRLCNotify", "SendDelayDefrostNotify", "SendDefrostBlockNotify",
    "SendDefrostReservationsNotify",
]


class StartUp(SystemTest):
    """One start, with Wi-Fi that comes late."""

    @classmethod
    def setUpClass(cls):
        cls.corvane = Instance()
        cls.corvane.connect_wifi(0)
        cls.corvane.start_service()
        cls.corvane.service.wait_for_output("wifi not connected", count=2)
        cls.before_wifi = cls.corvane.service.output
        with cls.corvane.peer() as peer:
            cls.links = peer.request(coap.GET, ".well-known/core").text
        cls.early = cls.corvane.request(coap.GET, "GetDelayDefrost")
        cls.early_notification = cls.corvane.request(coap.GET, "SendDRLCNotify")
        cls.corvane.connect_wifi(1)
        cls.corvane.wait_until_launched()

    @classmethod
    def tearDownClass(cls):
        assert cls.corvane.service.stop() == 0

    def test_GateStaysClosedUntilWifiIsConnected(self):
        self.assertNotIn("start DefrostDelay", self.before_wifi)
        self.assertNotIn("wifi connetion success", self.before_wifi)
        self.assertIn("wifi connetion success", self.corvane.service.output)

    def test_StepsComeInTheirOrder(self):
        output = self.corvane.service.output
        steps = ["main", "create", "EnergyManager::Initialize()", "register MainMicom",
                 "EnergyManager::KestAddProxy()", "Start Intro", "wifi not connected",
                 "wifi connetion success", "Date & Time is alright", *LAUNCHED]
        places = [output.index("] " + step) for step in steps]
        self.assertEqual(places, sorted(places))
        self.assertEqual(output.count("EnergyManager::KestAddProxy()"), 15)

    def test_GateAsksForWifiOnceASecond(self):
        times = [line[17:23] for line in self.corvane.service.log.splitlines()
                 if "wifi not connected" in line]
        pauses = [(float(b) - float(a)) % 60 for a, b in zip(times, times[1:])]
        self.assertGreaterEqual(min(pauses), 1.0)

    def test_EachControllerComesASecondAfterTheOneBefore(self):
        steps = ["wifi connetion success", "Date & Time is alright", *LAUNCHED]
        times = [self.corvane.service.time_of(step) for step in steps]
        for before, after in zip(times, times[1:]):
            self.assertGreaterEqual((after - before) % 86400, 1.0)

    def test_EveryLineIsWrittenToBothLogs(self):
        self.assertRegex(self.corvane.service.output, r"(?m)^\[main:30\] main$")
        self.assertRegex(self.corvane.service.log, r"(?m) I corvane: main.cpp: main\(30\) > main$")

    def test_CommandsArePublishedBeforeTheGateOpens(self):
        for name in DECLARED:
            kind = 'rt="corvane.notify";obs' if name.startswith("Send") else 'rt="corvane.request"'
            self.assertIn(f"</KestProxyTest/{name}>;{kind}", self.links)
        self.assertEqual(self.links.count("</"), len(DECLARED))

    def test_RequestBeforeItsControllerIsToldToComeAgain(self):
        self.assertEqual(self.early.status, 503)
        self.assertEqual(self.early.number(coap.MAX_AGE), 5)

    def test_NotificationBeforeTheFirstOneIsNull(self):
        self.assertEqual(self.early_notification.status, 205)
        value = self.early_notification.json
        self.assertEqual((value["level"], value["seq"], value["recent"]), (None, 0, []))

    def test_ApplianceIsToldTheStoredState(self):
        self.assert_commands_in_order(self.corvane, ["SET_SMARTGRID_DISABLE", NORMAL])

    def test_SeasonsAreStoredAndNothingIsOrdered(self):
        self.assertEqual(self.corvane.reservation_ids(), [0, 1])
        self.assertIsNone(self.corvane.event())
        self.assertEqual(self.corvane.get("GetDefrostBlock"), {"result": 1, "block": 0})
        self.assertEqual(self.corvane.get("GetDelayDefrost"), {"result": 1, "enabled": 0})

    def test_ControlSignalIsLoggedAndChangesNothing(self):
        service = self.corvane.service
        self.corvane.settle()
        before = self.corvane.snapshot()
        service.send(signal.SIGUSR1)
        service.wait_for_output("app_control")
        self.assertEqual(self.corvane.snapshot(), before)
