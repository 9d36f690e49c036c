"""The service is safe to kill: what it has acknowledged is there afterwards."""

import random
import signal
import threading

import coap
from harness import DEFROST_ENABLED, Instance, SystemTest

WINDOW = {"startTime": "0000-06-01T17:00:00", "endTime": "0000-08-31T00:00:00"}


class Kill(SystemTest):
    """Several services are killed under orders, side by side, and started again."""

    SERVICES = 4

    @classmethod
    def setUpClass(cls):
        cls.services = [
            Instance(f"killed {number}", f"127.0.0.1:{5683 + number}")
            for number in range(cls.SERVICES)
        ]
        for corvane in cls.services:
            corvane.connect_wifi()
            corvane.start_service()
        for corvane in cls.services:
            corvane.wait_until_launched()

    @classmethod
    def tearDownClass(cls):
        for corvane in cls.services:
            corvane.service.send(signal.SIGTERM)
        assert [corvane.service.wait() for corvane in cls.services] == [0] * cls.SERVICES

    def order_until_killed(self, corvane, orders):
        """Orders in turn until the service is killed at an instant of its own choice.

        Gives what has been acknowledged, and the one order whose fate is open.
        """
        killer = threading.Timer(random.uniform(0.05, 0.5), corvane.service.kill)
        killer.start()
        acknowledged = None
        with coap.Peer(corvane.address, 1) as peer:
            while True:
                order = next(orders)
                try:
                    answer = peer.request(coap.POST, "KestProxyTest/" + order[0], order[1])
                except TimeoutError:
                    break
                self.assertEqual(answer.status, 204, f"{order}: {answer}")
                acknowledged = order
        killer.join()
        self.assertIsNotNone(acknowledged)
        return acknowledged, order

    def test_EveryAcknowledgedOrderIsThereAfterAKill(self):
        def events():
            while True:
                for second in range(60):
                    yield "ControlDRLC", {
                        "level": 1 + second % 4, "duration": f"01:00:{second:02}",
                        "start": f"{second % 24:02}:00:00",
                    }

        def reservations():
            while True:
                for second in range(1, 60):
                    yield "CreateDefrostReservations", {**WINDOW, "period": f"01:00:{second:02}"}
                    yield "DelDefrostReservations", {"id": "2"}

        def switches():
            while True:
                yield "SetDelayDefrost", {"enabled": 1}
                yield "SetDelayDefrost", {"enabled": 0}

        outcomes = [
            self.order_until_killed(corvane, orders)
            for corvane, orders in zip(self.services, (events(), reservations(), switches()))
        ]
        only_one = next(events())
        self.services[3].order(only_one[0], **only_one[1])
        self.services[3].service.kill()
        outcomes.append((only_one, only_one))
        for corvane in self.services:
            corvane.start_service()
        for corvane in self.services:
            corvane.wait_until_launched()

        def is_kept(corvane, order):
            command, members = order
            if command == "ControlDRLC":
                event = corvane.event()
                return event is not None and event[1:3] == (members["level"], members["duration"])
            if command == "SetDelayDefrost":
                return corvane.value(DEFROST_ENABLED) == members["enabled"]
            rows = {row[0]: row[4] for row in corvane.rows("defrost_usage_table")}
            if command == "DelDefrostReservations":
                return 2 not in rows
            return rows.get(2) == members["period"]

        for corvane, (acknowledged, open_order) in zip(self.services, outcomes):
            # A second event first removes the stored one: killed in between, none is there.
            is_between = open_order != acknowledged and open_order[0] == "ControlDRLC" \
                and corvane.event() is None
            self.assertTrue(
                is_kept(corvane, acknowledged) or is_kept(corvane, open_order) or is_between,
                f"{corvane.name}: {acknowledged}, then {open_order}")
            self.assertEqual(corvane.service.lines("damaged"), [])
        for corvane in self.services[:1] + self.services[3:]:
            self.assertEqual(corvane.get("GetDefrostBlock")["block"],
                             1 if corvane.event() else 0)
