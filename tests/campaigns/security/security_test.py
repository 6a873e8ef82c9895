#!/usr/bin/env python3
"""Plants objects of another user at the name where a service builds its page, with every kernel setting that matters,
and compares the results with the table of docs/security.md.

Usage: security_test.py [--measure] DOCUMENT [EMULATOR...] PROGRAM
       security_test.py --safe [EMULATOR...] PROGRAM
--measure prints the results instead of comparing them. --safe attacks a service that publishes with the safe companion:
then every object is left alone, no planted page is published, and each refusal has a line. With ORV_FULL in the environment, every combination of the
settings is tried; otherwise each value of the setting that matters, with all other settings off and with all on.
Ends with 77 when it had to skip, which fails where ORV_NO_SKIP is set.

The settings affect the whole machine. A separate process restores them, however this one ends. /var/tmp is a new
directory in a private mount namespace.
"""

import ctypes
import errno
import fcntl
import itertools
import os
import re
import signal
import subprocess
import sys
import time

import orv_test
from oracle import LINES, PAGE_FOOTER, SEVERITY, SOURCE, temporary_page

SETTINGS = {"symlinks": 2, "regular": 3, "fifos": 3, "hardlinks": 2}  # fs.protected_*: number of values
BUILD_DIRECTORY = "/var/tmp"
OTHER_DIRECTORY = "/dev/shm"
SERVICES = {"root": 0, "a user": 65532}
PLANTERS = (65534, 65533)
OBJECTS = {  # name in the table: the setting that matters
    "symbolic link": "symlinks",
    "dangling symbolic link": "symlinks",
    "file, mode 0666": "regular",
    "file, mode 0644": "regular",
    "file, mode 0600": "regular",
    "hard link to a file of the service": "hardlinks",
    "hard link to its own file": "regular",
    "FIFO": "fifos",
    "directory": None,
}
PATIENCE_SECONDS = 30  # after this, a wait has failed
TABLE_TEXT = b"Port 1:up,100 Mbit/s;\n"
OLD_PAGE = b"<p>old</p>"
VICTIM_TEXT = b"precious"
PLANTED_TEXT = b"<p>planted</p>"
CLONE_NEWNS = 0x20000
MS_REC, MS_PRIVATE = 0x4000, 0x40000

libc = ctypes.CDLL(None, use_errno=True)


class Skip(Exception):
    """The machine does not allow the test."""


def call(result, what):
    if result != 0:
        raise Skip(f"{what}: {os.strerror(ctypes.get_errno())}")


def mount_private_build_directories():
    """Mounts a private /var/tmp and /dev/shm: both are sticky and writable for all, on two file systems."""
    call(libc.unshare(CLONE_NEWNS), "a mount namespace")
    call(libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None), "private mounts")
    for path in (BUILD_DIRECTORY, OTHER_DIRECTORY):
        call(libc.mount(b"none", path.encode(), b"tmpfs", 0, b"mode=1777,size=1m"), "a tmpfs on " + path)


# ---- The kernel's settings


def setting_path(name):
    return "/proc/sys/fs/protected_" + name


def read_settings():
    values = {}
    for name in SETTINGS:
        with open(setting_path(name), encoding="ascii") as file:
            values[name] = int(file.read())
    return values


def write_settings(values):
    for name, value in values.items():
        with open(setting_path(name), "w", encoding="ascii") as file:
            file.write(str(value))


class SavedSettings:
    """Saves the settings; a separate process restores them at the end. Only one test may use them at a time."""

    def __enter__(self):
        self.lock = os.open(setting_path("symlinks"), os.O_RDONLY)
        fcntl.flock(self.lock, fcntl.LOCK_EX)
        self.saved = read_settings()
        try:
            write_settings(self.saved)
        except OSError as error:
            raise Skip(f"the kernel's settings cannot be written: {error}") from error
        guarded, self.alive = os.pipe()
        self.done, done = os.pipe()
        child = os.fork()
        if child == 0:
            self.guard(guarded, done)
        os.close(guarded)
        os.close(done)
        os.waitpid(child, 0)
        return self

    def guard(self, guarded, done):
        """In the child: starts a session, and waits until all processes with `alive` open have ended."""
        try:
            os.close(self.alive)
            os.close(self.done)
            os.setsid()
            for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
                signal.signal(number, signal.SIG_IGN)
            if os.fork() == 0:
                null = os.open("/dev/null", os.O_RDWR)
                for descriptor in (0, 1, 2):  # so that nobody waits for output of this process
                    os.dup2(null, descriptor)
                os.read(guarded, 1)
                write_settings(self.saved)
                os.write(done, b"!")
        finally:
            os._exit(0)

    def __exit__(self, *_):
        os.close(self.alive)
        assert os.read(self.done, 1) == b"!", "the settings were not set back"
        os.close(self.done)
        assert read_settings() == self.saved
        os.close(self.lock)


# ---- One attack


def as_user(user, action):
    """Does `action` with the rights of `user`. Returns the errno of its failure, or 0."""
    os.setegid(user)
    os.seteuid(user)
    try:
        action()
    except OSError as error:
        return error.errno
    finally:
        os.seteuid(0)
        os.setegid(0)
    return 0


def write_file(path, content, mode, owner):
    with open(path, "wb") as file:
        file.write(content)
    os.chmod(path, mode)
    os.chown(path, owner, owner)


def read_file(path):
    with open(path, "rb") as file:
        return file.read()


def write_as_user(path, content, mode):
    descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
    os.write(descriptor, content)
    os.fchmod(descriptor, mode)
    os.close(descriptor)


def plant(what, name, victim, own_file):
    """Must be called as the planter."""
    if what == "symbolic link":
        os.symlink(victim, name)
    elif what == "dangling symbolic link":
        os.symlink(victim + ".new", name)
    elif what.startswith("file, mode "):
        write_as_user(name, PLANTED_TEXT, int(what[-4:], 8))
    elif what == "hard link to a file of the service":
        os.link(victim, name)
    elif what == "hard link to its own file":
        write_as_user(own_file, PLANTED_TEXT, 0o644)
        os.link(own_file, name)
    elif what == "FIFO":
        os.mkfifo(name)
        os.chmod(name, 0o666)
    elif what == "directory":
        os.mkdir(name)


def is_blocked_in_open(pid):
    """Returns whether the process waits in the open of a FIFO."""
    return read_file(f"/proc/{pid}/wchan") in (b"wait_for_partner", b"fifo_open")


def wait_until(condition):
    deadline = time.monotonic() + PATIENCE_SECONDS
    while not condition():
        assert time.monotonic() < deadline, "the condition did not become true in time"
        time.sleep(0.001)


def run_service(process, name):
    """Lets the service publish. Returns what a reader of its FIFO gets, or None if it did not wait for one."""
    process.stdin.close()
    wait_until(lambda: process.poll() is not None or is_blocked_in_open(process.pid))
    if process.poll() is not None:
        return None
    with open(name, "rb") as fifo:  # the service then continues
        leaked = fifo.read()
    process.wait(PATIENCE_SECONDS)
    return leaked


def owner_name(path, service):
    owner = os.lstat(path).st_uid
    return "service" if owner == service else "planter" if owner in PLANTERS else str(owner)


def page_state(page, victim, new_page, service):
    if os.path.islink(page):
        assert os.readlink(page) in (victim, victim + ".new")
        return f"link to the other file, owner {owner_name(page, service)}"
    content = read_file(page)
    if content == OLD_PAGE:
        return "old"
    kind = {new_page: "new", PLANTED_TEXT: "**planted**", b"": "empty"}[content]
    linked = os.lstat(page).st_nlink > 1
    return f"{kind}, owner {owner_name(page, service)}" + (", with a second name" if linked else "")


def other_file_state(what, victim, own_file, new_page):
    """Describes the file that a link leads to."""
    if what in ("symbolic link", "hard link to a file of the service"):
        return {VICTIM_TEXT: "kept", new_page: "**overwritten**", b"": "emptied"}[read_file(victim)]
    if what == "dangling symbolic link":
        if not os.path.lexists(victim + ".new"):
            return "none"
        return {new_page: "**created**", b"": "created empty"}[read_file(victim + ".new")]
    if what == "hard link to its own file":
        return {PLANTED_TEXT: "kept", new_page: "overwritten"}[read_file(own_file)]
    return "-"


def shorten(lines, pid, page):
    """Returns the lines of the service in the form of the table. The rest of each line is checked here."""
    name, page = re.escape(temporary_page(pid)), re.escape(page)
    forms = {
        LINES.RenameStat.pattern(name, r"(\d+)"): "stat {}",
        LINES.RenameNotRegular.pattern(name, r"(\w+)"): "type 0x{}",
        LINES.RenameRename.pattern(name, page, r"(\d+)"): "rename {}",
        LINES.RenameOpen.pattern(name, r"(\d+)"): "open {}",
        LINES.RenameUnlink.pattern(name, r"(\d+)"): "unlink {}",
        LINES.PageMove.pattern(name, page): "move",
    }
    short = []
    for line in lines:
        for form, text in forms.items():
            match = re.fullmatch(re.escape(f"[{SEVERITY}] {SOURCE}: ") + form, line)
            if match:
                short.append(text.format(*match.groups()))
                break
        else:
            short.append(repr(line))
    return "; ".join(short) or "none"


def remove_tree(directory):
    for entry in os.scandir(directory):
        if entry.is_dir(follow_symlinks=False):
            remove_tree(entry.path)
            os.rmdir(entry.path)
        else:
            os.unlink(entry.path)


def attack(program, what, service, planter, page_directory, new_page, how=()):
    """`how` is passed to the program after its other arguments. Returns the result of one row: page, other file, object left at the name, lines."""
    for directory in (BUILD_DIRECTORY, OTHER_DIRECTORY):
        remove_tree(directory)
    private = BUILD_DIRECTORY + "/service"  # also contains the page, on the same file system
    other = OTHER_DIRECTORY + "/service"
    own_file = BUILD_DIRECTORY + "/of_the_planter"
    for directory in (private, other):
        os.mkdir(directory, 0o755)
        os.chown(directory, service, service)
    page = (private if page_directory == BUILD_DIRECTORY else other) + "/page"
    victim = private + "/victim"
    write_file(private + "/table", TABLE_TEXT, 0o644, service)
    write_file(victim, VICTIM_TEXT, 0o644, service)
    write_file(page, OLD_PAGE, 0o644, service)

    with subprocess.Popen(
        [*program, str(service), private + "/table", page, *how], stdin=subprocess.PIPE, stderr=subprocess.PIPE
    ) as process:
        try:
            name = temporary_page(process.pid)
            failure = as_user(planter, lambda: plant(what, name, victim, own_file))
            if failure != 0:
                return ("cannot be planted", f"errno {failure}", "-", "-")
            planted = os.lstat(name).st_ino
            leaked = run_service(process, name)
            lines = process.stderr.read().decode().splitlines()
            assert process.returncode in ((0, 1) if how else (0,)), process.returncode
        finally:
            process.kill()

    assert leaked in (None, new_page), leaked
    left = "the object" if os.path.lexists(name) else "nothing"
    assert left == "nothing" or os.lstat(name).st_ino == planted
    expected = {"service", "of_the_planter"} if os.path.lexists(own_file) else {"service"}
    assert set(os.listdir(BUILD_DIRECTORY)) - {os.path.basename(name)} == expected
    assert set(os.listdir(private)) <= {"table", "victim", "victim.new", "page"}, os.listdir(private)
    assert set(os.listdir(other)) <= {"page"}, os.listdir(other)
    state = page_state(page, victim, new_page, service)
    assert not how or (process.returncode == 0) == state.startswith("new"), (process.returncode, state)
    if leaked is not None:
        state += "; **waits for a reader, who gets the page**"
    return (state, other_file_state(what, victim, own_file, new_page), left, shorten(lines, process.pid, page))


def make_page(program, user):
    """Returns what the service publishes if nobody interferes."""
    page = BUILD_DIRECTORY + "/page"
    table = BUILD_DIRECTORY + "/table"
    write_file(table, TABLE_TEXT, 0o644, user)
    subprocess.run([*program, str(user), table, page], stdin=subprocess.DEVNULL, check=True, timeout=PATIENCE_SECONDS)
    content = read_file(page)
    assert b"<td>100 Mbit/s</td>" in content and content.endswith(PAGE_FOOTER)
    return content


def check_private_directory(program, new_page):
    """With a private build directory, nobody can plant anything, and pages are made with all settings."""
    for (service, user), planter, what in itertools.product(SERVICES.items(), PLANTERS, OBJECTS):
        remove_tree(BUILD_DIRECTORY)
        os.chown(BUILD_DIRECTORY, user, user)
        os.chmod(BUILD_DIRECTORY, 0o700)
        name, victim, own_file = (f"{BUILD_DIRECTORY}/{entry}" for entry in ("planted", "victim", "own"))
        write_file(victim, VICTIM_TEXT, 0o644, user)
        assert as_user(planter, lambda: plant(what, name, victim, own_file)) == errno.EACCES, (service, what)
        assert os.listdir(BUILD_DIRECTORY) == ["victim"]
        assert make_page(program, user) == new_page
    os.chown(BUILD_DIRECTORY, 0, 0)
    os.chmod(BUILD_DIRECTORY, 0o1777)


# ---- The table


def combinations(setting):
    """Returns the settings to try for an object whose result depends on `setting`."""
    everything = [dict(zip(SETTINGS, values)) for values in itertools.product(*map(range, SETTINGS.values()))]
    if not os.environ.get("ORV_FULL"):
        extremes = [dict.fromkeys(SETTINGS, 0), {name: count - 1 for name, count in SETTINGS.items()}]
        if setting is None:
            everything = extremes
        else:
            everything = [{**base, setting: value} for base in extremes for value in range(SETTINGS[setting])]
    return everything


def measure(program, new_page):
    """Makes all attacks: {(object, service, place, value of the setting): {result: when}}."""
    results = {}
    attacks = 0
    for what, setting in OBJECTS.items():
        for settings in combinations(setting):
            write_settings(settings)
            for (service, user), planter in itertools.product(SERVICES.items(), PLANTERS):
                for place, directory in (("same", BUILD_DIRECTORY), ("other", OTHER_DIRECTORY)):
                    result = attack(program, what, user, planter, directory, new_page)
                    key = (what, service, place, settings.get(setting))
                    results.setdefault(key, {}).setdefault(result, []).append((settings, planter))
                    attacks += 1
    print(f"security: {attacks} attacks")
    return results


def expected_of_the_safe_page(what, lines):
    """Returns the result of an attack on the safe companion. Each refusal has the line that `lines` contains."""
    if what == "hard link to a file of the service":  # by its status, it may be left by a killed process
        return ("new, owner service", "kept", "nothing", "none")
    other = {"symbolic link": "kept", "dangling symbolic link": "none", "hard link to its own file": "kept"}
    return ("old", other.get(what, "-"), "the object", lines)


def attack_the_safe_page(program, new_page):
    """Makes all attacks on the safe companion. Returns whether none achieved anything."""
    attacks = failures = refusals = 0
    line = re.compile(r"'\[3\] orv_safe: PublishPage: open\(/var/tmp/TextToHtml_\d+\.tmp\) failed \(17, File exists\)\.'")
    for what, setting in OBJECTS.items():
        for settings in combinations(setting):
            write_settings(settings)
            for user, planter in itertools.product(SERVICES.values(), PLANTERS):
                for directory in (BUILD_DIRECTORY, OTHER_DIRECTORY):
                    result = attack(program, what, user, planter, directory, new_page, ["safe"])
                    attacks += 1
                    if result[0] == "cannot be planted" and what == "hard link to a file of the service":
                        continue
                    lines = result[3] if line.fullmatch(result[3]) else "a line of PublishPage"
                    refusals += result[0] == "old"
                    if result != expected_of_the_safe_page(what, lines):
                        failures += 1
                        print(f"{what}, {settings}, service {user}, planter {planter}, page in {directory}: {result}")
    print(f"security: {attacks} attacks on the safe companion, {refusals} refused with a line, {failures} succeeded")
    return failures == 0 < refusals


def print_table(results):
    """Prints a row for each value, service and place, with its result."""
    for (what, service, place, value), outcomes in results.items():
        for outcome, when in outcomes.items():
            print("|", " | ".join([what, str(value), service, place, *outcome]), "|", "" if len(outcomes) == 1 else when)


def one_or_all(cell, values):
    return list(values) if cell == "any" else [value.strip() for value in cell.split(",")]


def read_table(document):
    """Returns the rows of the document: {(object, service, place, value of the setting): result}."""
    expected = {}
    for line in read_file(document).decode().splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if not line.startswith("|") or cells[0] not in OBJECTS:
            continue
        what, setting, service, place, *result = cells
        decides = OBJECTS[what]
        if decides is None:
            assert setting == "any", line
            values = [None]
        elif setting == "any":
            values = list(range(SETTINGS[decides]))
        else:
            name, _, numbers = setting.partition(" = ")
            assert name == "protected_" + decides, line
            values = [int(number) for number in numbers.split(" or ")]
        for service, place in itertools.product(one_or_all(service, SERVICES), one_or_all(place, ("same", "other"))):
            for value in values:
                key = (what, service, place, value)
                assert key not in expected, f"twice in the document: {key}"
                expected[key] = tuple(result)
    return expected


def compare(results, expected):
    failures = []
    for key in sorted(results.keys() | expected.keys(), key=str):
        measured = results.get(key, {})
        if list(measured) != [expected.get(key)]:
            failures.append(f"{key}\n  document: {expected.get(key)}\n  measured: {measured}")
    print("\n".join(failures))
    print(f"security: {len(expected)} cases of the document, {len(failures)} wrong")
    return not failures


def main():
    arguments = sys.argv[1:]
    measuring = arguments[0] == "--measure"
    safe = arguments[0] == "--safe"
    document, *program = arguments[measuring:]
    try:
        if os.geteuid() != 0:
            raise Skip("not root")
        mount_private_build_directories()
        os.umask(0o022)
        with SavedSettings():
            new_page = make_page(program, 0)
            if safe:
                return 0 if attack_the_safe_page(program, new_page) else 1
            results = measure(program, new_page)
            write_settings(dict.fromkeys(SETTINGS, 0))
            check_private_directory(program, new_page)
    except Skip as skip:
        orv_test.skip(f"nothing was tested: {skip}")
    if measuring:
        print_table(results)
        return 0
    return 0 if compare(results, read_table(document)) else 1


if __name__ == "__main__":
    sys.exit(main())
