"""A system log for tests of orvfile."""

import ctypes
import os
import re
import socket
import unittest

from tool import ToolTest

CLONE_NEWNS, CLONE_NEWUSER = 0x20000, 0x10000000  # <sched.h>
MS_BIND, MS_REC, MS_PRIVATE = 0x1000, 0x4000, 0x40000  # <sys/mount.h>


def hide_dev(directory):
    """For a child: lets only the child see `directory` in place of /dev."""

    def mount():
        libc = ctypes.CDLL(None, use_errno=True)
        user, group = os.geteuid(), os.getegid()
        if libc.unshare(CLONE_NEWNS if user == 0 else CLONE_NEWNS | CLONE_NEWUSER) != 0:
            raise OSError(ctypes.get_errno(), "unshare")
        if user != 0:
            for name, text in (("setgroups", "deny"), ("uid_map", f"0 {user} 1"), ("gid_map", f"0 {group} 1")):
                with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
                    file.write(text)
        if (libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None) != 0
                or libc.mount(os.fsencode(directory), b"/dev", None, MS_BIND, None) != 0):  # fmt: skip
            raise OSError(ctypes.get_errno(), "mount")

    return mount


class LoggedTest(ToolTest):
    """Messages to the system's log, as a socket at /dev/log gets them."""

    def setUp(self):
        super().setUp()
        self.dev = self.make_dir("/var/tmp")
        self.log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.log.close)
        self.log.bind(os.path.join(self.dev, "log"))
        os.chmod(os.path.join(self.dev, "log"), 0o666)

    def run_logged(self, *arguments, **options):
        """Returns the status, standard output and standard error of the tool, and the messages that arrived."""
        try:
            process = self.start(*arguments, **options, preexec_fn=hide_dev(self.dev))
        except unittest.SkipTest:
            self.skipTest("cannot make private mounts")
        result = self.finish(process)
        messages = []
        while True:
            try:
                packet = self.log.recv(65536, socket.MSG_DONTWAIT).decode()
            except BlockingIOError:
                return (*result, messages)
            self.assertRegex(packet, rf"^<\d+>\w{{3}} [ \d]\d \d\d:\d\d:\d\d orvfile\[{process.pid}\]: ")
            messages.append(re.sub(r"^(<\d+>).{15} orvfile\[\d+\]: ", r"\1", packet))
