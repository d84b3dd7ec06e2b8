#!/usr/bin/python3
"""The screen of `fmon top` as a terminal shows it: top_screen.py FMON [CASE]"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import termios
import time
import unittest

from terminal import Terminal

FMON = sys.argv[1]
KEY_DOWN, BACKSPACE, ESCAPE, CTRL_C = "\033[B", "\x7f", "\033", "\x03"


def write(path, times=1):
    for _ in range(times):
        with open(path, "wb") as file:
            file.write(b"x")


def state_of(pid):
    with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
        return file.read().rsplit(") ", 1)[1][0]


class TopScreen(unittest.TestCase):
    def setUp(self):
        self.root = os.path.realpath(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.root)

    def path(self, *names):
        return os.path.join(self.root, *names)

    def top(self, *arguments, **how):
        """In a terminal, from when the watch is in place."""
        argv = [FMON, "top", "--source", "marks", "--probes", "off", "-d", "0.2", "-r", *arguments, self.root]
        terminal = Terminal(argv, **how)
        self.addCleanup(terminal.close)
        return terminal

    def shown(self, *arguments, **how):
        terminal = self.top(*arguments, **how)
        terminal.until(lambda l: "fmon top" in l[0] and l[-1].startswith("q end"))
        return terminal

    def until_busy(self, top, path, is_so):
        """Writes to the file until the predicate holds: the monitor may join writes, so that few are no number."""
        def written(lines):
            write(path)
            return is_so(lines)
        return top.until(written)

    def test_fills_80_columns_and_24_lines(self):
        top = self.shown()
        write(self.path("quiet"))
        lines = self.until_busy(top, self.path("busy"), lambda l: "busy" in l[7] and "quiet" in l[8])
        self.assertEqual(24, len(lines))
        self.assertIn("[1 files]  2 directories", lines[4])
        self.assertRegex(lines[6], r"^ +EV/S +EVENTS PROCESS +FILE$")
        self.assertRegex(lines[23], r"^q end  1-4 Tab table ")
        self.assertRegex(lines[2], r"^kinds/s  .*modify [0-9.]+")
        self.assertEqual("losses   none", lines[3])

    def test_fills_200_columns_and_60_lines(self):
        top = self.shown(columns=200, lines=60)
        for i in range(70):
            write(self.path("%s%d" % ("n" * 100, i)))
        lines = top.until(lambda l: sum("nnnn" in line for line in l[7:]) == 52)
        self.assertRegex(lines[6], r"^ +EV/S +EVENTS +AGO KINDS +PROCESS +FILE$")
        self.assertTrue(lines[59].startswith("q end"))
        self.assertIn("n" * 100, lines[20])

    def test_follows_another_size(self):
        top = self.shown()
        write(self.path("file"))
        top.shows("file")
        for columns, lines in ((200, 60), (40, 10), (1, 1), (80, 24)):
            top.resize(columns, lines)
            if columns > 1:
                top.until(lambda l, n=lines: l[n - 1].startswith("q end") and "fmon top" in l[0] and
                          sum("fmon top" in line for line in l) == 1)
        self.assertIn("file", top.lines()[7])

    def test_names_drive_no_terminal(self):
        top = self.shown(columns=200, lines=24)
        hostile = b"\x1b[2J\x1b]0;pwned\x07\x1b[31mred\r\n\xff\xe2\x80\xae"
        write(self.path("\u6f22\u5b57" * 3 + "end"))
        lines = self.until_busy(top, os.path.join(self.root.encode(), hostile),
                                lambda l: "pwned" in l[7] and "end" in l[8])
        self.assertIn(r"\033[2J\033]0;pwned\a\033[31mred\r\n\377\342\200\256", lines[7])
        self.assertIn("fmon top", lines[0])
        self.assertNotIn(b"\x1b]0;", top.raw)
        self.assertEqual("", top.screen.title)
        # a character of two columns is drawn as such: what follows stands where the terminal thinks it does
        self.assertIn("".join(c + " " for c in "\u6f22\u5b57" * 3).replace(" ", ""), lines[8].replace(" ", ""))
        self.until_busy(top, self.path("after"), lambda l: "after" in l[7] and "pwned" in l[8])

    def test_colours_and_none(self):
        top = self.shown()
        heading = top.screen.buffer[6][0]
        self.assertEqual(("black", "green"), (heading.fg, heading.bg))
        plain = self.shown(env={"NO_COLOR": "1"})
        heading = plain.screen.buffer[6][0]
        self.assertEqual(("default", "default", True), (heading.fg, heading.bg, heading.reverse))
        self.assertNotRegex(plain.raw, rb"\x1b\[[0-9;]*[34][0-7]m")

    def test_keys(self):
        os.mkdir(self.path("sub"))
        top = self.shown()
        write(self.path("outer"))
        inner = self.path("sub", "inner")
        self.until_busy(top, inner, lambda l: "inner" in l[7] and "outer" in l[8])
        top.send("2")
        top.until(lambda l: "[2 directories]" in l[4] and l[7].endswith("/sub"))
        top.send("\r")
        top.until(lambda l: l[5] == "in " + self.path("sub") and l[8] == "")
        top.send(BACKSPACE)
        top.until(lambda l: l[5] == "in " + self.root and l[8].endswith(self.root[-20:]))  # a long path is cut
        top.send("1/OUTER")
        top.shows("filter: OUTER_")
        top.send("\r")
        top.until(lambda l: l[5] == 'with "OUTER"  in ' + self.root and "outer" in l[7] and l[8] == "")
        top.send(ESCAPE)
        top.until(lambda l: "inner" in l[7])
        top.send("p")
        top.shows("PAUSED")
        write(self.path("outer"), 30)
        top.send("s")
        top.until(lambda l: "by total" in l[4] and "inner" in l[7])
        top.send("p")
        self.until_busy(top, self.path("outer"), lambda l: "outer" in l[7] and "PAUSED" not in l[4])
        top.send("h")
        top.shows("files, directories, processes, containers")
        top.send(KEY_DOWN)
        top.until(lambda l: "outer" in l[7] and top.screen.buffer[8][0].bg == "cyan")

    def ends_well(self, how):
        top = self.shown()
        how(top)
        self.assertEqual(0, top.end(), "\n".join(top.lines()))
        self.assertEqual(top.before[:4], termios.tcgetattr(top.fd)[:4])
        self.assertFalse(top.screen.cursor.hidden)

    def test_gives_the_terminal_back(self):
        self.ends_well(lambda top: top.send("q"))
        self.ends_well(lambda top: top.send(CTRL_C))
        self.ends_well(lambda top: os.kill(top.pid, signal.SIGTERM))

    def test_stops_and_goes_on(self):
        top = self.shown()
        before = termios.tcgetattr(top.fd)
        top.send("\x1a")
        end = time.monotonic() + 15
        while state_of(top.pid) != "T":
            self.assertLess(time.monotonic(), end)
            top.read(0.05)
        self.assertEqual(top.before[:4], termios.tcgetattr(top.fd)[:4])
        os.kill(top.pid, signal.SIGCONT)
        write(self.path("later"))
        top.shows("later")
        self.assertEqual(before[:4], termios.tcgetattr(top.fd)[:4])

    def test_says_that_what_was_watched_has_gone(self):
        top = self.shown()
        os.mkdir(self.path("sub"))
        self.root, gone = tempfile.mkdtemp(), self.root
        self.addCleanup(shutil.rmtree, self.root)
        shutil.rmtree(gone)
        self.assertEqual(3, top.end())
        os.mkdir(gone)  # for the clean-up

    def test_without_cursor_prints_tables(self):
        top = self.top("-b", "-n", "2")
        self.assertEqual(0, top.end())
        dumb = self.top(env={"TERM": "dumb"})
        dumb.until(lambda l: b"containers by rate" in dumb.raw)
        os.kill(dumb.pid, signal.SIGINT)
        self.assertEqual(0, dumb.end())
        for raw in (top.raw, dumb.raw):
            self.assertIn(b"files by rate", raw)
            self.assertNotIn(b"\x1b", raw[raw.index(b"fmon top"):])

    def test_ends_when_its_reader_has_gone(self):
        argv = [FMON, "top", "-b", "-d", "0.1", "--source", "marks", "--probes", "off", "-r", self.root]
        with subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as top:
            self.assertIn(b"fmon top", top.stdout.readline())
            top.stdout.close()
            end = time.monotonic() + 15
            while top.poll() is None and time.monotonic() < end:
                write(self.path("file"))
            self.assertEqual(0, top.poll())

    def test_says_which_terminal_is_not_known(self):
        top = self.top(env={"TERM": "no-such-terminal"})
        self.assertEqual(2, top.end())
        self.assertIn(b"the terminal 'no-such-terminal' is not known", top.raw)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
