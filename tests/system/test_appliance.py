"""The virtual refrigerator and its HTTP interface, beside the real service."""

import contextlib
import csv
import http.client
import io
import json
import os
import shutil
import signal
import socket
import threading

import appliance
from appliance import Page, Streams
from harness import DEADLINE_SEC, LEVEL, NORMAL, Instance, SystemTest, wait_for


def start_both(corvane, *options, service="corvane"):
    """Appliance and service, up to the first level that is reported. Gives the appliance."""
    program = corvane.start_program("corvane-appliance", *options)
    program.wait_for_output("ready")
    corvane.service = corvane.start_program(service)
    corvane.wait_until_launched()
    corvane.page.wait_for_state(
        "the first level", lambda state: state["demandResponse"]["reported"] is not None)
    return program


class ApplianceTest(SystemTest):
    """A class whose tests share one appliance with its service."""

    options = ()

    @classmethod
    def setUpClass(cls):
        cls.corvane = Instance()
        cls.page = cls.corvane.page = Page()
        cls.program = start_both(cls.corvane, *cls.options)

    @classmethod
    def tearDownClass(cls):
        assert cls.corvane.service.stop() == 0
        assert cls.program.stop() == 0
        assert "stopped" in cls.program.output

    def cancel(self):
        self.page.change("DELETE", "/api/v1/event")
        return self.page.wait_for_state("no event and level 0", lambda state: (
            state["demandResponse"]["event"] is None
            and state["demandResponse"]["confirmed"]["level"] == 0
            and state["demandResponse"]["reported"]["level"] == 0))

    def refused(self, status, method, path, body=None, headers=None):
        answer = self.page.request(method, path, body, headers)
        self.assertEqual(answer.status, status, f"{method} {path} {body}: {answer}")
        error = answer.json
        self.assertNotIn("\n", error["error"])
        return error


class ApplianceOrders(ApplianceTest):
    """What the page orders, and what comes of it."""

    def test_EventIsConfirmedReportedAndCancelled(self):
        for _ in range(2):  # the second finds what the first left behind
            self.page.change("POST", "/api/v1/event", {"level": 3, "duration": "00:10:00"})
            state = self.page.wait_for_state("level 3 reported", lambda state: (
                (state["demandResponse"]["reported"] or {}).get("level") == 3))
            told = state["demandResponse"]
            self.assertEqual([told[stage]["level"] for stage in
                              ("ordered", "commanded", "confirmed", "reported")], [3, 3, 3, 3])
            times = [told[stage]["at"] for stage in
                     ("ordered", "commanded", "confirmed", "reported")]
            self.assertEqual(times, sorted(times))
            self.assertEqual(told["ordered"]["by"], "page")
            self.assertEqual(told["event"]["state"], "running")
            self.assertEqual(state["refrigerator"]["mode"], "strong")
            state = self.cancel()
        self.assertIn(state["refrigerator"]["mode"], ("returning", "normal"))
        self.assertIn("heard    SET_SMARTGRID_LEVEL3", self.program.output)
        self.assertIn("applied  level 3", self.program.output)

    def test_EventEndsByItselfAndLeavesARecord(self):
        self.page.change("POST", "/api/v1/event", {"level": 1, "duration": "00:00:04"})
        self.page.wait_for_state("the event", lambda state: state["demandResponse"]["event"])
        self.corvane.wait_for_value(LEVEL, 1)
        self.page.wait_for_state("its end", lambda state: not state["demandResponse"]["event"])
        wait_for("the energy after it", lambda: self.page.get("/api/v1/records")["records"][0][
            "energyAfterWh"] is not None)
        record = self.page.get("/api/v1/records")["records"][0]
        self.assertEqual((record["level"], record["orderedBy"], record["endedBy"], record["open"]),
                         (1, "page", "schedule", False))
        times = [record[name] for name in
                 ("orderedAt", "commandedAt", "confirmedAt", "reportedAt", "endedAt")]
        self.assertEqual(times, sorted(times))
        self.assertEqual(record["plannedEndAt"] - record["startAt"], 4)
        self.assertGreater(record["energyDuringWh"], 0)
        self.assertGreaterEqual(record["peakWatt"], record["averageWatt"])
        self.assertEqual((record["baselineAverageWatt"], record["baselineDays"]), (None, 0))
        rows = list(csv.DictReader(io.StringIO(
            self.page.request("GET", "/api/v1/records.csv").body.decode())))
        self.assertEqual((rows[0]["id"], rows[0]["endedBy"]), (str(record["id"]), "schedule"))
        exported = json.loads(self.page.request("GET", "/api/v1/records.json").body)
        self.assertEqual(exported["records"][0], record)

    def test_OrderOfAnotherControllerIsToldAsRemoteAndReplaced(self):
        self.corvane.order("ControlDRLC", level=2, duration="01:00:00", start="00:00:00")
        told = self.page.wait_for_state("the event", lambda state: (
            state["demandResponse"]["event"] or {}).get("level") == 2)["demandResponse"]
        self.assertEqual(told["ordered"]["by"], "remote")
        self.page.change("POST", "/api/v1/event", {"level": 4, "start": "00:00:00",
                                                   "duration": "00:30:00"})
        self.page.wait_for_state("the other event", lambda state: (
            state["demandResponse"]["event"] or {}).get("level") == 4)
        records = self.page.get("/api/v1/records")["records"]
        self.assertEqual([each["orderedBy"] for each in records[:2]], ["page", "remote"])
        self.assertEqual(records[1]["endedBy"], "replaced")
        self.page.change("DELETE", "/api/v1/event")
        self.page.wait_for_state("no event", lambda state: not state["demandResponse"]["event"])
        self.assertEqual(self.page.get("/api/v1/records")["records"][0]["endedBy"], "cancel")

    def test_OverrideIsToldWithWhoAndSinceWhen(self):
        for path, who in (("/api/v1/override", "remote"), ("/api/v1/display/override", "display")):
            for value in (1, 0):
                self.page.change("PUT", path, {"override": value})
                override = self.page.wait_for_state("the override", lambda state: (
                    state["demandResponse"]["override"]["on"] == bool(value)
                    and state["demandResponse"]["override"]["by"] == who))
                override = override["demandResponse"]["override"]
                self.assertGreater(override["sinceAt"], 0)

    def test_DefrostDelayIsSwitchedUnlessAnEventIsStored(self):
        for value in (1, 0):
            self.page.change("PUT", "/api/v1/defrost", {"enabled": value})
            self.page.wait_for_state("the delay", lambda state: (
                state["defrostDelay"]["enabled"] == value))
        self.page.change("POST", "/api/v1/event", {"level": 1, "duration": "00:30:00"})
        error = self.refused(409, "PUT", "/api/v1/defrost", {"enabled": 1})
        self.assertIn("event is stored", error["error"])
        self.assertEqual(error["service"]["code"], 409)
        self.cancel()

    def test_ReservationsAreMadeToTheFourthRefusedWith507AndRemoved(self):
        wish = {"startTime": "0000-06-01T17:00:00", "endTime": "0000-08-31T00:00:00",
                "period": "02:00:00", "description": "Evening peak"}
        made = self.page.change("POST", "/api/v1/reservations", wish)
        self.assertEqual(made, {"result": 1, "id": "2"})
        self.assertEqual(self.page.change("PUT", "/api/v1/reservations", wish), {"result": 1})
        error = self.refused(409, "POST", "/api/v1/reservations", wish)
        self.assertEqual(error["service"]["error"], 507)
        self.assertIn("places are taken", error["error"])
        state = self.page.wait_for_state("the reservations", lambda state: [
            each["id"] for each in state["defrostDelay"]["reservations"]] == ["0", "1", "2", "3"])
        self.assertEqual(state["defrostDelay"]["reservations"][2]["description"], "Evening peak")
        for number in ("2", "3"):
            self.page.change("DELETE", f"/api/v1/reservations/{number}")
            self.assertIn("no reservation",
                          self.refused(404, "DELETE", f"/api/v1/reservations/{number}")["error"])
        self.page.wait_for_state("that they are gone", lambda state: (
            len(state["defrostDelay"]["reservations"]) == 2))
        windows = self.page.state["defrostDelay"]["windows"]
        self.assertEqual([each["day"] for each in windows], ["today", "tomorrow"])

    def test_DoorOpensAndCloses(self):
        for compartment in ("fridge", "freezer"):
            for is_open in (True, False):
                self.page.change("PUT", "/api/v1/door",
                                 {"compartment": compartment, "open": is_open})
                doing = ("opened" if is_open else "closed") + f" the {compartment} door"
                self.assertIn(doing, [each["text"] for each in self.page.get(
                    "/api/v1/trace?source=page")["entries"]])
                if is_open:
                    self.page.wait_for_state("the open door", lambda state: (
                        state["refrigerator"]["doors"][compartment + "Open"]))


class ApplianceFaults(ApplianceTest):
    """Every fault by its switch, and the way back."""

    def switch(self, name, is_on):
        self.page.change("PUT", "/api/v1/faults/" + name, {"on": is_on})

    def meter(self, target="/external/metering?cumulativepower=1.23&duration=60", **headers):
        connection = http.client.HTTPConnection("127.0.0.1", 7777, timeout=60)
        connection.request("POST", target, headers=headers)
        answer = connection.getresponse()
        status, body = answer.status, answer.read()
        connection.close()
        return status, body

    def test_SilentMicomIsShownAndComesBack(self):
        self.switch("micomSilent", True)
        self.page.change("POST", "/api/v1/event", {"level": 2, "duration": "01:00:00"})
        state = self.page.wait_for_state("the command", lambda state: (
            state["demandResponse"]["commanded"]["level"] == 2))
        self.assertFalse(state["micom"]["alive"])
        self.assertIn("silent", state["micom"]["reason"])
        self.assertEqual(state["demandResponse"]["confirmed"]["level"], 0)
        self.assertIn("missed   SET_SMARTGRID_LEVEL2", self.program.output)
        self.switch("micomSilent", False)
        self.assertTrue(self.page.state["micom"]["alive"])
        # What was missed stays missed; the next order is heard.
        self.page.change("DELETE", "/api/v1/event")
        self.page.change("POST", "/api/v1/event", {"level": 3, "duration": "01:00:00"})
        self.page.wait_for_state("the confirmation", lambda state: (
            state["demandResponse"]["confirmed"]["level"] == 3))
        self.cancel()

    def test_RestartOfTheMicomEndsTheEvent(self):
        self.page.change("POST", "/api/v1/event", {"level": 1, "duration": "01:00:00"})
        self.page.wait_for_state("level 1", lambda state: (
            state["demandResponse"]["reported"]["level"] == 1))
        self.switch("micomRestart", True)
        self.assertFalse(self.page.state["micom"]["alive"])
        self.page.wait_for_state("its end", lambda state: not state["demandResponse"]["event"])
        self.assertEqual(self.page.get("/api/v1/records")["records"][0]["endedBy"], "restart")
        state = self.page.wait_for_state("the Micom", lambda state: state["micom"]["alive"])
        self.assertNotIn(True, [each["on"] for each in state["faults"]])

    def test_EveryFaultIsSwitchedOnAndOff(self):
        names = [each["name"] for each in self.page.state["faults"] if not each["momentary"]]
        self.assertEqual(len(names), 8)
        for name in names:
            for is_on in (True, False):
                self.switch(name, is_on)
                self.page.wait_for_state(f"{name} {is_on}", lambda state: {
                    each["name"]: each["on"] for each in state["faults"]}[name] == is_on)

    def test_MeteringServiceKeepsWhatIsPosted(self):
        before = self.page.state["metering"]
        self.assertEqual(self.meter()[0], 204)
        after = self.page.wait_for_state("the figure", lambda state: (
            state["metering"]["posts"] == before["posts"] + 1))["metering"]
        self.assertEqual((after["lastFigure"], after["lastStatus"]), ("1.23", 204))
        self.assertAlmostEqual(after["totalWh"] - before["totalWh"], 1.23)
        self.assertEqual(self.meter("/external/metering?cumulativepower=x&duration=60")[0], 400)
        self.assertEqual(self.meter("/else")[0], 404)
        self.assertEqual(self.meter("/external/metering?cumulativepower=9.87&duration=60",
                                    Origin="http://elsewhere.example")[0], 403)
        self.assertEqual(self.page.get("/api/v1/trace?text=9.87")["entries"], [])

    def test_MeteringFaultsAnswerAsTheyAreCalled(self):
        self.switch("meteringRefuses", True)
        self.assertEqual(self.meter()[0], 503)
        self.switch("meteringRefuses", False)
        self.switch("meteringGarbage", True)
        garbage = self.meter()
        self.assertTrue(garbage[0] != 204 or garbage[1])
        self.switch("meteringGarbage", False)
        for name in ("meteringSlow", "meteringNeverAnswers"):
            self.switch(name, True)
            posts = self.page.state["metering"]["posts"]
            answers = []
            thread = threading.Thread(target=lambda: answers.append(self.meter()))
            thread.start()
            self.page.wait_for_state("the request", lambda state: (
                state["metering"]["posts"] > posts))
            self.assertEqual(answers, [])
            self.switch(name, False)  # lets go of who waits
            thread.join(60)
            self.assertEqual(len(answers), 1)
        self.assertEqual(self.meter()[0], 204)


class ApplianceRefusals(ApplianceTest):
    """What must not pass, and that nothing of it reaches the service."""

    RESERVATION = {"startTime": "0000-06-01T17:00:00", "endTime": "0000-08-31T00:00:00",
                   "period": "02:00:00"}

    def refusals(self):
        event, reservations = "/api/v1/event", "/api/v1/reservations"
        yield from ((400, "POST", event, body, field) for body, field in (
            ({}, "level"), ({"level": 0}, "level"), ({"level": 5}, "level"),
            ({"level": -1}, "level"), ({"level": "2"}, "level"), ({"level": 2.0}, "level"),
            ({"level": True}, "level"), ({"level": None}, "level"), ({"level": [2]}, "level"),
            ({"level": 2, "duration": "1:00:00"}, "duration"),
            ({"level": 2, "duration": "00:00:00"}, "duration"),
            ({"level": 2, "duration": "24:00:00"}, "duration"),
            ({"level": 2, "duration": 60}, "duration"),
            ({"level": 2, "start": "24:00:00"}, "start"),
            ({"level": 2, "start": "12:60:00"}, "start"),
            ({"level": 2, "start": "now"}, "start"),
            ({"level": 2, "other": 1}, "other"),
            (b'{"level": 2, "level": 3}', "level"),
            (b"[" * 4000, None), (b"level=2", None), (b"", None), (b"null", None),
            (b'{"level": 2', None), (b'"\xff"', None)))
        yield from ((400, "PUT", "/api/v1/override", body, field) for body, field in (
            ({"override": 2}, "override"), ({"override": True}, "override"), ({}, "override")))
        yield 400, "PUT", "/api/v1/display/override", {"override": -1}, "override"
        yield 400, "PUT", "/api/v1/defrost", {"enabled": "1"}, "enabled"
        yield from ((400, "POST", reservations, {**self.RESERVATION, name: value}, name)
                    for name, value in (
            ("startTime", "0000-02-30T10:00:00"), ("startTime", "2026-06-01T17:00:00"),
            ("endTime", "0000-13-01T00:00:00"), ("period", "00:00:00"),
            ("description", "x" * 31), ("description", "it's"), ("description", 'a"b'),
            ("description", "a\\b"), ("description", "a\nb"), ("id", "2")))
        yield 400, "DELETE", reservations + "/0", None, "id"
        yield 400, "DELETE", reservations + "/x", None, "id"
        yield 400, "PUT", "/api/v1/door", {"compartment": "cellar", "open": True}, "compartment"
        yield 400, "PUT", "/api/v1/door", {"compartment": "fridge", "open": 1}, "open"
        yield 400, "PUT", "/api/v1/door", {"compartment": "fridge"}, "open"
        yield 400, "PUT", "/api/v1/faults/micomSlow", {"on": 1}, "on"
        yield 400, "PUT", "/api/v1/faults/micomSlow", {"on": True, "off": True}, None
        yield 404, "PUT", "/api/v1/faults/none", {"on": True}, "name"
        yield from ((400, "GET", "/api/v1/" + path, None, field) for path, field in (
            ("history?range=year", "range"), ("history?from=2&to=1", "from"),
            ("history?from=-1&to=1", "from"), ("history?from=0&to=9999999", "from"),
            ("energy?range=", "range"), ("trace?limit=0", "limit"), ("trace?limit=1e3", "limit"),
            ("trace?limit=99999", "limit"), ("trace?before=x", "before"),
            ("trace.csv?source=nobody", "source")))
        for path in ("/api/v1/none", "/api/v1", "/page/none.js", "/page/../main.cpp",
                     "/page/%2e%2e/main.cpp", "/index.html"):
            yield 404, "GET", path, None, None
        for method, path in (("POST", "/"), ("GET", event + "/"), ("PATCH", event),
                             ("DELETE", "/api/v1/state"), ("PUT", event), ("OPTIONS", event)):
            yield (404 if path.endswith("t/") else 405), method, path, None, None
        yield 414, "GET", "/" + "a" * 300, None, None
        yield 413, "POST", event, b'{"level": 2' + b" " * 5000 + b"}", None
        yield 413, "POST", "/api/v1/none", b"x" * 5000, None

    def test_WhatIsWrongIsRefusedWithAReason(self):
        handled = len(self.corvane.service.output.splitlines())
        trace = self.page.get("/api/v1/trace?source=remote")["entries"]
        for status, method, path, body, field in self.refusals():
            with self.subTest(method=method, path=path[:60], body=body):
                error = self.refused(status, method, path, body)
                self.assertEqual(error.get("field"), field, error)
        for kind in (None, "text/plain", "application/x-www-form-urlencoded",
                     "multipart/form-data; boundary=x", "application/jsonx"):
            with self.subTest(kind=kind):
                self.refused(415, "POST", "/api/v1/event", b'{"level": 2}',
                             {"Content-Type": kind})
        self.assertIsNone(self.corvane.event())
        self.assertEqual(self.page.get("/api/v1/trace?source=remote")["entries"], trace)
        # Its own questions about reservations and consumption aside, nothing was asked.
        asked = [line for line in self.corvane.service.output.splitlines()[handled:]
                 if "RegisterControl" in line or "RegisterSet" in line or "RegisterCreate" in line
                 or "RegisterDel" in line]
        self.assertEqual(asked, [])

    def test_OtherSitesPagesChangeNothing(self):
        order = ("POST", "/api/v1/event", {"level": 2})
        for headers in ({"X-Corvane": None}, {"X-Corvane": "0"}, {"Origin": "http://evil.example"},
                        {"Origin": "null"}, {"Origin": "http://127.0.0.1:8081"},
                        {"Host": "evil.example:8080"}, {"Host": "127.0.0.1:8081"},
                        {"Host": "localhost.evil.example:8080"}, {"Host": ""}):
            with self.subTest(headers=headers):
                self.refused(403, *order, headers)
        for host in ("evil.example:8080", "127.0.0.1", "[::1"):
            self.refused(403, "GET", "/api/v1/state", None, {"Host": host})
        for host in ("localhost:8080", "[::1]:8080"):
            self.assertEqual(self.page.request("GET", "/", None, {"Host": host}).status, 200)
        own = {"Host": "localhost:8080", "Origin": "http://localhost:8080"}
        self.assertEqual(self.page.request("PUT", "/api/v1/override", {"override": 0}, own).status,
                         200)
        self.assertIsNone(self.corvane.event())

    def test_BodyOfARefusedRequestIsNoRequest(self):
        inner = (b"PUT /api/v1/faults/micomSilent HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n"
                 b"X-Corvane: 1\r\nContent-Type: application/json\r\nContent-Length: 12\r\n\r\n"
                 b'{"on": true}')
        for kind in (b"text/plain", b"multipart/form-data; boundary=x"):
            for length in (len(inner), len(inner) + 5000):
                with self.subTest(kind=kind, length=length):
                    body = inner.rjust(length)
                    with socket.create_connection(("127.0.0.1", 8080), 60) as connection:
                        connection.sendall(
                            b"POST /api/v1/event HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n"
                            b"Connection: close\r\n"
                            b"Content-Type: %s\r\nContent-Length: %d\r\n\r\n%s"
                            % (kind, len(body), body))
                        received = b""
                        try:
                            while data := connection.recv(65536):
                                received += data
                        except ConnectionResetError:
                            pass
                        self.assertLessEqual(received.count(b"HTTP/1.1 "), 1, received)
                    self.assertTrue(self.page.state["micom"]["alive"])

    def test_AnswersTellTheBrowserToKeepToItself(self):
        headers = self.page.request("GET", "/").headers
        self.assertIn("default-src 'self'", headers["Content-Security-Policy"])
        self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
        self.assertEqual(headers["Cache-Control"], "no-cache")
        self.assertIsNone(headers["Access-Control-Allow-Origin"])
        again = self.page.request("GET", "/", None, {"If-None-Match": headers["ETag"]})
        self.assertEqual((again.status, again.body), (304, b""))
        packed = self.page.request("GET", "/api/v1/state", None, {"Accept-Encoding": "br, gzip"})
        self.assertIsNone(packed.headers["Content-Encoding"])


class ApplianceReads(ApplianceTest):
    """What is shown, to one and to many."""

    def test_EveryAnswerIsWhatTheDescriptionPromises(self):
        for template, methods in appliance.OPENAPI["paths"].items():
            if "get" in methods and template != "/api/v1/stream":
                path = template.replace("{asset...}", "main.js")
                answer = self.page.request("GET", path)
                with self.subTest(path=path):
                    self.assertEqual(answer.status, 200, answer)
                    appliance.check(answer, "get", template)
        refused = self.page.request("POST", "/api/v1/event", {"level": 9})
        appliance.check(refused, "post", "/api/v1/event")
        self.assertEqual(self.page.get("/openapi.json"), appliance.OPENAPI)

    def test_FiftyStreamsTellEachEventOnceAndInOrder(self):
        with Streams(50) as streams:
            streams.read_until("the state", lambda events: events)
            self.assertEqual({events[0][1] for events in streams.events}, {"state"})
            # With all of them open, requests are answered as ever.
            for _ in range(20):
                self.page.change("PUT", "/api/v1/door", {"compartment": "fridge", "open": False})
            last = self.page.get("/api/v1/trace?limit=1")["entries"][-1]["id"]

            def told(events):
                return [each["id"] for _, name, each in events if name == "trace"]

            streams.read_until("the trace", lambda events: last in told(events))
            for events in streams.events:
                ids = [each for each in told(events) if each <= last]
                self.assertEqual(ids, list(range(ids[0], last + 1)))
                self.assertGreaterEqual(len(ids), 20)
            self.assertIn("corvane_streams_open 50",
                          self.page.request("GET", "/metrics").body.decode())
        self.page.wait_for_state("that they are closed", lambda _: b"corvane_streams_open 0" in (
            self.page.request("GET", "/metrics").body))

    def test_TraceIsFilteredAndExported(self):
        self.page.change("PUT", "/api/v1/door", {"compartment": "freezer", "open": False})
        entries = self.page.get("/api/v1/trace?source=page&text=FREEZER")["entries"]
        self.assertEqual({each["text"] for each in entries}, {"closed the freezer door"})
        before = self.page.get(f"/api/v1/trace?before={entries[-1]['id']}")["entries"]
        self.assertLess(before[-1]["id"], entries[-1]["id"])
        rows = list(csv.DictReader(io.StringIO(
            self.page.request("GET", "/api/v1/trace.csv?source=page").body.decode())))
        self.assertEqual(rows[-1]["text"], "closed the freezer door")

    def test_ServiceThatIsGoneIsToldAndComesBack(self):
        self.assertEqual(self.corvane.service.stop(), 0)
        state = self.page.wait_for_state("that it is gone", lambda state: (
            not state["service"]["reachable"]))
        self.assertTrue(state["service"]["reason"])
        answer = self.page.request("POST", "/api/v1/event", {"level": 2})
        self.assertEqual(answer.status, 502, answer)
        self.assertIn("nothing listens", answer.json["error"])
        health = self.page.request("GET", "/health")
        self.assertEqual((health.status, health.json["service"]["status"],
                          health.json["appliance"]["status"]), (503, "failing", "ok"))
        self.assertIn("corvane_service_up 0", self.page.request("GET", "/metrics").body.decode())
        self.corvane.start_service()
        self.corvane.wait_until_launched()
        self.page.wait_for_state("that it is back", lambda state: state["service"]["reachable"])
        self.assertEqual(self.page.request("GET", "/health").status, 200)


class ApplianceFast(SystemTest):
    """Hours in seconds: service and appliance in the same fast clock, over a restart."""

    @classmethod
    def setUpClass(cls):
        cls.corvane = Instance(TZ="Europe/Berlin")
        cls.page = cls.corvane.page = Page()
        os.makedirs(cls.corvane.runtime, mode=0o700)
        clock = cls.corvane.runtime + "/clock"
        made = cls.corvane.start_program("corvane-clock", clock, "--speed", "600", "--at",
                                         "2026-07-31T12:00", "--zone", "Europe/Berlin")
        assert made.wait() == 0, made.log
        cls.corvane.environment["CORVANE_CLOCK"] = clock
        cls.program = start_both(cls.corvane, service="corvane-timelapse")

    @classmethod
    def tearDownClass(cls):
        assert cls.corvane.service.stop() == 0
        assert cls.program.stop() == 0

    def test_RecordHistoryMeteringAndRestart(self):
        state = self.page.state
        self.assertEqual((state["speed"], state["zone"], state["utcOffsetSec"]),
                         (600, "Europe/Berlin", 7200))
        self.assertTrue(state["localText"].startswith("2026-07-31 "))
        # Half an hour before the event, so that the energy before it can be told.
        began = state["at"]
        self.page.wait_for_state("half an hour", lambda state: state["at"] > began + 2000)
        self.page.change("POST", "/api/v1/event", {"level": 4, "duration": "00:30:00"})
        record = wait_for("the settled record", lambda: next(
            (each for each in self.page.get("/api/v1/records")["records"]
             if each["energyAfterWh"] is not None), None))
        self.assertEqual(record["endedBy"], "schedule")
        for name in ("energyBeforeWh", "energyDuringWh", "averageWatt", "peakWatt"):
            self.assertIsNotNone(record[name], name)
        self.assertLess(record["energyDuringWh"], record["energyBeforeWh"] + record["energyAfterWh"])

        history = self.page.get("/api/v1/history?range=day")
        known = [watt for watt in history["powerWatt"] if watt is not None]
        self.assertGreater(len(known), 60)
        self.assertEqual({len(column) for name, column in history.items()
                          if name not in ("stepSec", "events", "windows")}, {len(history["at"])})
        self.assertEqual([event["level"] for event in history["events"]], [4])
        self.assertIn(4, history["level"])

        # The service measures once a virtual minute and posts what it has measured.
        metering = self.page.wait_for_state("posts", lambda state: (
            state["metering"]["posts"] > 60))["metering"]
        self.assertEqual((metering["lastStatus"], metering["refused"]), (204, 0))
        hours = self.page.get("/api/v1/energy?range=day")["hours"]
        self.assertGreater(sum(hour["energyWh"] for hour in hours), metering["totalWh"] / 2)

        # What the service answers is of the same size as what it was told.
        month = self.page.wait_for_state("the month", lambda state: (
            (state["consumption"]["thisMonthKwh"] or 0) > 0))
        self.assertLess(month["consumption"]["thisMonthKwh"],
                        1.1 * month["metering"]["totalWh"] / 1000 + 0.001)

        counter = self.page.state["refrigerator"]["energyWh"]
        self.assertEqual(self.program.stop(), 0)
        type(self).program = self.corvane.start_program("corvane-appliance")
        self.program.wait_for_output("ready")
        after = self.page.get("/api/v1/history?range=day")
        rows = dict(zip(after["at"], after["powerWatt"]))
        for at, watt in zip(history["at"], history["powerWatt"]):
            if watt is not None and at in rows:
                self.assertEqual(rows[at], watt)
        self.assertEqual(self.page.get("/api/v1/records")["records"][-1], record)
        self.assertGreaterEqual(self.page.state["refrigerator"]["energyWh"], counter)
        self.assertGreaterEqual(self.page.state["metering"]["posts"], metering["posts"])

    def test_TerminalTellsEachHourAndNoCommandThatRepeatsTheLast(self):
        def heard():
            return len(self.page.get("/api/v1/trace?source=micom&text=LEVEL_NORMAL")["entries"])

        before = heard()
        wait_for("three repetitions", lambda: heard() >= before + 3)
        self.program.wait_for_output("Appliance    used ")
        levels = [line.split()[-1] for line in self.program.output.splitlines()
                  if "heard    SET_SMARTGRID_LEVEL" in line]
        self.assertTrue(levels)
        for last, level in zip(levels, levels[1:]):
            self.assertNotEqual(level, last)


class ApplianceAlone(SystemTest):
    """The program without a service, and used wrongly."""

    def setUp(self):
        self.corvane = Instance(self.id().rpartition(".")[2])

    def run_to_end(self, *options):
        program = self.corvane.start_program("corvane-appliance", *options)
        return program.wait(), program.output, program.log

    def secret(self, text, mode=0o600):
        path = self.corvane.folder + "/secret"
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, mode)
        return path

    def test_WrongUsageIsOneLineAndStatusTwo(self):
        for options in (["--none"], ["x"], ["--listen", "8080"], ["--listen", "127.0.0.1:99999"],
                        ["--listen", ":8080"], ["--listen", "0.0.0.0:8080"],
                        ["--listen", "[::]:8080"], ["--speed", "0"], ["--speed", "601"],
                        ["--at", "2026-07-31T14:50"], ["--metering-port", "-1"],
                        ["--url", "http://127.0.0.1"], ["--url", "coaps://127.0.0.1"]):
            with self.subTest(options=options):
                status, output, errors = self.run_to_end(*options)
                self.assertEqual((status, output), (2, ""), errors)
                self.assertRegex(errors, r"\Acorvane-appliance: [^\n]+--help\n\Z")

    def assert_fails(self, words, *options):
        with self.subTest(options=options):
            status, output, errors = self.run_to_end(*options)
            self.assertEqual((status, output), (1, ""), errors)
            self.assertRegex(errors, r"\Acorvane-appliance: [^\n]+\n\Z")
            self.assertIn(words, errors)

    def test_WhatCannotBeUsedIsOneLineAndStatusOne(self):
        self.assert_fails("/none", "--password-file", "/none")
        self.assert_fails("8 to 200", "--password-file", self.secret("short"))
        self.assert_fails("chmod 600", "--password-file", self.secret("longenough", 0o644))
        self.assert_fails("192.0.2.1:8080", "--listen", "192.0.2.1:8080", "--password-file",
                          self.secret("longenough"))
        self.assert_fails("Nowhere", "--zone", "Nowhere")
        self.assert_fails("then", "--speed", "2", "--at", "then")
        with socket.create_server(("127.0.0.1", 8080)), socket.create_server(("127.0.0.1", 7777)):
            self.assert_fails("127.0.0.1:8080", "--metering-port", "0")
            self.assert_fails("127.0.0.1:7777", "--listen", "127.0.0.1:0")
        history = self.corvane.state + "/appliance/history.db"
        with open(history, "wb") as file:
            file.write(b"no database " * 100)
        self.assert_fails(history, "--listen", "127.0.0.1:0", "--metering-port", "0")
        self.corvane.environment["CORVANE_STATE_DIR"] = "/proc/none"
        self.assert_fails("CORVANE_STATE_DIR")

    def test_SecondApplianceOnTheSameFoldersIsRefused(self):
        first = self.corvane.start_program("corvane-appliance")
        first.wait_for_output("ready")
        status, _, errors = self.run_to_end("--listen", "127.0.0.1:0", "--metering-port", "0")
        self.assertEqual(status, 1)
        self.assertIn("another appliance", errors)
        self.assert_stops(first)

    def test_SecondApplianceOnTheSamePortsIsRefused(self):
        first = Instance("first").start_program("corvane-appliance")
        first.wait_for_output("ready")
        self.assert_fails("127.0.0.1:8080", "--metering-port", "0")
        self.assert_fails("127.0.0.1:7777", "--listen", "127.0.0.1:0")
        self.assert_stops(first)

    def test_SecondApplianceLeavesTheFirstOnesClockAlone(self):
        first = self.corvane.start_program("corvane-appliance", "--speed", "60")
        first.wait_for_output("ready")
        with open(self.corvane.runtime + "/clock", "rb") as file:
            clock = file.read()
        status, _, errors = self.run_to_end("--speed", "2", "--listen", "127.0.0.1:0",
                                            "--metering-port", "0")
        self.assertEqual(status, 1)
        self.assertIn("another appliance", errors)
        with open(self.corvane.runtime + "/clock", "rb") as file:
            self.assertEqual(file.read(), clock)
        self.assert_stops(first)

    def test_EngineThatFailsEndsTheProgramAlsoWhenItIsAsked(self):
        program = self.corvane.start_program("corvane-appliance")
        program.wait_for_output("ready")
        with contextlib.ExitStack() as connections:
            askers = []
            for port, method in ((8080, "GET"), (7777, "POST")):
                asker = connections.enter_context(contextlib.closing(
                    http.client.HTTPConnection("127.0.0.1", port, timeout=DEADLINE_SEC)))
                asker.request(method, "/none", None, {"Content-Length": "0"})
                asker.getresponse().read()
                askers.append(asker)
            # Asked between two of its steps, of which the second fails.
            program.send(signal.SIGSTOP)
            shutil.rmtree(self.corvane.runtime + "/settings")
            askers[0].request("GET", "/api/v1/state")
            askers[1].request("POST", "/external/metering", None, {"Content-Length": "0"})
            program.send(signal.SIGCONT)
            self.assertEqual(program.wait(), 1)
        self.assertIn("settings folder was removed", program.log)

    def test_PasswordIsNeededByWhoComesWithout(self):
        program = self.corvane.start_program(
            "corvane-appliance", "--listen", "0.0.0.0:8080", "--metering-port", "0",
            "--password-file", self.secret("correct horse\n"))
        program.wait_for_output("ready")
        page = Page()
        basic = {"good": "Basic Y29ydmFuZTpjb3JyZWN0IGhvcnNl", "bad": "Basic Y29ydmFuZTp3cm9uZw=="}
        for given, status in ((None, 401), (basic["bad"], 401), ("", 401), (basic["good"], 200)):
            answer = page.request("GET", "/api/v1/state", None, {"Authorization": given})
            self.assertEqual(answer.status, status, answer)
        refused = page.request("GET", "/")
        self.assertIn("Basic", refused.headers["WWW-Authenticate"])
        crossed = page.request("PUT", "/api/v1/override", {"override": 1},
                               {"Authorization": basic["good"], "X-Corvane": None})
        self.assertEqual(crossed.status, 403)
        guesses = [page.request("GET", "/api/v1/state", None, {"Authorization": basic["bad"]})
                   for _ in range(5)]
        self.assertEqual([guess.status for guess in guesses], [401] * 4 + [429])
        late = page.request("GET", "/api/v1/state", None, {"Authorization": basic["good"]})
        self.assertEqual(late.status, 429)
        self.assertIn(int(late.headers["Retry-After"]), range(1, 61))
        appliance.check(late, "get", "/api/v1/state")
        self.assert_stops(program)

    def test_SpeedStartsItsOwnClock(self):
        program = self.corvane.start_program(
            "corvane-appliance", "--speed", "60", "--at", "2026-07-31T14:50", "--zone",
            "Europe/Berlin", "--listen", "127.0.0.1:8080", "--metering-port", "0")
        program.wait_for_output("ready")
        state = Page().state
        self.assertEqual((state["speed"], state["zone"]), (60, "Europe/Berlin"))
        self.assertTrue(state["localText"].startswith("2026-07-31 1"), state["localText"])
        self.assertFalse(state["service"]["reachable"])
        self.assert_stops(program)

    def test_HelpShowsExamplesAndFreePortIsPrinted(self):
        for option in ("--help", "--version"):
            status, output, errors = self.run_to_end(option)
            self.assertEqual((status, errors), (0, ""))
            self.assertIn("corvane-appliance", output)
        program = self.corvane.start_program("corvane-appliance", "--listen", "127.0.0.1:0",
                                             "--metering-port", "0")
        program.wait_for_output("ready")
        program.wait_for_output("http://127.0.0.1:")
        port = int(program.output.partition("http://127.0.0.1:")[2].partition("/")[0])
        self.assertEqual(Page(port).state["speed"], 1)
        self.assert_stops(program)
