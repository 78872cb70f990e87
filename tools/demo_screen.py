"""The screen of the demonstration: what it shows, which windows stand on it, and a mouse and a
keyboard. It is read from the X server's frame buffer, so that no moment is missed."""

import array
import operator
import os
import struct
import subprocess
import threading
import time
import zlib

LEFT = (0, 0, 800, 600)  # the main monitor: x, y, width, height
RIGHT = (800, 0, 800, 600)
OVERLAY_HEIGHT = 40      # no theme's menu bar is higher
STRIP = (0, 0, 800, 16)  # and none is lower
TRAY_HEIGHT = 28
MENU_HEIGHT = 60  # no menu of the status item is lower

BACKGROUND = 0x3b6079
BLACK = 0x000000
MESSAGE_RED = 0xff3333
WARNING_BLUE = 0x3333ff

OUTSIDE = (1200, 400)  # on the other monitor, where no program stands


class Picture:
    """What the screen showed at one moment."""

    def __init__(self, path):
        with open(path, "rb") as file:
            image = file.read()
        header = struct.unpack(">25I", image[:100])
        self.width, self.height = header[4], header[5]
        begin = header[0] + 12 * header[19]
        self.pixels = bytearray(image[begin:begin + 4 * self.width * self.height])
        self.pixels[3::4] = bytes(self.width * self.height)

    def area(self, rectangle):
        x, y, width, height = rectangle
        cut = array.array("I")
        for row in range(y, y + height):
            begin = 4 * (row * self.width + x)
            cut.frombytes(self.pixels[begin:begin + 4 * width])
        return cut

    def count(self, colour, rectangle):
        return self.area(rectangle).count(colour)

    def changed(self, before, rectangle):
        return sum(map(operator.ne, self.area(rectangle), before.area(rectangle)))

    def save(self, path):
        rows = bytearray(3 * self.width * self.height)
        for i in range(3):
            rows[i::3] = self.pixels[2 - i::4]
        step = 3 * self.width
        lines = b"".join(b"\0" + rows[begin:begin + step] for begin in range(0, len(rows), step))

        def chunk(kind, data):
            return (struct.pack(">I", len(data)) + kind + data +
                    struct.pack(">I", zlib.crc32(kind + data)))

        with open(path, "wb") as file:
            file.write(b"\x89PNG\r\n\x1a\n" +
                       chunk(b"IHDR", struct.pack(">2I5B", self.width, self.height, 8, 2, 0, 0, 0)) +
                       chunk(b"IDAT", zlib.compress(lines)) + chunk(b"IEND", b""))


def size_of(rectangle):
    return rectangle[2] * rectangle[3]


class Appearance(threading.Thread):
    """Waits until `seen` holds of the screen, and then until it does not; keeps both moments."""

    def __init__(self, screen, seen, patience):
        super().__init__(daemon=True)
        self.screen, self.seen = screen, seen
        self.deadline = time.monotonic() + patience
        self.came = self.went = self.picture = None
        self.is_there = threading.Event()
        self.start()

    def run(self):
        while time.monotonic() < self.deadline and self.went is None:
            picture, now = self.screen.picture(), time.monotonic()
            holds = self.seen(picture)
            if holds and self.came is None:
                self.came, self.picture = now, picture
                self.is_there.set()
            elif not holds and self.came is not None:
                self.went = now
            time.sleep(0.03)
        self.is_there.set()


class Screen:
    def __init__(self, folder):
        self.folder = folder
        self.frame_buffer = os.environ["VARDELL_DESKTOP_FRAME_BUFFER"]

    def furnish(self, start):
        """Two monitors, a background, and a tray at the foot of the main one."""
        self.tool("xrandr", "--setmonitor", "*left", "800/212x600/159+0+0", "screen")
        self.tool("xrandr", "--setmonitor", "right", "800/212x600/159+800+0", "none")
        self.tool("xsetroot", "-solid", f"#{BACKGROUND:06x}", "-cursor_name", "left_ptr")
        start("trayer", "--edge", "bottom", "--align", "right", "--widthtype", "pixel",
              "--width", str(LEFT[2]), "--height", str(TRAY_HEIGHT), "--SetDockType", "true",
              "--SetPartialStrut", "true", "--transparent", "true", "--alpha", "0",
              "--tint", "0xe8e8e8")
        self.tool("xdotool", "mousemove", *map(str, OUTSIDE))

    def tool(self, *arguments):
        done = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                              text=True, check=False, timeout=30)
        return done.stdout.strip() if done.returncode == 0 else ""

    # -- what is seen --

    def picture(self):
        return Picture(self.frame_buffer)

    def save(self, picture, name):
        picture.save(f"{self.folder}/{name}.png")
        return name + ".png"

    def windows(self, pid, *condition):
        """Those that are shown, of that process: number, x, y, width, height."""
        found = self.tool("xdotool", "search", "--onlyvisible", "--all", "--pid", str(pid),
                          *(condition or ("--name", ".*")))
        windows = []
        for number in found.split():
            facts = dict(line.strip().rsplit(": ", 1) for line in
                         self.tool("xwininfo", "-id", number).split("\n") if ": " in line)
            try:
                windows.append((int(number), *(int(facts[name]) for name in (
                    "Absolute upper-left X", "Absolute upper-left Y", "Width", "Height"))))
            except KeyError:
                pass  # it has gone meanwhile
        return windows

    # -- the person's hands --

    def click(self, x, y):
        self.tool("xdotool", "mousemove", str(x), str(y), "click", "1")

    def click_in_the_middle(self, rectangle):
        x, y, width, height = rectangle
        self.click(x + width // 2, y + height // 2)

    def move_away(self):
        self.tool("xdotool", "mousemove", *map(str, OUTSIDE))

    def press(self, *keys):
        self.tool("xdotool", "key", *keys)
