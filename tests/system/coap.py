"""CoAP over UDP, as much of it as a test needs: one request and its answer, and observation.

A message is composed and taken apart by hand here, so that a test can also send what no CoAP
library would.
"""

import json
import os
import socket
import struct
import time

CON, NON, ACK, RST = range(4)
GET, POST, PUT, DELETE = range(1, 5)
JSON, CBOR = 50, 60

OBSERVE, PATH, FORMAT, MAX_AGE, ACCEPT, BLOCK1 = 6, 11, 12, 14, 17, 27
RETRY_SEC = 2


def _extended(number):
    if number < 13:
        return number, b""
    if number < 269:
        return 13, struct.pack("!B", number - 13)
    return 14, struct.pack("!H", number - 269)


def unsigned(number):
    """An option's value: the number in as few bytes as it takes."""
    return number.to_bytes((number.bit_length() + 7) // 8, "big")


def encode(kind, code, mid, token=b"", options=(), payload=b""):
    """The datagram; options are pairs of number and bytes, in ascending order."""
    data = struct.pack("!BBH", 0x40 | kind << 4 | len(token), code, mid) + token
    before = 0
    for number, value in options:
        delta, more_delta = _extended(number - before)
        size, more_size = _extended(len(value))
        data += struct.pack("!B", delta << 4 | size) + more_delta + more_size + value
        before = number
    return data + (b"\xff" + payload if payload else b"")


class Message:
    """A datagram taken apart. Malformed ones raise ValueError."""

    def __init__(self, data):
        try:
            first, self.code, self.mid = struct.unpack("!BBH", data[:4])
            self.kind = first >> 4 & 3
            token_size = first & 15
            self.token = data[4 : 4 + token_size]
            self.options = {}
            at, number = 4 + token_size, 0
            while at < len(data) and data[at] != 0xFF:
                head, at = data[at], at + 1
                delta, at = self._length(data, at, head >> 4)
                size, at = self._length(data, at, head & 15)
                number += delta
                self.options.setdefault(number, []).append(data[at : at + size])
                at += size
            self.payload = data[at + 1 :]
        except (struct.error, IndexError) as error:
            raise ValueError(f"no CoAP message: {data.hex()}") from error

    @staticmethod
    def _length(data, at, nibble):
        if nibble == 13:
            return data[at] + 13, at + 1
        if nibble == 14:
            return struct.unpack("!H", data[at : at + 2])[0] + 269, at + 2
        return nibble, at

    @property
    def status(self):
        """The code as it is spoken of: 204 for 2.04."""
        return (self.code >> 5) * 100 + (self.code & 31)

    @property
    def text(self):
        return self.payload.decode()

    @property
    def json(self):
        return json.loads(self.payload)

    def number(self, option):
        return int.from_bytes(self.options[option][0], "big")

    def __repr__(self):
        return f"{self.status // 100}.{self.status % 100:02} {self.payload!r}"


class Peer:
    """One socket towards the service, with message ids and tokens of its own."""

    def __init__(self, address, timeout_sec):
        self.timeout_sec = timeout_sec
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(address)
        self.mid = int.from_bytes(os.urandom(2), "big")

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def next_mid(self):
        self.mid = self.mid + 1 & 0xFFFF
        return self.mid

    def receive(self, deadline):
        """The next message before the deadline (time.monotonic()), or None."""
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            return None
        self.socket.settimeout(remaining)
        try:
            return Message(self.socket.recv(65536))
        except (socket.timeout, ConnectionRefusedError):
            return None

    def acknowledge(self, message):
        if message.kind == CON:
            self.socket.send(encode(ACK, 0, message.mid))

    def exchange(self, data, token):
        """Sends the datagram, again when nothing comes, and gives the answer with its token."""
        deadline = time.monotonic() + self.timeout_sec
        while time.monotonic() < deadline:
            self.socket.send(data)
            retry_at = min(deadline, time.monotonic() + RETRY_SEC)
            while time.monotonic() < retry_at:
                answer = self.receive(retry_at)
                if answer is None:
                    continue
                self.acknowledge(answer)
                if answer.token == token and answer.code != 0:
                    return answer
        raise TimeoutError(f"no answer within {self.timeout_sec} s")

    def request(self, method, path, payload=b"", content=None, accept=None, more=()):
        """One confirmable request. A payload that is no bytes object is sent as JSON."""
        if not isinstance(payload, bytes):
            payload = json.dumps(payload).encode()
        token = os.urandom(4)
        options = [(PATH, part.encode()) for part in path.split("/")]
        if content is not None:
            options.append((FORMAT, unsigned(content)))
        if accept is not None:
            options.append((ACCEPT, unsigned(accept)))
        options = sorted(options + list(more), key=lambda option: option[0])
        return self.exchange(
            encode(CON, method, self.next_mid(), token, options, payload), token
        )


class Observer(Peer):
    """A watcher of one notification resource."""

    def __init__(self, address, timeout_sec, path):
        super().__init__(address, timeout_sec)
        self.last = self.request(GET, path, more=[(OBSERVE, b"")])
        if OBSERVE not in self.last.options:
            self.close()
            raise AssertionError(f"not observable: {path}: {self.last}")

    def wait(self, is_wanted):
        """The value of the first notification that is wanted, the one at hand included."""
        deadline = time.monotonic() + self.timeout_sec
        while not is_wanted(self.last.json):
            message = self.receive(deadline)
            if message is not None:
                self.acknowledge(message)
                if message.code != 0:
                    self.last = message
            elif time.monotonic() >= deadline:
                raise TimeoutError(f"the last notification was {self.last}")
        return self.last.json
