"""A terminal for programs that take the whole screen: what they draw is kept by pyte (Debian's python3-pyte), as the
Linux console would show it."""
import fcntl
import os
import pty
import select
import signal
import struct
import sys
import termios
import time

try:
    import pyte
except ImportError:
    print("python3-pyte is not installed")
    sys.exit(77)

PATIENCE = 15.0  # seconds: a machine under load is slow, not wrong


def set_size(fd, columns, lines):
    fcntl.ioctl(fd, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))


class Terminal:
    """Runs a program in a terminal of that size. `env` is added to the environment."""

    def __init__(self, argv, columns=80, lines=24, env=None):
        self.screen = pyte.Screen(columns, lines)
        self.stream = pyte.ByteStream(self.screen)
        self.raw = b""
        self.status = None
        environment = {**os.environ, "TERM": "linux", **(env or {})}
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            set_size(0, columns, lines)
            os.execve(argv[0], argv, environment)
        set_size(self.fd, columns, lines)
        self.before = termios.tcgetattr(self.fd)

    def close(self):
        if self.status is None:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self.fd)

    def read(self, seconds):
        """Takes what comes; False: nothing did in that time, or nothing will."""
        if not select.select([self.fd], [], [], seconds)[0]:
            return False
        try:
            data = os.read(self.fd, 65536)
        except OSError:  # the program has ended
            return False
        self.raw += data
        self.stream.feed(data)
        return bool(data)

    def until(self, is_so):
        """Until the predicate holds of the lines; what they were at last. Fails with them after a while."""
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            lines = self.lines()
            if is_so(lines):
                return lines
            self.read(0.1)
        raise AssertionError("not seen:\n" + "\n".join(self.lines()))

    def lines(self):
        return [line.rstrip() for line in self.screen.display]

    def shows(self, text):
        return self.until(lambda lines: any(text in line for line in lines))

    def row(self, text):
        """The number of the first line with the text."""
        return next(i for i, line in enumerate(self.lines()) if text in line)

    def send(self, text):
        os.write(self.fd, text.encode())

    def resize(self, columns, lines):
        self.screen.resize(lines, columns)
        set_size(self.fd, columns, lines)

    def end(self):
        """Waits for the end of the program: its status, and whether the terminal is as it was before."""
        stop = time.monotonic() + PATIENCE
        while self.status is None and time.monotonic() < stop:
            self.read(0.05)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.status = os.waitstatus_to_exitcode(status)
        while self.read(0.05):
            pass
        return self.status


COLOURS = {"default": "#d0d0d0", "black": "#101010", "green": "#4e9a06", "cyan": "#06989a", "red": "#ef2929"}


def svg(screen):
    """The screen as a picture."""
    width, height = 8, 17
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{screen.columns * width + 16}" '
           f'height="{screen.lines * height + 16}" font-family="monospace" font-size="13" xml:space="preserve">',
           '<rect width="100%" height="100%" fill="#101010"/>']
    for y in range(screen.lines):
        x = 0
        while x < screen.columns:
            first = screen.buffer[y][x]
            style = (first.fg, first.bg, first.bold, first.reverse)
            end = x
            while end < screen.columns and (lambda c: (c.fg, c.bg, c.bold, c.reverse))(screen.buffer[y][end]) == style:
                end += 1
            text = "".join(screen.buffer[y][i].data for i in range(x, end))
            fg, bg = COLOURS.get(first.fg, "#d0d0d0"), COLOURS.get(first.bg, "#101010")
            if first.bg == "default":
                bg = "#101010"
            if first.reverse:
                fg, bg = bg, fg
            left, top = 8 + x * width, 8 + y * height
            if bg != "#101010":
                out.append(f'<rect x="{left}" y="{top}" width="{(end - x) * width}" height="{height}" fill="{bg}"/>')
            if text.strip():
                safe = text.replace("&", "&amp;").replace("<", "&lt;").rstrip()
                weight = ' font-weight="bold"' if first.bold else ""
                out.append(f'<text x="{left}" y="{top + 13}" textLength="{len(text.rstrip()) * width}" '
                           f'fill="{fg}"{weight}>{safe}</text>')
            x = end
    return "\n".join(out + ["</svg>", ""])
