"""What the service answers to requests that are not as they should be."""

import json
import random

import coap
from harness import ServiceTest

WINDOW = {"startTime": "0000-06-01T17:00:00", "endTime": "0000-08-31T00:00:00",
          "period": "02:00:00"}

# An order, its body, and words of the reason.
REFUSED = [
    ("ControlDRLC", '{"level": 5}', 'level: got "5", expected'),
    ("ControlDRLC", '{"level": -1}', 'level: got "-1", expected'),
    ("ControlDRLC", '{"level": "2"}', "level: got the text"),
    ("ControlDRLC", '{"level": 2.5}', "level: got"),
    ("ControlDRLC", '{"level": null}', "level: got"),
    ("ControlDRLC", '{"level": true}', "level: got"),
    ("ControlDRLC", '{"level": [2]}', "level: got an array"),
    ("ControlDRLC", "{}", "level: missing"),
    ("ControlDRLC", "", "body: not JSON"),
    ("ControlDRLC", "2", "body: got"),
    ("ControlDRLC", "[" * 1000, "body: got an array"),
    ("ControlDRLC", '{"level": 2', "body: not JSON"),
    ("ControlDRLC", '{"level": 2, "level": 3}', "level: given twice"),
    ("ControlDRLC", '{"level": 2, "mode": 1}', 'member "mode": unknown'),
    ("ControlDRLC", '{"level": 2, "duration": "1:00:00"}', "duration: got"),
    ("ControlDRLC", '{"level": 2, "duration": "00:00:00"}', "duration: got"),
    ("ControlDRLC", '{"level": 2, "duration": "24:00:00"}', "duration: got"),
    ("ControlDRLC", '{"level": 2, "duration": 3600}', "duration: got"),
    ("ControlDRLC", '{"level": 2, "start": "12:60:00"}', "start: got"),
    ("ControlDRLC", '{"level": 2, "start": "noon\\n"}', "start: got"),
    ("ControlOverride", '{"override": 2}', "override: got"),
    ("SetDelayDefrost", '{"enabled": "on"}', "enabled: got"),
    ("DelDefrostReservations", '{"id": "0"}', 'id: got the text "0"'),
    ("DelDefrostReservations", '{"id": "2 OR 1=1"}', 'id: got the text "2 OR 1=1"'),
    ("DelDefrostReservations", '{"id": 2}', "id: got"),
    ("CreateDefrostReservations", json.dumps({**WINDOW, "startTime": "0000-02-30T00:00:00"}),
     "startTime: got"),
    ("CreateDefrostReservations", json.dumps({**WINDOW, "endTime": "2026-06-01T00:00:00"}),
     "endTime: got"),
    ("CreateDefrostReservations", json.dumps({**WINDOW, "period": ""}), "period: got"),
    ("CreateDefrostReservations", json.dumps({**WINDOW, "description": "x" * 31}),
     "description: got"),
    ("CreateDefrostReservations", json.dumps({**WINDOW, "description": "it's"}),
     "description: got"),
    ("CreateDefrostReservations", '{"period": "02:00:00"}', "missing"),
    ("SetDefrostReservations", json.dumps({**WINDOW, "description": "a\u0000b"}),
     "description: got"),
    ("GetDefrostBlock", '{"block": 1}', 'member "block": unknown'),
]


class BadRequests(ServiceTest):
    """Each is answered with its code and reason, and leaves everything as it was."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.corvane.settle()

    def setUp(self):
        self.before = self.corvane.snapshot()
        self.mark = self.corvane.command_count()

    def tearDown(self):
        self.assertEqual(self.corvane.snapshot(), self.before)
        # What is repeated every ten minutes may be repeated meanwhile.
        self.assertLessEqual(set(self.corvane.commands(self.mark)),
                             {"SET_SMARTGRID_LEVEL_NORMAL", "SET_SMARTGRID_DISABLE"})

    def post(self, command, body, **options):
        return self.corvane.request(coap.POST, command, body, **options)

    def assert_refused(self, answer, status, words):
        self.assertEqual(answer.status, status, answer)
        self.assertIn(words, answer.text)
        self.assertNotIn("\n", answer.text)
        self.assertLess(len(answer.payload), 250)

    def test_BadBodyIsRefusedWithAReason(self):
        for command, body, words in REFUSED:
            with self.subTest(command=command, body=body[:60]):
                self.assert_refused(self.post(command, body.encode()), 400, words)

    def test_ReasonIsShownByTheUsualClient(self):
        done = self.corvane.coap_client("post", "ControlDRLC", '{"level": 9}')
        self.assertEqual(done.output.strip(), "")
        self.assertEqual(done.errors.strip(),
                         '4.00 level: got "9", expected a whole number from 0 to 4')

    def test_LongValueIsCutInTheReason(self):
        answer = self.post("ControlDRLC", {"level": 1, "start": "9" * 500})
        self.assert_refused(answer, 400, '"' + "9" * 40 + '..."')

    def test_BytesThatAreNoTextAreRefused(self):
        self.assert_refused(self.post("ControlDRLC", b'{"level\xff": 1}'), 400, "body: not JSON")
        noise = random.Random(1).randbytes(1000)
        self.assert_refused(self.post("ControlDRLC", noise), 400, "expected")

    def test_BadCborIsRefused(self):
        for body, words in ((b"\xa1\x65level\x09", 'level: got "9"'),
                            (b"\xa1\x65level", "body: not CBOR"),
                            (b"\x81" * 1000, "body: got an array"),
                            (b"\xa1\x65level" + b"\x81" * 1000, "level: got an array"),
                            (b"\xff\xff", "body: not CBOR")):
            with self.subTest(body=body[:20]):
                self.assert_refused(self.post("ControlDRLC", body, content=coap.CBOR), 400, words)

    def test_UnknownResourceIsNotFound(self):
        self.assertEqual(self.post("ControlEverything", b"{}").status, 404)
        with self.corvane.peer() as peer:
            self.assertEqual(peer.request(coap.GET, "Other/GetDefrostBlock").status, 404)

    def test_WrongMethodIsNotAllowed(self):
        for method, command in ((coap.GET, "ControlDRLC"), (coap.PUT, "SetDelayDefrost"),
                                (coap.DELETE, "GetDefrostReservations"),
                                (coap.POST, "SendDRLCNotify")):
            with self.subTest(method=method, command=command):
                self.assertEqual(self.corvane.request(method, command).status, 405)

    def test_OtherFormatsAreUnsupported(self):
        self.assertEqual(self.post("ControlDRLC", {"level": 2}, content=0).status, 415)
        self.assertEqual(self.post("ControlDRLC", {"level": 2}, accept=41).status, 406)

    def test_LongBodyIsTooLarge(self):
        body = b'{"level": 2, "start": "' + b"1" * 1002 + b'"}'
        self.assertGreater(len(body), 1024)
        self.assert_refused(self.post("ControlDRLC", body), 413, "1024 bytes")

    def test_BodyInSeveralBlocksIsTooLarge(self):
        first_of_more = coap.unsigned(0 << 4 | 1 << 3 | 2)
        answer = self.post("ControlDRLC", b'{"level": 2, "duration": "00:10:00"' + b" " * 29,
                           more=[(coap.BLOCK1, first_of_more)])
        self.assertEqual(answer.status, 413)


class Formats(ServiceTest):
    """Good requests in every form that there is."""

    def test_CborIsTakenAndGiven(self):
        order = b"\xa1\x67enabled\x01"
        answer = self.corvane.request(coap.POST, "SetDelayDefrost", order, content=coap.CBOR,
                                      accept=coap.CBOR)
        self.assertEqual((answer.status, answer.payload), (204, b"\xa1\x66result\x01"))
        self.assertEqual(answer.number(coap.FORMAT), coap.CBOR)
        answer = self.corvane.request(coap.GET, "GetDelayDefrost", accept=coap.CBOR)
        self.assertEqual((answer.status, answer.payload),
                         (205, b"\xa2\x66result\x01\x67enabled\x01"))

    def test_QueryMayBePosted(self):
        answer = self.corvane.request(coap.POST, "GetDefrostBlock")
        self.assertEqual((answer.status, answer.json), (204, {"result": 1, "block": 0}))
        self.assertEqual(answer.number(coap.FORMAT), coap.JSON)

    def test_RepeatedDatagramIsAnsweredAgainAndHandledOnce(self):
        token = b"once"
        request = coap.encode(
            coap.CON, coap.POST, 4711, token,
            [(coap.PATH, b"KestProxyTest"), (coap.PATH, b"ControlOverride")], b'{"override": 1}')
        mark = self.corvane.command_count()
        with self.corvane.peer() as peer:
            answers = [peer.exchange(request, token) for _ in range(3)]
        self.assertEqual([answer.status for answer in answers], [204] * 3)
        self.assertEqual(self.corvane.commands(mark).count("SET_SMARTGRID_OVERRIDE_FOREVER"), 1)
        self.assertEqual(self.corvane.service.output.count("Callback Set DR_Override From Kest"), 1)

    def test_ReservationTakesAnyPrintableText(self):
        description = "Été à 17 h – für alle"
        self.corvane.order("CreateDefrostReservations", description=description, **WINDOW)
        entries = self.corvane.get("GetDefrostReservations")["reservations"]
        self.assertEqual(entries[2]["description"], description)
        self.corvane.order("DelDefrostReservations", id="2")
