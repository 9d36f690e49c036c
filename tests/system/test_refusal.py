"""What makes the service refuse to start, in one line, and what it starts in spite of."""

import os
import socket

from harness import LEVEL, NORMAL, Instance, SystemTest


class RefusalToStart(SystemTest):
    """Each test has a service of its own that cannot start."""

    def setUp(self):
        self.corvane = Instance(self.id().rpartition("_")[2])

    def assert_refuses_to_start(self, *words, before=()):
        service = self.corvane.start_service(before=before)
        self.assertEqual(service.wait(), 1, service.log)
        lines = [line for line in service.log.splitlines() if line.startswith("corvane: ")]
        self.assertEqual(len(lines), 1, service.log)
        for word in words:
            self.assertIn(word, lines[0])
        self.assertEqual(service.output.splitlines(), ["[main:30] main"])
        self.assertEqual(service.sanitizer_reports(), [])

    def test_PortInUse(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(self.corvane.address)
            self.assert_refuses_to_start("127.0.0.1:5683", "in use", "CORVANE_COAP_LISTEN")

    def test_SecondServiceOnThePort(self):
        first = Instance("first")
        first.connect_wifi(0)
        first.start_service().wait_for_output("wifi not connected")
        self.assert_refuses_to_start("127.0.0.1:5683", "in use", "CORVANE_COAP_LISTEN")
        self.assert_stops(first.service)

    def test_SecondServiceOnTheFolders(self):
        first = Instance("owner")
        first.connect_wifi(0)
        first.start_service().wait_for_output("wifi not connected")
        for name in ("CORVANE_STATE_DIR", "CORVANE_RUNTIME_DIR"):
            self.corvane.environment[name] = first.environment[name]
        self.corvane.environment["CORVANE_COAP_LISTEN"] = "127.0.0.1:5684"
        self.assert_refuses_to_start(first.state, "another service", "CORVANE_STATE_DIR")
        self.assert_stops(first.service)

    def test_AddressThatIsNone(self):
        self.corvane.environment["CORVANE_COAP_LISTEN"] = "localhost"
        self.assert_refuses_to_start('"localhost"', "CORVANE_COAP_LISTEN")

    def test_FileInThePlaceOfTheStateFolder(self):
        with open(self.corvane.state, "w", encoding="ascii"):
            pass
        self.assert_refuses_to_start(self.corvane.state, "Not a directory", "CORVANE_STATE_DIR")

    def test_FileInThePlaceOfTheRuntimeFolder(self):
        with open(self.corvane.runtime, "w", encoding="ascii"):
            pass
        self.assert_refuses_to_start(self.corvane.runtime, "Not a directory",
                                     "CORVANE_RUNTIME_DIR")

    def test_FileInThePlaceOfTheSettings(self):
        os.makedirs(self.corvane.state)
        with open(self.corvane.state + "/settings", "w", encoding="ascii"):
            pass
        self.assert_refuses_to_start(self.corvane.state, "CORVANE_STATE_DIR")

    def test_FileInThePlaceOfTheDatabases(self):
        os.makedirs(self.corvane.state)
        with open(self.corvane.state + "/db", "w", encoding="ascii"):
            pass
        self.assert_refuses_to_start(self.corvane.state + "/db", "CORVANE_STATE_DIR")

    def test_StateFolderThatCannotBeWritten(self):
        os.makedirs(self.corvane.state, mode=0o500)
        # The superuser may write anywhere unless this capability is taken away.
        self.assert_refuses_to_start(
            self.corvane.state, "Permission denied", "CORVANE_STATE_DIR",
            before=["setpriv", "--inh-caps=-dac_override", "--bounding-set=-dac_override"])

    def test_RelativeStateFolder(self):
        self.corvane.environment["CORVANE_STATE_DIR"] = "state"
        self.assert_refuses_to_start('"state"', "CORVANE_STATE_DIR")


class Damage(SystemTest):
    """A service whose files were damaged."""

    @classmethod
    def setUpClass(cls):
        cls.corvane = Instance()
        cls.corvane.write(LEVEL, 3)
        cls.path = cls.corvane.setting_path(LEVEL)
        with open(cls.path, "wb") as file:
            file.write(b"int 3\nchan\xff\x00ge")
        with open(os.path.dirname(cls.path) + "/.new-1-1", "w", encoding="ascii") as file:
            file.write("int 4\n")
        cls.corvane.start()

    @classmethod
    def tearDownClass(cls):
        assert cls.corvane.service.stop() == 0

    def test_DamagedSettingIsWarnedOfOnceAndReadsAsNone(self):
        self.corvane.get("GetDRLCOverride")  # reads the key again, as the level is unknown
        warnings = [line for line in self.corvane.service.log.splitlines() if " W " in line]
        self.assertEqual(len(warnings), 1, warnings)
        self.assertIn(LEVEL, warnings[0])
        self.assertIn(self.path, warnings[0])
        self.assert_commands_in_order(self.corvane, [NORMAL])
        self.assertNotIn("SET_SMARTGRID_LEVEL3", self.corvane.commands())

    def test_FilesOfKilledWritersAreSwept(self):
        self.assertEqual([name for name in os.listdir(os.path.dirname(self.path))
                          if name.startswith(".new-")], [])

    def test_WritingTheKeyMendsIt(self):
        self.corvane.settle()
        self.corvane.wait_for_value(LEVEL, 0)


class ArgumentsOfTheService(SystemTest):
    """It takes none, and says so before anything of it starts."""

    def setUp(self):
        self.corvane = Instance(self.id().rpartition("_")[2])

    def run_to_end(self, *command):
        program = self.corvane.start_program(*command)
        status = program.wait()
        self.assertEqual(program.sanitizer_reports(), [])
        return status, program.output, program.log

    def test_CallForHelpShowsTheHelpAlone(self):
        for name in ("corvane", "corvane-timelapse"):
            with self.subTest(name=name):
                status, output, errors = self.run_to_end(name, "--help")
                self.assertEqual((status, errors), (0, ""))
                self.assertTrue(output.startswith("Usage: corvane\n"), output)
                status, output, errors = self.run_to_end(name, "--version")
                self.assertEqual((status, errors), (0, ""))
                self.assertRegex(output, r"\Acorvane [0-9.]+\n\Z")

    def test_OtherArgumentIsOneLineAndStatusTwo(self):
        status, output, errors = self.run_to_end("corvane", "--verbose")
        self.assertEqual((status, output), (2, ""))
        self.assertRegex(errors, r'\Acorvane: the argument "--verbose" is not known[^\n]*\n\Z')
