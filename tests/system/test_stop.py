"""The stop, at each stage of the service's life."""

import signal

from harness import COMMANDS, Instance, Metering, SystemTest, write_energy


class Stop(SystemTest):
    """Each test has a service of its own, stopped at another stage."""

    def setUp(self):
        self.corvane = Instance(self.id().rpartition("_")[2])

    def assert_threads_stopped(self):
        output = self.corvane.service.output
        for controller in ("DefrostDelay", "EnergyDR", "EnergyReport"):
            self.assertEqual(output.count(f"start {controller} Thread!!"),
                             output.count(f"stop {controller} Thread!!"), controller)

    def test_StopBeforeTheGateOpensIsClean(self):
        self.corvane.connect_wifi(0)
        self.corvane.start_service().wait_for_output("wifi not connected")
        self.assert_stops(self.corvane.service)
        self.assertNotIn("start DefrostDelay", self.corvane.service.output)

    def test_StopWithTheLaunchQueuedIsClean(self):
        self.corvane.connect_wifi()
        self.corvane.start_service().wait_for_output("Date & Time is alright")
        self.assert_stops(self.corvane.service)
        self.assert_threads_stopped()

    def test_StopWhileControllersAreBuiltIsClean(self):
        self.corvane.connect_wifi()
        self.corvane.start_service().wait_for_output("start DefrostDelay Thread!!")
        self.assert_stops(self.corvane.service)
        self.assert_threads_stopped()

    def test_StopWhileTheLastControllerIsBuiltIsClean(self):
        self.corvane.connect_wifi()
        self.corvane.start_service().wait_for_output("start EnergyDR Thread!!")
        self.assert_stops(self.corvane.service)
        self.assert_threads_stopped()

    def test_StopWhileRunningIsCleanAndInOrder(self):
        self.corvane.start()
        self.assert_stops(self.corvane.service)
        output = self.corvane.service.output
        steps = ["terminate", "stop DefrostDelay Thread!!", "stop EnergyDR Thread!!",
                 "stop EnergyReport Thread!!"]
        places = [output.index("] " + step) for step in steps]
        self.assertEqual(places, sorted(places))


class StopInTheMiddle(SystemTest):
    """Stops with something going on."""

    def setUp(self):
        self.corvane = Instance(self.id().rpartition("_")[2])
        self.corvane.start()

    def test_InterruptStopsDuringAnEventAndKeepsIt(self):
        self.corvane.order("ControlDRLC", level=2, duration="00:30:00")
        self.corvane.wait_for_command("SET_SMARTGRID_LEVEL2")
        stored = self.corvane.event()
        self.assert_stops(self.corvane.service, signal.SIGINT)
        self.assertEqual(self.corvane.event(), stored)
        self.assertEqual(self.corvane.value(COMMANDS), "SET_SMARTGRID_LEVEL2")

    def test_StopWithDeferredTasksAndRequestsArrivingIsClean(self):
        write_energy(self.corvane, 20000)
        for _ in range(20):
            self.corvane.write("memory/refrigerator/SmartGridDrLevel", 1)
        with self.corvane.peer() as peer:
            peer.request(2, "KestProxyTest/SetDelayDefrost", {"enabled": 1})
            self.corvane.service.send(signal.SIGTERM)
            self.corvane.write("memory/refrigerator/SmartGridOverrideState", 1)
            self.assertEqual(self.corvane.service.wait(), 0)


class StopBehindAPost(SystemTest):
    """Stops with the metering service in the way."""

    def setUp(self):
        self.corvane = Instance(self.id().rpartition("_")[2])
        self.corvane.start()

    def test_StopBehindAHangingMeteringPostIsBoundedAndFails(self):
        with Metering(hangs=True) as metering:
            write_energy(self.corvane, 100)
            metering.wait_for_requests(1)
            self.assert_stops(self.corvane.service, status=1)
            self.assertIn("stop: not done after 10000 ms", self.corvane.service.log)
            self.assertGreaterEqual(
                (self.corvane.service.time_of("stop: not done")
                 - self.corvane.service.time_of("> terminate")) % 86400, 9.9)

    def test_StopBehindARefusedMeteringPostIsClean(self):
        write_energy(self.corvane, 100)
        self.corvane.service.wait_for_output("REPORT] remainData")
        self.assert_stops(self.corvane.service)
