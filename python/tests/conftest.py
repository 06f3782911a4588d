"""Fixtures: a private installation per test, the shared segment checked and removed
after it, and a second process that runs the package from a script.

Each test works in its own temporary directory; HOME, HOME_Q9, PROFILEQ9ENV and
KISCONFIG point there, so the real home directory and /usr/q9 are never read or changed.
The library is the one named by KISAM_LIBRARY (CTest passes the one just built), else
the build tree's, else the loader's search.
"""

import os
import select
import subprocess
import sys
import textwrap
import time

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
PACKAGE_DIR = os.path.dirname(HERE)
REPO = os.path.dirname(PACKAGE_DIR)

sys.path.insert(0, PACKAGE_DIR)
if not os.environ.get("KISAM_LIBRARY"):
    built = os.path.join(REPO, "build", "libkisam.so.1")
    if os.path.exists(built):
        os.environ["KISAM_LIBRARY"] = built

import kisam  # noqa: E402


def ftok(path, proj=1):
    """The System V key the library derives from `path`, as ftok(3) computes it."""
    st = os.stat(path)
    return ((proj & 0xFF) << 24) | ((st.st_dev & 0xFF) << 16) | (st.st_ino & 0xFFFF)


def segments(key):
    """Ids of the shared segments with System V key `key`."""
    ids = []
    with open("/proc/sysvipc/shm") as f:
        next(f)
        for line in f:
            fields = line.split()
            if int(fields[0]) & 0xFFFFFFFF == key & 0xFFFFFFFF:
                ids.append(int(fields[1]))
    return ids


def remove_segment(shmid):
    import ctypes
    libc = ctypes.CDLL(None, use_errno=True)
    libc.shmctl(ctypes.c_int(shmid), ctypes.c_int(0), None)  # IPC_RMID


class Installation:
    def __init__(self, root):
        self.dir = str(root)
        self.config = os.path.join(self.dir, "kisamconfig")

    def path(self, name):
        return os.path.join(self.dir, name)

    @property
    def key(self):
        return ftok(self.config + ".lk")

    def segment_ids(self):
        return segments(self.key)


@pytest.fixture(autouse=True)
def private_env(tmp_path, monkeypatch):
    """Every test, and every process it starts, sees only its own directory as home,
    installation home and profile, and KISCONFIG names a file there."""
    for sub in ("home", "q9"):
        (tmp_path / sub).mkdir()
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    monkeypatch.setenv("HOME_Q9", str(tmp_path / "q9"))
    monkeypatch.setenv("PROFILEQ9ENV", str(tmp_path / "home" / ".Q9.profile"))
    monkeypatch.setenv("KISCONFIG", str(tmp_path / "kisamconfig"))
    return tmp_path


@pytest.fixture
def inst(private_env):
    """A fresh installation: a configuration with its lock file in the test's
    directory.  After the test the process is detached, and no shared segment of the
    installation may remain."""
    i = Installation(private_env)
    kisam.write_config(i.config, files=16, buffers=64, users=16, locks_per_file=16)
    key = i.key
    yield i
    kisam.detach()
    left = segments(key)
    for shmid in left:
        remove_segment(shmid)
    assert not left, "shared segment left behind: key 0x%08x" % key


CHILD_PRELUDE = """
import os, sys
sys.path.insert(0, %r)
import kisam
def say(*words):
    print(*words, flush=True)
def wait():
    line = sys.stdin.readline()
    if not line:
        sys.exit(3)
    return line.strip()
""" % PACKAGE_DIR


class Child:
    """A second Python process running `script` (the prelude gives it `kisam`, `say`
    to report a line and `wait` to wait for one).  It inherits the test's environment,
    so it attaches to the same installation."""

    def __init__(self, script, env=None):
        full = CHILD_PRELUDE + textwrap.dedent(script)
        self.proc = subprocess.Popen([sys.executable, "-c", full], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                     env=env if env is not None else dict(os.environ))
        self._fd = self.proc.stdout.fileno()
        self._pending = b""

    def expect(self, want, timeout=20):
        line = self.readline(timeout)
        assert line == want, "child said %r, expected %r; stderr: %s" % (line, want, self.stderr())
        return line

    def readline(self, timeout=20):
        # Lines are taken from a buffer of our own: two lines that arrive together must
        # not leave the second where select() cannot see it.
        deadline = time.monotonic() + timeout
        while b"\n" not in self._pending:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self._fd], [], [], left)[0]:
                return None
            chunk = os.read(self._fd, 4096)
            if not chunk:
                return None
            self._pending += chunk
        line, _, self._pending = self._pending.partition(b"\n")
        return line.decode()

    def quiet_for(self, seconds):
        """True when the child says nothing for `seconds`."""
        return not self._pending and not select.select([self._fd], [], [], seconds)[0]

    def send(self, line="go"):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()

    def finish(self, timeout=30):
        try:
            self.proc.stdin.close()
        except BrokenPipeError:
            pass
        rc = self.proc.wait(timeout)
        return rc

    def stderr(self):
        if self.proc.poll() is None:
            return "(running)"
        return self.proc.stderr.read()


@pytest.fixture
def child():
    started = []

    def start(script, env=None):
        c = Child(script, env)
        started.append(c)
        return c

    yield start
    for c in started:
        if c.proc.poll() is None:
            c.proc.kill()
        c.proc.wait()
        for stream in (c.proc.stdin, c.proc.stdout, c.proc.stderr):
            try:
                stream.close()
            except (OSError, BrokenPipeError):
                pass

