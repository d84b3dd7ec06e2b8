#!/usr/bin/python3
"""Pictures of `fmon top` for the manual, of real screens: top_pictures.py FMON DIRECTORY

A directory is filled, changed and read for a few seconds; docs/top-80x24.svg and docs/top-200x60.svg are what terminals of
these sizes show then.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import time

from terminal import Terminal, svg

WORK = """
cd "$1"
mkdir -p web/cache web/logs spool/mail db
i=0
while :; do
    i=$((i + 1))
    echo "GET /" >>web/logs/access.log
    [ $((i % 3)) != 0 ] || { echo x >web/cache/page$((i % 40)).html; }
    [ $((i % 7)) != 0 ] || { cp web/logs/access.log db/table.tmp; mv db/table.tmp db/table; }
    [ $((i % 9)) != 0 ] || { echo m >spool/mail/m$i; rm spool/mail/m$i; }
    [ $((i % 400)) != 0 ] || : >web/logs/access.log
done
"""


def picture(fmon, root, columns, lines, path):
    terminal = Terminal([fmon, "top", "-r", root], columns, lines)
    terminal.shows("fmon top")
    end = time.monotonic() + 6
    while time.monotonic() < end:
        terminal.read(0.2)
    while terminal.read(0.3):  # a frame that is whole
        pass
    terminal.send("q")
    shown = svg(terminal.screen)
    terminal.end()
    terminal.close()
    with open(path, "w", encoding="utf-8") as file:
        file.write(shown)


def main():
    fmon, docs = sys.argv[1:]
    root = "/srv"
    if os.path.exists(os.path.join(root, "web")):
        root = tempfile.mkdtemp()
    worker = subprocess.Popen(["sh", "-c", WORK, "sh", root])
    try:
        for columns, lines in ((80, 24), (200, 60)):
            picture(fmon, root, columns, lines, os.path.join(docs, f"top-{columns}x{lines}.svg"))
    finally:
        worker.kill()
        worker.wait()
        for name in ("web", "spool", "db"):
            shutil.rmtree(os.path.join(root, name), ignore_errors=True)


main()
