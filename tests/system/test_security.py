"""Outside the machine there are only peers with a key."""

import os

from harness import Instance, SystemTest

LISTEN = "0.0.0.0:5684"
IDENTITY, KEY = "controller", "a key of 24 bytes length"


class Security(SystemTest):
    """One service on every address, with a key file, and several that must not start."""

    @classmethod
    def setUpClass(cls):
        cls.corvane = Instance(listen=LISTEN)
        cls.key_file = cls.write_keys(cls.corvane, f"{IDENTITY}:{KEY.encode().hex()}\n")
        cls.corvane.environment["CORVANE_COAP_PSK_FILE"] = cls.key_file
        cls.corvane.start()

    @classmethod
    def tearDownClass(cls):
        assert cls.corvane.service.stop() == 0

    @staticmethod
    def write_keys(instance, text, mode=0o600):
        path = instance.folder + "/keys"
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        os.chmod(path, mode)
        return path

    def ask(self, identity, key):
        return self.corvane.coap_client("get", "GetDefrostBlock", None, "-B", "3", "-u", identity,
                                        "-k", key, scheme="coaps")

    def assert_answered(self):
        done = self.ask(IDENTITY, KEY)
        self.assertEqual(done.output.strip(), '{"result":1,"block":0}', done.whole)

    def assert_refuses_to_start(self, instance, *words):
        service = instance.start_service()
        self.assertEqual(service.wait(), 1)
        lines = [line for line in service.log.splitlines() if line.startswith("corvane: ")]
        self.assertEqual(len(lines), 1, service.log)
        for word in words:
            self.assertIn(word, lines[0])
        self.assertNotIn("create", service.output)

    def test_RightKeyIsAnswered(self):
        self.assert_answered()

    def test_WrongKeyIsNotAnswered(self):
        done = self.ask(IDENTITY, KEY[::-1])
        self.assertNotIn("block", done.output)
        self.assert_answered()

    def test_WrongIdentityIsNotAnswered(self):
        done = self.ask("intruder", KEY)
        self.assertNotIn("block", done.output)
        self.assert_answered()

    def test_PlainCoapIsNotAnswered(self):
        done = self.corvane.coap_client("get", "GetDefrostBlock", None, "-B", "2", scheme="coap")
        self.assertNotIn("block", done.output)
        self.assert_answered()

    def test_ClientWithTheKeyIsServed(self):
        url = "coaps://127.0.0.1:5684"
        done = self.corvane.ctl("--url", url, "--psk-file", self.key_file, "--json", "status")
        self.assertEqual(done.status, 0, done.whole)
        self.assertEqual(done.json["block"], 0)

    def test_ClientWithAnotherKeyFails(self):
        other = self.corvane.folder + "/other"
        with open(other, "w", encoding="ascii") as file:
            file.write(f"{IDENTITY}:{KEY[::-1].encode().hex()}\n")
        os.chmod(other, 0o600)
        done = self.corvane.ctl("--url", "coaps://127.0.0.1:5684", "--psk-file", other,
                                "--timeout", "2", "energy")
        self.assertEqual(done.status, 1, done.whole)
        self.assertEqual(len(done.errors.splitlines()), 1)

    def test_OutsideAddressWithoutKeyFileIsRefused(self):
        self.assert_refuses_to_start(Instance("open", "0.0.0.0:5700"), "0.0.0.0:5700",
                                     "CORVANE_COAP_PSK_FILE", "CORVANE_COAP_LISTEN")

    def test_KeyFileThatOthersCanReadIsRefused(self):
        instance = Instance("readable", "0.0.0.0:5701")
        path = self.write_keys(instance, f"{IDENTITY}:{KEY.encode().hex()}\n", 0o644)
        instance.environment["CORVANE_COAP_PSK_FILE"] = path
        self.assert_refuses_to_start(instance, path, "chmod 600")

    def test_ShortKeyIsRefusedAndNotShown(self):
        instance = Instance("short", "0.0.0.0:5702")
        path = self.write_keys(instance, f"{IDENTITY}:0badc0ffee\n")
        instance.environment["CORVANE_COAP_PSK_FILE"] = path
        self.assert_refuses_to_start(instance, path, "line 1")
        self.assertNotIn("0badc0ffee", instance.service.log)
