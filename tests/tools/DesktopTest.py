#!/usr/bin/python3
"""tools/desktop: what it brings up, passes on and leaves behind."""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

TOOL = os.path.join(os.path.dirname(__file__), "..", "..", "tools", "desktop")


def running_with(text):
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/environ", "rb") as file:
                environment = file.read()
            with open(f"/proc/{pid}/cmdline", "rb") as file:
                words = file.read()
        except OSError:
            continue
        if words and text.encode() in environment + words:
            found.append((int(pid), words))
    return found


def wait_until(condition, seconds=15.0):
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.02)
    return condition()


class DesktopTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="vardell desktop test ")
        self.dir = self.folder + "/a b"

    def tearDown(self):
        shutil.rmtree(self.folder)

    def start(self, *command, options=(), folder=None):
        return subprocess.Popen([TOOL, "--dir", folder or self.dir, *options, "--", *command],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def run_it(self, *command, options=()):
        process = self.start(*command, options=options)
        output, error = process.communicate(timeout=60)
        return process.returncode, output, error

    def test_everything_answers_when_the_command_runs(self):
        status, output, error = self.run_it(
            "sh", "-c", "xprop -root _NET_SUPPORTING_WM_CHECK; for name in Avahi login1 DBus; do "
            "dbus-send --system --print-reply=literal --dest=org.freedesktop.DBus / "
            "org.freedesktop.DBus.NameHasOwner string:org.freedesktop.$name; done; dbus-send "
            "--session --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetId "
            ">/dev/null && echo session; echo $QT_QPA_PLATFORM; stat -c %a $XDG_RUNTIME_DIR",
            options=["--login1"])
        self.assertEqual((status, error), (0, ""))
        self.assertIn("window id", output)
        self.assertEqual(output.count("boolean true"), 3)
        self.assertTrue(output.endswith("session\nxcb\n700\n"), output)

    def test_the_command_ends_it_with_its_own_status_or_signal(self):
        self.assertEqual(self.run_it("sh", "-c", "exit 7", options=["--no-avahi"])[0], 7)
        self.assertEqual(self.run_it("sh", "-c", "kill -ABRT $$", options=["--no-avahi"])[0],
                         -signal.SIGABRT)
        status, _, error = self.run_it("no-such-program", options=["--no-avahi"])
        self.assertEqual((status, error),
                         (127, "tools/desktop: no-such-program: No such file or directory\n"))

    def test_signals_reach_the_command(self):
        process = self.start("sh", "-c", "trap 'echo asked; exit 5' TERM; echo up; "
                             "while :; do sleep 0.05; done", options=["--no-avahi"])
        self.assertEqual(process.stdout.readline(), "up\n")
        process.terminate()
        self.assertEqual(process.communicate(timeout=30)[0], "asked\n")
        self.assertEqual(process.returncode, 5)

    def ended_by(self, victim_of):
        process = self.start("sh", "-c", "setsid sleep 600 & echo up; sleep 600")
        self.assertEqual(process.stdout.readline(), "up\n")
        self.assertGreater(len(running_with(self.dir)), 6)
        os.kill(victim_of(process.pid), signal.SIGKILL)
        left = lambda: [one for one in running_with(self.dir) if one[0] != process.pid]
        self.assertTrue(wait_until(lambda: not left()), left())
        process.communicate(timeout=30)

    def test_nothing_is_left_when_it_is_killed(self):
        self.ended_by(lambda pid: pid)

    def test_nothing_is_left_when_the_process_inside_is_killed(self):
        def inner(pid):
            with open(f"/proc/{pid}/task/{pid}/children") as file:
                return int(file.read().split()[0])
        self.ended_by(inner)

    def test_nothing_is_left_of_what_the_command_left_behind(self):
        self.assertEqual(self.run_it("sh", "-c", "setsid sleep 600 &", options=["--no-avahi"])[0], 0)
        self.assertEqual(running_with(self.dir), [])

    def test_two_at_a_time_do_not_meet(self):
        report = "echo $DISPLAY $DBUS_SYSTEM_BUS_ADDRESS $XDG_RUNTIME_DIR; read line"
        both = [subprocess.Popen([TOOL, "--dir", f"{self.folder}/{i}", "--", "sh", "-c", report],
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
                for i in range(2)]
        seen = [process.stdout.readline().split() for process in both]
        for process in both:
            process.communicate("\n", timeout=30)
        for one, other in zip(*seen):
            self.assertNotEqual(one, other)
        self.assertEqual([process.returncode for process in both], [0, 0])

    def test_avahi_can_be_stopped_and_started_again(self):
        owned = ("dbus-send --system --print-reply=literal --dest=org.freedesktop.DBus / "
                 "org.freedesktop.DBus.NameHasOwner string:org.freedesktop.Avahi")
        until = f"until {owned} | grep -q %s; do sleep 0.05; done; echo %s;"
        status, output, _ = self.run_it(
            "sh", "-c", "kill -USR2 $VARDELL_DESKTOP_PID;" + until % ("false", "gone") +
            "kill -USR1 $VARDELL_DESKTOP_PID;" + until % ("true", "back"))
        self.assertEqual((status, output), (0, "gone\nback\n"))

    def test_a_program_that_is_missing_is_named_with_its_package(self):
        with tempfile.TemporaryDirectory() as path:
            for program in ("dbus-daemon", "dbus-send", "Xvfb"):
                os.symlink(shutil.which(program), f"{path}/{program}")
            done = subprocess.run(["/usr/bin/python3", TOOL, "--dir", self.dir, "--", "true"],
                                  env={"PATH": path}, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (
            1, "tools/desktop: openbox is missing: install the Debian package openbox\n"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
