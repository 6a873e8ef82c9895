#!/usr/bin/env python3
"""Runs the status board on the emulated board, and forwards its page to this machine, for script/board.

Usage: demo.py FOLDER [COMMAND [ARGUMENT...]]

Once the page can be read, runs the command with the address in the variable BOARD_PAGE, and ends with it. Without a
command, prints the address, and ends with the board, or after SIGINT or SIGTERM.
"""

import os
import signal
import socket
import subprocess
import sys
import time
import urllib.error
import urllib.request

import machine

BUILD = machine.TOP / "build" / "board"
LIBRARIES = ["ld.so.1", "libc.so.6", "libm.so.6", "libgcc_s.so.1", "libstdc++.so.6"]
GUEST = "10.0.2.15/24"  # in the network that QEMU emulates
PAGE_SECONDS = 60
FOREVER = 10 * 365 * 86400
# The program, its libraries and settings are installed as on a device. Then nothing of this machine is mounted any more.
START = f"""set -e
mkdir /tmp/lib /var/tmp/www
cp {' '.join(f'/lib/{name}' for name in LIBRARIES)} /host/lib*.so.0 /tmp/lib
cp /host/statusboard /bin
cp '{machine.TOP}/board/statusboard.conf' /etc
cd /
umount -l /lib '{machine.TOP}' /host
cp /tmp/lib/* /lib
httpd -h /var/tmp/www
exec statusboard --watch /etc/statusboard.conf
"""


def strip_into(folder):
    """Copies the program and its libraries without debug information."""
    for file in [BUILD / "examples" / "statusboard", *(BUILD / "lib").glob("lib*.so.0")]:
        subprocess.run(["powerpc-linux-gnu-strip", "-o", folder / file.name, file], check=True)


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def wait_for_page(board, job, address):
    deadline = time.monotonic() + PAGE_SECONDS
    while time.monotonic() < deadline and board.process.poll() is None:
        try:
            with urllib.request.urlopen(address, timeout=PAGE_SECONDS):
                return
        except (urllib.error.URLError, ConnectionError):
            time.sleep(0.2)
    board.fail(f"the page cannot be read: {(job / 'errors').read_text(encoding='utf-8')}")


def main(folder, *command):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    port = free_port()
    network = [f"user,id=net,restrict=on,hostfwd=tcp:127.0.0.1:{port}-:80"]
    options = ["-netdev", *network, "-device", "virtio-net-pci,netdev=net,romfile="]
    address = f"http://127.0.0.1:{port}/statusboard.html"
    try:
        with machine.Machine(folder, options=options, address=GUEST) as board:
            strip_into(board.shared)
            job = board.begin(["sh", "-c", START], seconds=FOREVER)
            wait_for_page(board, job, address)
            if command:
                sys.exit(subprocess.run(command, env={**os.environ, "BOARD_PAGE": address}).returncode)
            print(f"The page of the board: {address}\nCtrl-C ends it.", flush=True)
            board.process.wait()
            board.fail("the board has stopped")
    except machine.Failure as failure:
        print(f"script/board: {failure}", file=sys.stderr)
        return 125
    except KeyboardInterrupt:
        return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
