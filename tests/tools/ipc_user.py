"""Users of named objects: processes with the library, and the kernel's calls made by hand."""

import ctypes
import os
import subprocess

from tool import KOVA, LIMIT

USER = os.environ["KOVA_IPC_USER"]
NOBODY = 65534
LOCKS = "/tmp/kova"
QUEUES = "/tmp/voxa/hubl"
IPC_CREAT, IPC_EXCL = 0o1000, 0o2000
IPC_RMID, SETVAL, GETVAL = 0, 16, 12


class User:
    """A process that does what it is told with the library."""

    def __init__(self, *lines):
        self.process = subprocess.Popen([USER], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.pid = self.process.pid
        for line in lines:
            self.do(line)

    def say(self, line):
        """Tells without waiting for the result."""
        print(line, file=self.process.stdin, flush=True)

    def result(self):
        return int(self.process.stdout.readline())

    def do(self, line):
        self.say(line)
        result = self.result()
        assert result >= 0, f"{line}: {result}"
        return result

    def kill(self):
        self.process.kill()
        self.process.wait(LIMIT)

    def end(self):
        """Ends without closing anything."""
        self.process.stdin.close()
        assert self.process.wait(LIMIT) == 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()
        self.process.stdin.close()
        self.process.stdout.close()


_LIBC = ctypes.CDLL(None, use_errno=True)


def _checked(name, *arguments):
    result = getattr(_LIBC, name)(*arguments)
    if result < 0:
        raise OSError(ctypes.get_errno(), name)
    return result


def key_file(name):
    """Makes the file; its key."""
    directory = QUEUES if name.endswith(".kovamsg") else LOCKS
    os.makedirs(directory, exist_ok=True)
    path = f"{directory}/{name}"
    with open(path, "a", encoding="ascii"):
        pass
    os.chmod(path, 0o666)
    status = os.stat(path)
    return 80 << 24 | (status.st_dev & 0xFF) << 16 | status.st_ino & 0xFFFF


def make_set(key, values, mode=0o666):
    """A semaphore set with these values; its id."""
    number = _checked("semget", key, len(values), IPC_CREAT | IPC_EXCL | mode)
    for position, value in enumerate(values):
        set_value(number, position, value)
    return number


def set_value(number, position, value):
    _checked("semctl", number, position, SETVAL, value)


def is_set(number):
    return _LIBC.semctl(number, 0, GETVAL) >= 0


def make_queue(key, mode=0o666):
    return _checked("msgget", key, IPC_CREAT | IPC_EXCL | mode)


def remove_queue(number):
    _checked("msgctl", number, IPC_RMID, None)


def is_queue(key):
    return _LIBC.msgget(key, 0) >= 0


def as_nobody(test, *command):
    """Runs the command without privilege to its end; skips where no other user can run it."""
    ids = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
    try:
        able = subprocess.run([KOVA, "--version"], capture_output=True, timeout=LIMIT, **ids).returncode == 0
    except (OSError, subprocess.SubprocessError) as reason:
        able = str(reason)
    if able is not True:
        reason = f"no other user can run the command here: {able}"
        # For the summary of the test run.
        print(f"{test.id()}: Skipped\n{reason}\n", flush=True)
        test.skipTest(reason)
    return subprocess.run([KOVA, *map(str, command)], capture_output=True, timeout=LIMIT, **ids)
