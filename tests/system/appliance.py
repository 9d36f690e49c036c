"""The appliance's HTTP interface as a page uses it: requests, and event streams."""

import contextlib
import http.client
import json
import os
import selectors
import socket
import time

import jsonschema

from harness import DEADLINE_SEC, wait_for

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
with open(ROOT + "/docs/openapi.json", encoding="utf-8") as _file:
    OPENAPI = json.load(_file)


class Answer:
    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body

    @property
    def json(self):
        return json.loads(self.body)

    def __repr__(self):
        return f"{self.status} {self.body[:300]!r}"


class Page:
    """Asks the appliance at an address of this machine."""

    def __init__(self, port=8080):
        self.port = port

    def request(self, method, path, body=None, headers=None):
        """The body is an object, or bytes that are sent as they are."""
        sent = {}
        if method != "GET":
            sent["X-Corvane"] = "1"
        if body is not None:
            sent["Content-Type"] = "application/json"
            if not isinstance(body, bytes):
                body = json.dumps(body).encode()
        for name, value in (headers or {}).items():
            sent.pop(name, None)
            if value is not None:
                sent[name] = value
        with contextlib.closing(
            http.client.HTTPConnection("127.0.0.1", self.port, timeout=DEADLINE_SEC)
        ) as connection:
            connection.request(method, path, body, sent)
            response = connection.getresponse()
            return Answer(response.status, response.headers, response.read())

    def get(self, path):
        """The object of a good answer, which has to be what the description promises."""
        answer = self.request("GET", path)
        assert answer.status == 200, f"GET {path}: {answer}"
        check(answer, "get", path.partition("?")[0])
        return answer.json

    def change(self, method, path, body=None):
        """The object of a good answer to a request that changes something."""
        answer = self.request(method, path, body)
        assert answer.status == 200, f"{method} {path} {body}: {answer}"
        return answer.json

    @property
    def state(self):
        return self.get("/api/v1/state")

    def wait_for_state(self, what, probe):
        """Waits until the probe likes the state, and gives that state."""
        def look():
            state = self.state
            return state if probe(state) else None

        return wait_for(f"the state tells {what}", look)


def check(answer, method, template):
    """The answer is one that the description of the interface has."""
    response = OPENAPI["paths"][template][method]["responses"][str(answer.status)]
    if "$ref" in response:
        response = OPENAPI["components"]["responses"][response["$ref"].rpartition("/")[2]]
    for kind, content in response.get("content", {}).items():
        assert answer.headers["Content-Type"].partition(";")[0] == kind, answer.headers
        if kind == "application/json":
            schema = {**content["schema"], "components": OPENAPI["components"]}
            jsonschema.Draft202012Validator(schema).validate(answer.json)


class Streams:
    """Event streams that are read together."""

    def __init__(self, count, port=8080):
        self._selector = selectors.DefaultSelector()
        self._sockets = []
        self._texts = {}
        self.events = [[] for _ in range(count)]  # of each: (time, name, object)
        for index in range(count):
            connection = socket.create_connection(("127.0.0.1", port), DEADLINE_SEC)
            connection.sendall(b"GET /api/v1/stream HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % port)
            connection.setblocking(False)
            self._sockets.append(connection)
            self._texts[index] = b""
            self._selector.register(connection, selectors.EVENT_READ, index)

    def read_until(self, what, probe, deadline_sec=DEADLINE_SEC):
        """Reads until the probe likes every stream's events."""
        deadline = time.monotonic() + deadline_sec
        while not all(probe(events) for events in self.events):
            assert time.monotonic() < deadline, f"the streams do not tell {what}"
            for key, _ in self._selector.select(0.2):
                data = key.fileobj.recv(65536)
                assert data, f"stream {key.data} was closed"
                self._take(key.data, data)

    def _take(self, index, data):
        text = self._texts[index] + data
        *whole, self._texts[index] = text.split(b"\n\n")
        for each in whole:
            fields = dict(
                line.split(b": ", 1) for line in each.replace(b"\r", b"").split(b"\n")
                if b": " in line)
            if b"event" in fields:
                self.events[index].append(
                    (time.monotonic(), fields[b"event"].decode(), json.loads(fields[b"data"])))

    def close(self):
        for connection in self._sockets:
            connection.close()
        self._selector.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
