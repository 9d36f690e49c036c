#!/usr/bin/env python3
"""Runs one class of system tests, as one process with a network of its own.

    CORVANE_BIN=build/dev/bin tests/system/run_test.py MODULE.CLASS[.TEST]

The process first moves into a network namespace of its own, where every port is free, and so all
classes can run side by side. Where a journal runs, its socket is hidden: the programs then log to
standard error, where the tests read.
"""

import os
import sys
import unittest

sys.dont_write_bytecode = True  # the tree stays as it is

import harness

MOVED = "CORVANE_TEST_HAS_ITS_NETWORK"
JOURNAL = "/run/systemd/journal"


def move_into_namespace():
    os.environ[MOVED] = "1"
    unshare = ["unshare", "--net"]
    if os.path.isdir(JOURNAL):
        unshare.append("--mount")
    if os.geteuid() != 0:
        unshare.insert(1, "--map-root-user")
    hide_journal = f'[ ! -d {JOURNAL} ] || mount -t tmpfs tmpfs {JOURNAL}; exec "$@"'
    os.execvp("unshare", unshare + ["sh", "-ec", hide_journal, "sh", sys.executable] + sys.argv)


def main():
    if len(sys.argv) != 2 or "CORVANE_BIN" not in os.environ:
        sys.exit("usage: CORVANE_BIN=FOLDER run_test.py MODULE.CLASS[.TEST]")
    if MOVED not in os.environ:
        move_into_namespace()
    harness.set_up_process()
    suite = unittest.defaultTestLoader.loadTestsFromName(sys.argv[1])
    if suite.countTestCases() == 0:
        sys.exit(f"run_test.py: {sys.argv[1]} holds no test")
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    complaints = harness.tear_down_process()
    for complaint in complaints:
        print(f"FAIL: {complaint}", file=sys.stderr)
    passed = result.wasSuccessful() and not result.skipped and not complaints
    if not passed:
        harness.print_logs()
    sys.exit(0 if passed else 1)


if __name__ == "__main__":
    main()
