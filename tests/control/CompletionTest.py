"""Completion of vardellctl in the real shells: CompletionTest.py BIN_DIR SOURCE_DIR

Each shell has a pseudo-terminal. A line is typed, then Tab, then a key that prints the line as the
shell has it then. The Server is a scripted one, some of whose names are attacks.
"""

import json
import os
import pty
import re
import select
import shlex
import shutil
import socketserver
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from http.server import BaseHTTPRequestHandler

PATIENCE = 20.0
TAB, CLEAR, SHOW = b"\t", b"\x15", b"\x18\x10"

HOSTILE = ["evil$(touch PWNED)", "evil`touch PWNED`", "evil;touch PWNED", "evil\x1b]0;title\x07",
           "evil\ntouch PWNED", "evil'", 'evil"', "evil\\", "evil|x", "evil&", "evil>PWNED", "evil*",
           "evil~", "evil!!", "evil\u202e", "--evil", "=evil", "$evil", "<files>"]
IDENTIFIERS = ["com.apple.loginwindow", "org.game", "org.my game", "net:chat", "spiël.exe"]

SETUP = {
    "bash": r"""
source /usr/share/bash-completion/bash_completion
source SOURCE_DIR/packaging/completion/vardellctl.bash
bind 'set enable-bracketed-paste off'
bind 'set bell-style none'
bind -x '"\C-x\C-p": printf "<<<%s>>>" "$READLINE_LINE"'
""",
    "zsh": r"""
fpath=(SOURCE_DIR/packaging/completion $fpath)
autoload -U compinit && compinit -u -D
unsetopt BEEP
show() { print -rn -- "<<<$BUFFER>>>" >/dev/tty }
zle -N show
bindkey '^X^P' show
bindkey '^U' kill-whole-line
""",
}
COMMAND = {"bash": ["bash", "--norc", "--noprofile", "-i"], "zsh": ["zsh", "-f", "-i"]}

# What is typed, and what Tab makes of it: one text for both shells, or one for each.
LINES = [
    ("vardellctl lim", "vardellctl limits "),
    ("vardellctl limits pre", "vardellctl limits preset "),
    ("vardellctl limits show an", "vardellctl limits show anna "),
    ("vardellctl limits show anna comp", "vardellctl limits show anna computer "),
    ("vardellctl limits show anna org.g", "vardellctl limits show anna org.game "),
    ("vardellctl limits show anna spi", "vardellctl limits show anna spiël.exe "),
    ("vardellctl limits show anna org.m", r"vardellctl limits show anna org.my\ game "),
    ("vardellctl limits show anna 'org.m", "vardellctl limits show anna 'org.my game' "),
    ("vardellctl limits show anna net:c", "vardellctl limits show anna net:chat "),
    ("vardellctl limits preset anna home bed", "vardellctl limits preset anna home bedtime "),
    ("vardellctl limits set anna x Enabled=t", "vardellctl limits set anna x Enabled=true "),
    ("vardellctl limits set anna x Rep", r"vardellctl limits set anna x Report\ Credit="),
    (r"vardellctl limits set anna x Report\ Cr", r"vardellctl limits set anna x Report\ Credit="),
    (r"vardellctl limits set anna x Report\ Credit=t",
     r"vardellctl limits set anna x Report\ Credit=true "),
    (r"vardellctl limits set anna x Roll\ Over\ Cap=n",
     r"vardellctl limits set anna x Roll\ Over\ Cap=none "),
    ('vardellctl limits set anna x "Report Credit=t',
     'vardellctl limits set anna x "Report Credit=true" '),
    ("vardellctl limits set anna x 'Report Credit'=t",
     {"bash": "vardellctl limits set anna x 'Report Credit'=t",
      "zsh": r"vardellctl limits set anna x Report\ Credit=true "}),
    ('vardellctl limits set anna x "Rep',
     {"bash": 'vardellctl limits set anna x "Report Credit="',
      "zsh": 'vardellctl limits set anna x "Report Credit='}),
    ("vardellctl limits unset anna x Rep", r"vardellctl limits unset anna x Report\ Credit "),
    ("vardellctl settings set Don", r"vardellctl settings set Don\'t\ fade\ screen="),
    ("vardellctl settings set Configuration=r", "vardellctl settings set Configuration=retry "),
    ("vardellctl usage anna --per", "vardellctl usage anna --period "),
    ("vardellctl usage anna --period mo", "vardellctl usage anna --period month "),
    ("vardellctl usage anna --period=mo", "vardellctl usage anna --period=month "),
    ("vardellctl backup a\\ f", r"vardellctl backup a\ file.plist "),
    ("vardellctl --control=a\\ f", r"vardellctl --control=a\ file.plist "),
    ("vardellctl limits show anna evil", "vardellctl limits show anna evil"),
    ("vardellctl limits show anna --ev", "vardellctl limits show anna --ev"),
    ("vardellctl limits show $(touch PWNED) o", "vardellctl limits show $(touch PWNED) o"),
    ("vardellctl limits show $(touch PWNED", "vardellctl limits show $(touch PWNED"),
]


class Handler(BaseHTTPRequestHandler):
    def do_GET(self):
        if self.path == "/v1/users":
            answer = {"users": ["anna", "ben"] + HOSTILE}
        elif self.path == "/v1/users/anna/limits":
            answer = {"limits": [{"identifier": name} for name in IDENTIFIERS + HOSTILE]}
        else:
            self.send_error(404)
            return
        body = json.dumps(answer).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def address_string(self):
        return "local"

    def log_message(self, *_):
        pass


class Shell:
    def __init__(self, name, root):
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.chdir(root)
            os.environ.update(PATH=BIN_DIR + ":" + os.environ["PATH"], VARDELL_TEST_ROOT=root,
                              HOME=root, TERM="vt100", PS1="> ", LC_ALL="C.UTF-8")
            os.execvp(COMMAND[name][0], COMMAND[name])
        self.pid = pid
        self.output = b""
        for line in SETUP[name].replace("SOURCE_DIR", shlex.quote(SOURCE_DIR)).strip().splitlines():
            os.write(self.terminal, line.encode() + b"\n")
        os.write(self.terminal, b"echo rea''dy\n")
        self.wait(b"\nready")
        os.write(self.terminal, SHOW)
        self.wait(b"<<<>>>")

    def wait(self, pattern):
        """Everything up to the pattern, which is a regular expression."""
        deadline = time.monotonic() + PATIENCE
        while not (found := re.search(pattern, self.output, re.DOTALL)):
            left = deadline - time.monotonic()
            if left < 0 or not select.select([self.terminal], [], [], left)[0]:
                raise AssertionError("waiting for %r, got %r" % (pattern, self.output))
            self.output += os.read(self.terminal, 65536)
        taken, self.output = self.output[:found.end()], self.output[found.end():]
        return found, taken

    def complete(self, line):
        """The line as it is after a Tab, and all that was written meanwhile."""
        os.write(self.terminal, CLEAR + line.encode() + TAB + SHOW)
        found, taken = self.wait(rb"<<<(.*?)>>>")
        return found[1].decode(), taken

    def end(self):
        os.close(self.terminal)  # hangs up
        os.waitpid(self.pid, 0)


class CompletionTest(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="vardell-completion-")
        self.addCleanup(shutil.rmtree, self.root)
        os.makedirs(self.root + "/run/vardell")
        os.makedirs(self.root + "/etc")
        with open(self.root + "/etc/passwd", "w") as accounts:
            accounts.write("root:x:0:0::/:\nzoe:x:1000:1000::/:\nzed:x:99:99::/:\n"
                           "zero:x:65534:65534::/:\n")
        with open(self.root + "/a file.plist", "w"):
            pass

    def serve(self):
        server = socketserver.ThreadingUnixStreamServer(self.root + "/run/vardell/control.sock",
                                                        Handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)

    def candidates(self, *words):
        return subprocess.run([BIN_DIR + "/vardellctl", "complete", "--", *words], text=True,
                              env={**os.environ, "VARDELL_TEST_ROOT": self.root},
                              stdout=subprocess.PIPE, check=True).stdout.splitlines()

    def lines_in(self, name):
        self.serve()
        shell = Shell(name, self.root)
        self.addCleanup(shell.end)
        for typed, expected in LINES:
            with self.subTest(shell=name, typed=typed):
                line, written = shell.complete(typed)
                self.assertEqual(line, expected[name] if isinstance(expected, dict) else expected)
                self.assertNotIn(b"\x1b]0;title", written)
        self.assertFalse(os.path.exists(self.root + "/PWNED"))

    def test_bash(self):
        self.lines_in("bash")

    def test_zsh(self):
        self.lines_in("zsh")

    def test_only_harmless_names_of_others_come_out(self):
        self.serve()
        self.assertEqual(self.candidates("limits", "show", ""), ["anna", "ben"])
        words = self.candidates("limits", "show", "anna", "")
        self.assertEqual(words[:6], ["computer", "home", "org.game", "org.my game", "net:chat",
                                     "spiël.exe"])
        self.assertFalse([word for word in words if "evil" in word])

    def test_without_a_server_the_accounts_of_persons_are_users(self):
        self.assertEqual(self.candidates("credit", "show", ""), ["zoe"])


if __name__ == "__main__":
    BIN_DIR, SOURCE_DIR = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1])
