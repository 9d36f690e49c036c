"""What the system tests stand on: the real programs in folders and a network of their own.

An Instance is one service with its folders and its address; its Programs run in them. Whatever a
test expects to happen it waits for, with a deadline that only a failure reaches. What the programs
printed is shown when a test fails, and at no other time.
"""

import contextlib
import ctypes
import fcntl
import glob
import http.server
import json
import os
import re
import resource
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import tempfile
import threading
import time
import unittest

import coap

DEADLINE_SEC = 60
POLL_SEC = 0.01
SHOWN_LINES = 150

COMMANDS = "memory/refrigerator/TxMessage"
LEVEL_ECHO = "memory/refrigerator/SmartGridDrLevel"
OVERRIDE_ECHO = "memory/refrigerator/SmartGridOverrideState"
LEVEL = "db/corvane/dr/level"
OVERRIDE = "db/corvane/dr/override"
DISPLAY_OVERRIDE = "db/corvane/dr/micom_override"
DEFROST_ENABLED = "db/corvane/defrost/status"
DEFROST_ACTIVE = "db/corvane/defrost/activate"
WIFI_CONNECTED = "memory/wifi/connected"

NORMAL = "SET_SMARTGRID_LEVEL_NORMAL"
LAUNCHED = [
    "start DefrostDelay Thread!!",
    "start EnergyDR Thread!!",
    "start EnergyReport Thread!!",
]
SANITIZER_REPORT = re.compile(
    r"(ERROR|WARNING): \w*Sanitizer|runtime error:|SUMMARY: \w*Sanitizer"
)

_libc = ctypes.CDLL(None, use_errno=True)
_PR_SET_CHILD_SUBREAPER = 36
_SIOCGIFFLAGS, _SIOCSIFFLAGS, _IFF_UP = 0x8913, 0x8914, 1

_folder = None
_programs = []


# ---- the test process ---------------------------------------------------------------------------


def set_up_process():
    global _folder
    base = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    _folder = tempfile.mkdtemp(prefix="corvane-system-", dir=base)
    # Grandchildren that lose their parent become children here, where they are noticed.
    _libc.prctl(_PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sH14x", b"lo", 0)
        flags = struct.unpack("16sH14x", fcntl.ioctl(any_socket, _SIOCGIFFLAGS, request))[1]
        fcntl.ioctl(any_socket, _SIOCSIFFLAGS, struct.pack("16sH14x", b"lo", flags | _IFF_UP))


def _children():
    with open(f"/proc/self/task/{os.getpid()}/children", encoding="ascii") as file:
        return [int(pid) for pid in file.read().split()]


def _no_child_left():
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0] != 0:
            pass
    return not _children()


def tear_down_process():
    """Gives what was found wrong after the last test, one text each."""
    complaints = [f"{program.name} was left running" for program in _programs if program.is_alive()]
    for program in _programs:
        program.kill()
    try:
        wait_for("the end of what the programs started", _no_child_left, 5)
    except AssertionError as failure:
        complaints.append(str(failure))
        for pid in _children():
            os.kill(pid, signal.SIGKILL)
    complaints += [
        f"{program.name}: {line}"
        for program in _programs
        for line in program.sanitizer_reports()
    ]
    shutil.rmtree(_folder, ignore_errors=True)
    return complaints


def print_logs():
    for program in _programs:
        for stream, text in (("output", program.output), ("log", program.log)):
            lines = text.splitlines()
            shown = lines[-SHOWN_LINES:]
            print(f"---- {program.name}, {stream}: {len(shown)} of {len(lines)} lines ----")
            print("\n".join(shown))


def wait_for(what, probe, deadline_sec=DEADLINE_SEC):
    """Calls the probe until it gives something true, and gives that."""
    deadline = time.monotonic() + deadline_sec
    while True:
        found = probe()
        if found:
            return found
        if time.monotonic() > deadline:
            raise AssertionError(f"did not happen within {deadline_sec} s: {what}")
        time.sleep(POLL_SEC)


# ---- programs -----------------------------------------------------------------------------------


class Program:
    """A running program whose standard output and error go to files."""

    def __init__(self, name, arguments, environment, folder):
        self.name = name
        self._base = tempfile.mktemp(prefix=name.replace(" ", "-") + ".", dir=folder)
        self._texts = {}
        with open(self._base + ".out", "wb") as out, open(self._base + ".err", "wb") as err:
            # Should this process be killed, its programs go with it.
            self._process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL"] + arguments,
                stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=environment,
            )
        self.pid = self._process.pid
        _programs.append(self)

    def _text(self, suffix):
        if suffix in self._texts:
            return self._texts[suffix]
        is_final = not self.is_alive()
        with open(self._base + suffix, encoding="utf-8", errors="replace") as file:
            text = file.read()
        if is_final:
            self._texts[suffix] = text  # outlives the folder
        return text

    @property
    def output(self):
        """Standard output: for the service, its own lines without time."""
        return self._text(".out")

    @property
    def log(self):
        """Standard error: for the service, its own and the platform's lines with their time."""
        return self._text(".err")

    @property
    def log_bytes(self):
        return os.path.getsize(self._base + ".out") + os.path.getsize(self._base + ".err")

    def lines(self, text):
        """The lines of both streams that contain the text."""
        return [line for line in (self.output + self.log).splitlines() if text in line]

    def time_of(self, text):
        """The time of the first line of the log that contains the text, in seconds of its day."""
        for line in self.log.splitlines():
            if text in line:
                hours, minutes, seconds = line[11:23].split(":")
                return int(hours) * 3600 + int(minutes) * 60 + float(seconds)
        raise AssertionError(f"{self.name} has not logged: {text}")

    def wait_for_output(self, text, count=1, deadline_sec=DEADLINE_SEC):
        def happened():
            if self.output.count(text) >= count:
                return True
            if not self.is_alive():
                raise AssertionError(f"{self.name} ended without the output: {text}")
            return False

        wait_for(f"{self.name} prints: {text}", happened, deadline_sec)

    def is_alive(self):
        return self._process.poll() is None

    def send(self, number):
        self._process.send_signal(number)

    def wait(self, deadline_sec=DEADLINE_SEC):
        """The exit status; a negative one is the signal that ended the program."""
        try:
            return self._process.wait(deadline_sec)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} still runs after {deadline_sec} s") from None

    def kill(self):
        if self.is_alive():
            self.send(signal.SIGKILL)
            self.wait()

    def stop(self, number=signal.SIGTERM):
        self.send(number)
        return self.wait()

    def sanitizer_reports(self):
        return [
            line for line in (self.log + self.output).splitlines() if SANITIZER_REPORT.search(line)
        ]


class Done:
    """How a short program ended."""

    def __init__(self, process):
        self.status = process.returncode
        self.output = process.stdout
        self.errors = process.stderr

    @property
    def json(self):
        return json.loads(self.output)

    @property
    def whole(self):
        return f"status {self.status}\n{self.output}{self.errors}"


# ---- an instance of the service -----------------------------------------------------------------


class Setting:
    """The file of one settings key: its value, and the values before it."""

    def __init__(self, text):
        lines = text.splitlines()
        self.values = [self._value(line) for line in lines[:1] + lines[2:]]  # newest first
        self.number = int(lines[1].split()[1])  # of the newest: 1 for the first one ever

    @staticmethod
    def _value(line):
        kind, _, text = line.partition(" ")
        return int(text) if kind == "int" else text


class Instance:
    """The service with folders and an address of its own."""

    def __init__(self, name="corvane", listen="127.0.0.1:5683", **environment):
        self.name = name
        self.folder = os.path.join(_folder, name)
        self.state = os.path.join(self.folder, "state")
        self.runtime = os.path.join(self.folder, "runtime")
        os.makedirs(self.folder)
        host, _, port = listen.rpartition(":")
        self.address = ("127.0.0.1" if host == "0.0.0.0" else host, int(port))
        self.url = "coap://%s:%d" % self.address
        self.environment = {
            "PATH": os.environ["PATH"],
            "TZ": "UTC",
            "CORVANE_STATE_DIR": self.state,
            "CORVANE_RUNTIME_DIR": self.runtime,
            "CORVANE_COAP_LISTEN": listen,
            "CORVANE_COAP_URL": self.url,
            **{key: os.environ[key] for key in os.environ if key.endswith("SAN_OPTIONS")},
            **environment,
        }
        self.service = None

    # -- programs --

    def start_program(self, *command, before=()):
        """Starts a program of ours, or of the system, in this instance's environment."""
        program, *arguments = command
        ours = os.path.join(os.environ["CORVANE_BIN"], program)
        path = ours if os.path.exists(ours) else program
        name = " ".join([self.name, os.path.basename(program), *arguments[:2]]).replace("/", ":")
        return Program(name, [*before, path, *arguments], self.environment, self.folder)

    def start_service(self, before=()):
        """Starts the service and no more: it has not even opened its folders yet."""
        self.service = self.start_program("corvane", before=before)
        return self.service

    def start(self):
        """Starts the service with Wi-Fi connected and waits until everything is up."""
        self.connect_wifi()
        self.start_service()
        self.wait_until_launched()
        return self.service

    def connect_wifi(self, connected=1):
        self.write(WIFI_CONNECTED, connected)

    def wait_until_launched(self):
        for line in LAUNCHED:
            self.service.wait_for_output(line)

    def settle(self):
        """Confirms the normal level, as the Micom does to the first command of a new service.

        That first confirmation resets whatever is ordered already, so it is waited for.
        """
        self.write(LEVEL_ECHO, 0)
        self.service.wait_for_output("DR] Info that is changed Level send KestD : 0")

    def ctl(self, *arguments):
        """Runs corvanectl to its end."""
        program = os.path.join(os.environ["CORVANE_BIN"], "corvanectl")
        return Done(subprocess.run(
            [program, *arguments], env=self.environment, capture_output=True, text=True,
            timeout=DEADLINE_SEC, check=False,
        ))

    def coap_client(self, method, resource, body=None, *options, scheme="coap"):
        """Runs Debian's CoAP client to its end."""
        arguments = ["coap-client-openssl", "-m", method, "-B", "30", *options]
        if body is not None:
            arguments += ["-t", str(coap.JSON), "-e", body]
        url = "%s://%s:%d/KestProxyTest/%s" % (scheme, *self.address, resource)
        return Done(subprocess.run(
            arguments + [url], capture_output=True, text=True, timeout=DEADLINE_SEC, check=False,
        ))

    # -- CoAP --

    def peer(self):
        return coap.Peer(self.address, DEADLINE_SEC)

    def request(self, method, command, body=b"", **options):
        with self.peer() as peer:
            return peer.request(method, "KestProxyTest/" + command, body, **options)

    def get(self, command):
        """The answer to a query, which has to succeed."""
        answer = self.request(coap.GET, command)
        if answer.status != 205:
            raise AssertionError(f"{command}: {answer}")
        return answer.json

    def order(self, command, **members):
        """The answer to an order, which has to succeed."""
        answer = self.request(coap.POST, command, members)
        if answer.status != 204:
            raise AssertionError(f"{command} {members}: {answer}")
        return answer.json

    def observe(self, notification):
        return coap.Observer(self.address, DEADLINE_SEC, "KestProxyTest/" + notification)

    # -- settings --

    def setting_path(self, key):
        root, _, rest = key.partition("/")
        parent = self.state if root == "db" else self.runtime
        return os.path.join(parent, "settings", root, rest.replace("/", ":"))

    def setting(self, key):
        """The file of the key, or None when it has never been written."""
        try:
            with open(self.setting_path(key), encoding="utf-8") as file:
                return Setting(file.read())
        except FileNotFoundError:
            return None

    def value(self, key):
        setting = self.setting(key)
        return setting.values[0] if setting else None

    def write(self, key, value):
        done = self.ctl("settings", "set", key, str(value))
        if done.status != 0:
            raise AssertionError(f"cannot write {key}: {done.whole}")

    def wait_for_value(self, key, value):
        wait_for(f"{key} becomes {value!r}", lambda: self.value(key) == value)

    # -- commands to the Micom --

    def command_count(self):
        setting = self.setting(COMMANDS)
        return setting.number if setting else 0

    def commands(self, after=0):
        """The commands in their order, without the first so many."""
        setting = self.setting(COMMANDS)
        if setting is None or setting.number <= after:
            return []
        return setting.values[: setting.number - after][::-1]

    def wait_for_command(self, command, after=0):
        wait_for(f"the command {command}", lambda: command in self.commands(after))

    # -- tables --

    def rows(self, table, file="corvane.db", order="1"):
        """All rows of a table, read beside the running service."""
        with contextlib.closing(sqlite3.connect(
            f"file:{self.state}/db/{file}?mode=ro", uri=True, timeout=DEADLINE_SEC
        )) as database:
            return database.execute(f"SELECT * FROM {table} ORDER BY {order}").fetchall()

    def event(self):
        """The stored demand-response event: rowid, level, duration, start; or None."""
        rows = self.rows("dr_usage_table")
        assert len(rows) <= 1, rows
        return rows[0] if rows else None

    def reservation_ids(self):
        return [row[0] for row in self.rows("defrost_usage_table")]

    # -- everything at once --

    def snapshot(self):
        """What must stay the same when nothing is supposed to change."""
        keys = sorted(
            os.path.basename(path) for path in glob.glob(self.state + "/settings/db/*")
        )
        return {
            "settings": {
                key: self.setting("db/" + key.replace(":", "/")).values[0] for key in keys
            },
            "event": self.rows("dr_usage_table"),
            "reservations": self.rows("defrost_usage_table"),
            "level and override": self.get("GetDRLCOverride"),
            "block": self.get("GetDefrostBlock"),
            "defrost": self.get("GetDelayDefrost"),
        }


class SystemTest(unittest.TestCase):
    """A test class with the checks that most of them need."""

    maxDiff = None

    def assert_commands_in_order(self, instance, commands, after=0):
        """The commands came in this order, whatever else was repeated in between."""
        rest = iter(instance.commands(after))
        for command in commands:
            self.assertIn(command, rest, f"of {commands} in {instance.commands(after)}")

    def assert_stops(self, program, number=signal.SIGTERM, status=0):
        self.assertTrue(program.is_alive(), f"{program.name} has ended by itself")
        self.assertEqual(program.stop(number), status)
        self.assertEqual(program.sanitizer_reports(), [])


class ServiceTest(SystemTest):
    """A class whose tests share one running service, which has to stop well after the last."""

    environment = {}

    @classmethod
    def setUpClass(cls):
        cls.corvane = Instance(**cls.environment)
        cls.corvane.start()

    @classmethod
    def tearDownClass(cls):
        status = cls.corvane.service.stop()
        if status != 0:
            raise AssertionError(f"the service stopped with status {status}")


# ---- the metering service -----------------------------------------------------------------------


class Metering:
    """An HTTP listener in the place of the metering service, which keeps what it is told.

    A hanging one takes the request and never answers.
    """

    def __init__(self, hangs=False):
        self.requests = []
        metering = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                metering.requests.append((self.command, self.path))
                if hangs:
                    metering._closing.wait()
                    return
                self.send_response(200)
                self.send_header("Content-Length", "0")
                self.end_headers()

            do_GET = do_PUT = do_POST

            def log_message(self, *_):
                pass

        self._closing = threading.Event()
        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 7777), Handler)
        self._thread = threading.Thread(target=self._server.serve_forever, args=(0.02,))
        self._thread.start()

    def wait_for_requests(self, count):
        wait_for(f"{count} metering requests", lambda: len(self.requests) >= count)
        return self.requests

    def close(self):
        self._closing.set()
        self._server.shutdown()
        self._server.server_close()
        self._thread.join()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def write_energy(instance, counts):
    """What the Micom does when it reports: four bytes, the last one is the signal."""
    for place, byte in enumerate(counts.to_bytes(4, "big"), 1):
        instance.write(f"memory/refrigerator/SmartGridWatt{place}", byte)
