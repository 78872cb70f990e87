"""What the scenes of the demonstration are played with: who says what was seen, the programs and their
processes, vardellctl, and the person for whom the agent runs."""

import json
import os
import pwd
import select
import shutil
import signal
import subprocess
import time

from demo_screen import Screen

SLACK = 8.0  # real seconds that programs may take beyond the counting


class Trouble(Exception):
    """Nothing more can be shown."""


class Enough(Exception):
    """What was broken was noticed."""


class Show:
    """Says what happens, with the time, to the terminal and to a log; keeps the closing table."""

    def __init__(self, folder, stops_at_first):
        self.start = time.monotonic()
        self.stops_at_first = stops_at_first  # claim that is not seen
        self.log = open(folder + "/demo.log", "w", encoding="utf-8")
        self.table = []

    def say(self, text=""):
        stamp = f"{time.strftime('%H:%M:%S')} {time.monotonic() - self.start:6.1f} s  "
        for line in text.split("\n"):
            print(stamp + line if line else "", flush=True)
            print(stamp + line if line else "", file=self.log, flush=True)

    def claim(self, claim, expected, seen, proof, holds):
        self.say(f"{'seen    ' if holds else 'NOT SEEN'}  {claim}\n"
                 f"          expected: {expected}\n          seen:     {seen}")
        self.table.append((claim, expected, seen, proof, bool(holds)))
        if self.stops_at_first and not holds:
            raise Enough

    def close(self):
        rows = [("", "Claim", "Seen", "Proof")] + [
            ("ok" if holds else "NO", claim, str(seen), proof)
            for claim, _, seen, proof, holds in self.table]
        widths = [max(len(row[i]) for row in rows) for i in range(4)]
        lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
                 for row in rows]
        lines.insert(1, "-" * max(map(len, lines)))
        for line in [""] + lines + [""]:
            print(line, flush=True)
            print(line, file=self.log, flush=True)
        return all(row[4] for row in self.table)


class Process:
    """A program that was started here, and the moments of its beginning and end."""

    def __init__(self, pid, began=None):
        self.pid = pid
        self.pidfd = os.pidfd_open(pid)
        self.began = began or time.monotonic()

    def ended_within(self, seconds):
        poller = select.poll()
        poller.register(self.pidfd, select.POLLIN)
        deadline = time.monotonic() + seconds
        while True:
            left = deadline - time.monotonic()
            if poller.poll(max(0, left * 1000)):
                return time.monotonic()
            if left <= 0:
                return None

    def lives(self):
        return self.ended_within(0) is None

    def signal(self, number):
        if self.lives():
            signal.pidfd_send_signal(self.pidfd, number)


def become(person):
    os.initgroups(person.pw_name, person.pw_gid)
    os.setgid(person.pw_gid)
    os.setuid(person.pw_uid)


def redirect(path):
    log = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
    os.dup2(os.open("/dev/null", os.O_RDONLY), 0)
    os.dup2(log, 1)
    os.dup2(log, 2)


def start(arguments, log, environment, person=None):
    began = time.monotonic()
    pid = os.fork()
    if pid == 0:
        try:
            redirect(log)
            os.setsid()
            if person:
                become(person)
            os.chdir("/")
            os.execve(arguments[0], arguments, environment)
        except OSError as error:
            os.write(2, f"{arguments[0]}: {error}\n".encode())
        os._exit(127)
    return Process(pid, began)


class Stage:
    def __init__(self, options):
        self.options = options
        self.dir, self.work = options.dir, options.work
        self.second = options.second_ms / 1000.0
        self.person = pwd.getpwnam(options.user)
        self.show = Show(self.dir, options.broken is not None)
        self.screen = Screen(self.dir)
        self.server = self.agent = self.leader = None
        self.runtime = self.work + "/runtime"
        os.mkdir(self.runtime, 0o700)
        os.chown(self.runtime, self.person.pw_uid, self.person.pw_gid)
        if options.temporary_user:
            os.mkdir(self.person.pw_dir, 0o755)
            os.chown(self.person.pw_dir, self.person.pw_uid, self.person.pw_gid)

    def environment(self):
        kept = {name: os.environ[name] for name in ("DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "PATH")}
        kept.update(LANG="C.UTF-8", HOME=self.person.pw_dir, USER=self.person.pw_name,
                    LOGNAME=self.person.pw_name, XDG_RUNTIME_DIR=self.runtime)
        if self.options.second_ms != 1000:
            kept["VARDELL_TEST_SECOND_MS"] = str(self.options.second_ms)
        return kept

    def log_of(self, name):
        try:
            with open(f"{self.dir}/{name}.log", encoding="utf-8", errors="replace") as log:
                return log.read()
        except OSError:
            return ""

    def seconds(self, count):
        return count * self.second

    def wait(self, condition, seconds):
        """What `condition` gives once it is true, or its last answer at the deadline."""
        deadline = time.monotonic() + seconds
        while True:
            answer = condition()
            if answer or time.monotonic() > deadline:
                return answer
            time.sleep(0.05)

    def stays(self, condition, seconds):
        """True where `condition` holds whenever it is looked at for so long. A moment's exception is
        none: that is how long a window manager's window may stand in the wrong place."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            if not self.wait(condition, 0.2):
                return False
            time.sleep(0.05)
        return bool(self.wait(condition, 0.2))

    # -- vardellctl --

    def ctl(self, *words):
        done = subprocess.run([self.work + "/bin/vardellctl", "--control",
                               self.work + "/control.sock", "--json", *words],
                              env=self.environment(), text=True, check=False, timeout=60,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return json.loads(done.stdout) if done.returncode == 0 else None

    def must(self, *words):
        answer = self.ctl(*words)
        if answer is None:
            raise Trouble(f"vardellctl {' '.join(words)} failed; see {self.dir}/server.log")
        return answer

    def rows(self, identifier):
        answer = self.ctl("ledger", self.person.pw_name, identifier)
        return answer["rows"] if answer else []

    def reports(self, identifier):
        return [row for row in self.rows(identifier) if row["claimed"] is not None]

    def claims(self, identifier):
        return [row["claimed"] for row in self.reports(identifier)]

    def credit(self, identifier):
        answer = self.ctl("limits", "show", self.person.pw_name, identifier)
        return answer["credit"] if answer else None

    # -- programs --

    def furnish(self):
        def run(name, *arguments):
            start([shutil.which(name), *arguments], f"{self.dir}/{name}.log", self.environment(),
                  self.person)

        self.screen.furnish(run)

    def start_server(self, store):
        self.server = start([self.work + "/bin/vardell-server", "--listen", "127.0.0.1:0",
                             "--store", store, "--control", self.work + "/control.sock"],
                            self.dir + "/server.log", self.environment())
        status = self.wait(lambda: self.published() or not self.server.lives(), 15)
        if not isinstance(status, dict):
            raise Trouble("the Server did not start: " +
                          (self.log_of("server").strip().split("\n")[-1] or "it said nothing"))
        return status

    def published(self):
        status = self.ctl("status")
        return status if status and status["published"] else None

    def install(self, name, program, title):
        os.makedirs(self.work + "/apps", exist_ok=True)
        path = f"{self.work}/apps/{name}"
        shutil.copy(program, path)
        os.chmod(path, 0o755)
        folder = "/usr/local/share/applications"
        os.makedirs(folder, exist_ok=True)
        with open(f"{folder}/{name}.desktop", "w", encoding="utf-8") as file:
            file.write(f"[Desktop Entry]\nType=Application\nName={title}\nExec={path}\n")

    def launch(self, name, *arguments):
        return start([f"{self.work}/apps/{name}", *arguments], f"{self.dir}/applications.log",
                     self.environment(), self.person)

    def start_session(self):
        """A session as a login makes it: a leader that belongs to root, the agent in it. A real
        login1 would name the leader of somebody's real session, which must not be ended."""
        if "true" in self.screen.tool("dbus-send", "--system", "--print-reply=literal",
                                      "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                                      "org.freedesktop.DBus.NameHasOwner",
                                      "string:org.freedesktop.login1"):
            raise Trouble("login1 answers on this system bus: the session is left alone")
        reader, writer = os.pipe()
        leader = os.fork()
        if leader == 0:
            self.lead(writer)
        os.close(writer)
        self.leader = Process(leader)
        pid = os.read(reader, 32)
        os.close(reader)
        self.agent = Process(int(pid))
        if os.getsid(self.agent.pid) != leader:
            raise Trouble("the agent is not in the session that was made for it")

    def lead(self, writer):
        redirect(self.dir + "/leader.log")
        os.setsid()
        agent = os.fork()
        if agent == 0:
            redirect(self.dir + "/agent.log")
            become(self.person)
            os.chdir("/")
            path = self.work + "/bin/vardell-agent"
            os.execve(path, [path], self.environment())
        os.write(writer, str(agent).encode())
        os.close(writer)
        if self.options.broken == "leader":
            become(self.person)
        while True:
            signal.pause()
