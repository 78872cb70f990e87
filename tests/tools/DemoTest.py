#!/usr/bin/python3
"""tools/demo with short seconds: it succeeds, and notices each step that is broken.

    DemoTest.py BIN     programs with test hooks
Skipped (77) where there is neither root nor a sudo that asks nothing.
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest

TOOL = os.path.join(os.path.dirname(__file__), "..", "..", "tools", "demo")
BIN = sys.argv[1]
SECOND_MS = "200"  # what comes before the clock's launch must take less than a counted minute


def play(*options):
    with tempfile.TemporaryDirectory(prefix="vardell demo test ") as folder:
        done = subprocess.run([TOOL, "--bin", BIN, "--dir", folder + "/run", "--second-ms",
                               SECOND_MS, *options], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False, timeout=240)
        logs = ""
        for name in ("agent", "server"):
            path = f"{folder}/run/{name}.log"
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as log:
                    logs += f"--- {name}\n{log.read()}"
        pictures = [name for name in os.listdir(folder + "/run") if name.endswith(".png")]
    return done, logs, pictures


def rows(output):
    return re.findall(r"^(ok|NO)  (.*?)  ", output, re.MULTILINE)


class DemoTest(unittest.TestCase):
    def test_everything_is_seen(self):
        done, logs, pictures = play()
        self.assertEqual(done.returncode, 0, done.stdout + logs)
        self.assertEqual([state for state, _ in rows(done.stdout)], ["ok"] * 19, done.stdout)
        self.assertLessEqual({"lock.png", "five-minute-warning.png", "overlay.png", "status-menu.png",
                              "last-minute-warning.png"}, set(pictures))
        self.assertIn("Left running: nothing.", done.stdout)

    def broken(self, step, claim):
        done, logs, _ = play("--break", step)
        self.assertEqual(done.returncode, 1, done.stdout + logs)
        table = rows(done.stdout)
        self.assertEqual([name for state, name in table if state == "NO"], [claim],
                         done.stdout + logs)
        self.assertIn("Left running: nothing.", done.stdout)

    def test_a_lock_that_does_not_stay_is_noticed(self):
        self.broken("lock", "the lock stays, and no second is counted under it")

    def test_a_limit_that_is_not_set_is_noticed(self):
        self.broken("limit", "minute 1 of 2 begins (paid in advance): report 1")

    def test_an_application_that_ends_too_early_is_noticed(self):
        self.broken("application", "the clock is gone at 121 s")

    def test_credit_that_is_lost_with_the_server_is_noticed(self):
        self.broken("store", "kill -9 of the Server half-way, started anew: the credit is intact")

    def test_a_leader_that_the_agent_may_end_itself_is_noticed(self):
        self.broken("leader", "the person, and so the agent, may not signal the session leader")


if __name__ == "__main__":
    if os.geteuid() != 0 and subprocess.run(["sudo", "-n", "true"], check=False,
                                            capture_output=True).returncode != 0:
        print("skipped: neither root nor sudo without a password")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
