"""Many watchers, and datagrams that are none."""

import os
import random
import selectors
import time

import coap
from harness import DEADLINE_SEC, ServiceTest

WATCHERS = 1000
DATAGRAMS = 100_000
DATAGRAMS_BETWEEN_REQUESTS = 50  # so few that they fit the service's socket
LOGGED_BY_A_REQUEST = 200
MAX_LOGGED = 40_000
MAX_GROWTH_KIB = 32 * 1024
SEED = 20160501


class Watchers(ServiceTest):
    """A thousand peers watch one notification."""

    def test_EveryWatcherHearsTheChange(self):
        watchers = [self.corvane.observe("SendDelayDefrostNotify") for _ in range(WATCHERS)]
        seq = watchers[-1].last.json["seq"] + 1
        self.corvane.order("SetDelayDefrost", enabled=1)
        waiting = selectors.DefaultSelector()
        for watcher in watchers:
            waiting.register(watcher.socket, selectors.EVENT_READ, watcher)
        deadline = time.monotonic() + DEADLINE_SEC
        while waiting.get_map() and time.monotonic() < deadline:
            for key, _ in waiting.select(1):
                watcher = key.data
                message = watcher.receive(deadline)
                if message is None or message.code == 0:
                    continue
                watcher.acknowledge(message)
                if message.json["seq"] >= seq:
                    self.assertEqual((message.json["seq"], message.json["enabled"]), (seq, True))
                    waiting.unregister(watcher.socket)
        self.assertEqual(len(waiting.get_map()), 0, "watchers that have heard nothing")
        waiting.close()
        for watcher in watchers:
            watcher.close()
        self.assertEqual(self.corvane.get("GetDelayDefrost")["enabled"], 1)


class Flood(ServiceTest):
    """Malformed datagrams in masses."""

    # Where the address sanitizer is built in, it would keep what is freed.
    environment = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=4"}

    def setUp(self):
        self.corvane.settle()

    def malformed(self):
        """Datagrams that are broken in one way or another, and orders that must be refused."""
        chance = random.Random(SEED)
        order = [(coap.PATH, b"KestProxyTest"), (coap.PATH, b"ControlDRLC")]

        def cut(data):
            return data[: chance.randrange(len(data))]

        def turned(data):
            # Never the last byte: without it the body stays broken whatever else is hit.
            data = bytearray(data)
            for _ in range(chance.randint(1, 4)):
                data[chance.randrange(len(data) - 1)] ^= 1 << chance.randrange(8)
            return bytes(data)

        kinds = [
            lambda: chance.randbytes(chance.randint(0, 64)),
            lambda: bytes([chance.randrange(256) & 0x3F | chance.choice([0, 0x80, 0xC0])])
            + chance.randbytes(chance.randint(3, 40)),
            lambda: bytes([0x40 | chance.randint(9, 15)]) + chance.randbytes(20),
            lambda: cut(coap.encode(coap.CON, coap.POST, chance.randrange(65536), b"tokn", order)),
            lambda: coap.encode(coap.NON, coap.POST, chance.randrange(65536), b"t", order,
                                b'{"level": "' + chance.randbytes(30)),
            lambda: turned(coap.encode(coap.NON, coap.POST, chance.randrange(65536), b"tokn",
                                       order, b'{"level": 3, "start": [')),
            lambda: coap.encode(coap.CON, chance.randint(8, 31), chance.randrange(65536), b"tk",
                                order, chance.randbytes(10)),
            lambda: coap.encode(coap.ACK, chance.randrange(256), chance.randrange(65536)),
            lambda: coap.encode(coap.NON, coap.POST, chance.randrange(65536), b"",
                                [(coap.PATH, chance.randbytes(300))]),
        ]
        for number in range(DATAGRAMS):
            yield kinds[number % len(kinds)]()

    def test_ServiceAnswersChangesNothingAndDoesNotFillItsLog(self):
        before = self.corvane.snapshot()
        mark = self.corvane.command_count()
        log_before, memory_before = self.corvane.service.log_bytes, self.resident_kib()
        requests = 0
        peers = [self.corvane.peer() for _ in range(20)]
        for number, datagram in enumerate(self.malformed()):
            peers[number % len(peers)].socket.send(datagram)
            if number % DATAGRAMS_BETWEEN_REQUESTS == 0:
                self.assertEqual(self.corvane.get("GetDefrostBlock")["block"], 0)
                requests += 1
        for peer in peers:
            peer.close()
        self.assertEqual(self.corvane.snapshot(), before)
        self.assertLess(self.corvane.service.log_bytes - log_before,
                        MAX_LOGGED + requests * LOGGED_BY_A_REQUEST)
        self.assertLess(self.resident_kib() - memory_before, MAX_GROWTH_KIB)
        self.assertLessEqual(set(self.corvane.commands(mark)),
                             {"SET_SMARTGRID_LEVEL_NORMAL", "SET_SMARTGRID_DISABLE"})

    def resident_kib(self):
        with open(f"/proc/{self.corvane.service.pid}/status", encoding="ascii") as file:
            return next(int(line.split()[1]) for line in file if line.startswith("VmRSS"))
