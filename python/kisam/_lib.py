"""The library itself: finding and loading libkisam.so.1, the prototypes of the calls
used, this process's attachment to the shared area, and the error state a failed call
leaves behind.

Every call into the library runs under one process-wide lock (``LOCK``).  The engine
serves one thread of a process at a time, and its error state (``is_errno``, the
procedure stack, ``errno``) describes the call that just returned only while no other
call can run; the lock is held from before a call until that state has been read.

Attachment.  The package attaches when the first file is opened or created, or when
``attach()`` is called, and detaches (``nisunisam``) when the last open file is closed
and no ``attach()`` hold remains, so that a program leaves no shared segment of its own
behind.  ``state.users`` counts the open files and the holds.  Every detach starts a
new ``state.generation``: a handle of an earlier generation is gone.

Signals.  A call that waits for a lock another process holds sleeps in the kernel.
Python runs its signal handlers only between bytecodes, so at load the package asks the
library to give such a wait up when a signal interrupts it (``kisam_set_wait_hook`` with
``KISAM_WAIT_GIVE_UP``; Python installs its handlers without SA_RESTART).  The call then
fails with nothing changed; ``raw`` runs the pending handlers at once -- Ctrl-C raises
KeyboardInterrupt there -- and makes the call again when they raise nothing.

Fork.  A child created by fork inherits the attachment but is a process of its own to
the library: before its first call it registers with ``is_chinit`` (lazily, so a child
that never uses the package claims nothing), and it detaches when it ends.
"""

from __future__ import annotations

import atexit
import ctypes
import errno
import os
import sys
import threading
import warnings
from typing import Any, List, Optional, Tuple, Union

from .errors import (
    ISE_CREATF,
    ISE_INITERR,
    ISE_NOKEY,
    ISE_OPENF,
    KisamError,
    LibraryError,
    NoSuchFileError,
    NotFoundError,
    StackEntry,
)

SONAME = "libkisam.so.1"
# Searched after the dynamic loader: the default prefix of `make install`, whose library
# directory the loader's cache knows only once ldconfig has run.
FALLBACK_PATHS = ("/usr/local/lib/" + SONAME,)

MAX_RECORD = 65534      # longest record; reads use a buffer of this size, never cut
MAX_KEYS = 25
MESSAGE_SIZE = 1024     # niserrmsgget never formats more
STACK_SIZE = 20         # entries of is_estk

ISO_RDONLY = 0
ISO_RDWR = 2
ISF_NOVERIFY = 0x2000

c_int, c_short, c_char_p, c_void_p = ctypes.c_int, ctypes.c_short, ctypes.c_char_p, ctypes.c_void_p

_PROTOTYPES = {
    "is_init": (c_int, []),
    "is_chinit": (c_int, []),
    "nisunisam": (c_int, []),
    "niscr_ctl": (None, [c_int, c_int]),
    "niscreate": (c_int, [c_char_p, c_int, c_void_p]),
    "nisopen": (c_int, [c_char_p, c_int]),
    "nisclose": (c_int, [c_int]),
    "nisflush": (c_int, [c_int]),
    "nisstat": (c_int, [c_int, c_int, c_void_p]),
    "nisread": (c_int, [c_int, c_int, c_void_p, c_int]),
    "nispread": (c_int, [c_int, c_int, c_void_p, c_int]),
    "nisfind": (c_int, [c_int, c_int, c_void_p, c_void_p, c_int]),
    "nisseek": (c_int, [c_int, c_int, c_void_p]),
    "niswrite": (c_int, [c_int, c_void_p, c_int]),
    "nisfwrite": (c_int, [c_int, c_void_p, c_int]),
    "nisupdate": (c_int, [c_int, c_void_p, c_int]),
    "nisdelete": (c_int, [c_int, c_void_p]),
    "nisgetctl": (c_int, [c_int]),
    "nisrelctl": (c_int, [c_int]),
    "nislock": (c_int, [c_int, c_void_p, c_int, c_int]),
    "nisunlock": (c_int, [c_int, c_void_p, c_int, c_int]),
    "niserrmsgget": (c_int, [c_void_p, c_int]),
    "KIprocname": (c_char_p, [c_short]),
    "LoadEnv": (None, []),
    "ZTGetEnvX": (c_char_p, [c_char_p]),
    "ZTPutEnv": (None, [c_char_p, c_char_p]),
    "ZTKISAMGetComAddr": (c_void_p, []),
    "kisam_area_bytes": (ctypes.c_long, [c_int, c_int, c_int]),
    "kisam_set_wait_hook": (c_int, [c_void_p, c_void_p, c_int]),
}

KISAM_ISE_INTERRUPTED = 32   # a wait for a lock given up at a signal; nothing changed
KISAM_WAIT_GIVE_UP = 1


class _Etrace(ctypes.Structure):
    _fields_ = [("is_euid", ctypes.c_int8), ("is_eproc", ctypes.c_int8)]


class Library:
    """The loaded library: its functions by name and views of its error globals."""

    def __init__(self, path: str) -> None:
        try:
            self.dll = ctypes.CDLL(path, use_errno=True)
        except OSError as e:
            raise LibraryError("cannot load %s: %s" % (path, e)) from None
        self.path = path
        try:
            for name, (restype, argtypes) in _PROTOTYPES.items():
                fn = getattr(self.dll, name)
                fn.restype = restype
                fn.argtypes = argtypes
                setattr(self, name, fn)
            self.is_errno = c_short.in_dll(self.dll, "is_errno")
            self.is_etop = c_void_p.in_dll(self.dll, "is_etop")
            self.is_estk = (_Etrace * STACK_SIZE).in_dll(self.dll, "is_estk")
        except (AttributeError, ValueError) as e:
            raise LibraryError("%s is not libkisam: %s" % (path, e)) from None
        # Waits for locks end at a signal, so that its handler runs (see Signals above).
        self.kisam_set_wait_hook(None, None, KISAM_WAIT_GIVE_UP)


class _State:
    def __init__(self) -> None:
        self.lib: Optional[Library] = None
        self.pid: Optional[int] = None  # process that is attached through this package
        self.users = 0           # open files + attach() holds
        self.config: Optional[str] = None  # KISCONFIG value put at attach ("" : the library's search)
        self.put_config = False  # whether KISCONFIG was ever put into the settings store
        self.external = False    # attached by other code of this process: never detach
        self.generation = 0
        self.pending: List[Tuple[int, int]] = []  # (generation, isfd) of files collected while open
        self.atexit = False
        self.forked = False      # this process is a fork child that has not registered yet


state = _State()
LOCK = threading.RLock()


def _before_fork() -> None:
    LOCK.acquire()


def _after_fork_parent() -> None:
    LOCK.release()


def _after_fork_child() -> None:
    state.forked = state.pid is not None
    LOCK.release()


os.register_at_fork(before=_before_fork, after_in_parent=_after_fork_parent, after_in_child=_after_fork_child)


# ---- loading ---------------------------------------------------------------------------

def load_library(path: "Optional[Union[str, os.PathLike[str]]]" = None) -> str:
    """Loads libkisam and returns the path it was loaded from.

    The library is looked for, in this order: ``path``; the environment variable
    ``KISAM_LIBRARY``; the dynamic loader's search for ``libkisam.so.1``
    (``LD_LIBRARY_PATH``, the loader's cache, /lib, /usr/lib); /usr/local/lib.  A process
    loads the library once: a later call with another path raises LibraryError.
    """
    with LOCK:
        if path is not None:
            path = os.fspath(path)
        if state.lib is not None:
            if path is not None and os.path.realpath(path) != os.path.realpath(state.lib.path):
                raise LibraryError("libkisam is loaded already from %s" % state.lib.path)
            return state.lib.path
        if path is not None:
            state.lib = Library(path)
            return path
        env = os.environ.get("KISAM_LIBRARY")
        if env:
            state.lib = Library(env)
            return env
        tried = [SONAME + " (dynamic loader)"]
        try:
            state.lib = Library(SONAME)
            return SONAME
        except LibraryError:
            pass
        for p in FALLBACK_PATHS:
            tried.append(p)
            if os.path.exists(p):
                state.lib = Library(p)
                return p
        raise LibraryError(
            "libkisam not found; tried: %s. Install it (make install), or name it with "
            "KISAM_LIBRARY=/path/to/libkisam.so.1 or kisam.load_library(path)" % ", ".join(tried))


def lib() -> Library:
    if state.lib is None:
        load_library()
    return state.lib


# ---- errors ----------------------------------------------------------------------------

def _stack(L: Library) -> List[StackEntry]:
    top = L.is_etop.value
    if not top:
        return []
    n = (top - ctypes.addressof(L.is_estk)) // ctypes.sizeof(_Etrace)
    entries = []
    for e in L.is_estk[: max(0, min(n, STACK_SIZE))]:
        name = L.KIprocname(e.is_eproc)
        entries.append(StackEntry(name.decode("ascii", "replace") if name else "#%d" % e.is_eproc,
                                  e.is_euid, ((e.is_eproc & 0xFF) << 8) | (e.is_euid & 0xFF)))
    return entries


def _config_places(L: Library) -> List[str]:
    """Where the library looks for its configuration, as it would now."""
    L.LoadEnv()
    conf = L.ZTGetEnvX(b"KISCONFIG")
    if conf:
        return [os.fsdecode(conf) + " (KISCONFIG)"]
    places = []
    for var in (b"etc_dir", b"HOME_Q9"):
        v = L.ZTGetEnvX(var)
        places.append(os.path.join(os.fsdecode(v or b""), "kisamconfig"))
    return places


def _hint(L: Library, code: int, stack: List[StackEntry]) -> str:
    if code == ISE_INITERR and stack and stack[0].code == 0x2201:
        return ("no configuration file could be opened; looked at: %s. Write one with "
                "kisam.write_config(PATH) and name it with KISCONFIG or config=PATH"
                % ", ".join(_config_places(L)))
    if code == ISE_INITERR and stack and stack[0].code == 0x2205:
        return "every process slot of the shared area is taken (raise users= in the configuration)"
    return ""


def capture_error(L: Library, sys_errno: int) -> KisamError:
    """The library's report of the call that just failed, as an exception."""
    stack = _stack(L)
    if not stack:
        return KisamError("", None, (), sys_errno)
    code = L.is_errno.value
    buf = ctypes.create_string_buffer(MESSAGE_SIZE)
    n = L.niserrmsgget(buf, MESSAGE_SIZE)
    message = buf.raw[: max(0, n)].decode("utf-8", "replace")
    if code == ISE_NOKEY:
        cls = NotFoundError
    elif code in (ISE_OPENF, ISE_CREATF) and sys_errno == errno.ENOENT:
        cls = NoSuchFileError
    else:
        cls = KisamError
    return cls(message, code, stack, sys_errno, _hint(L, code, stack))


def raw(name: str, *args: Any) -> Tuple[Any, Optional[KisamError]]:
    """Calls `name`; returns (result, error) where error is the exception describing a
    negative result, or None.  The error state is cleared first, so a failure that the
    library reports without a code comes back with ``code`` None."""
    with LOCK:
        L = _ready()
        fn = getattr(L, name)
        while True:
            L.is_etop.value = None
            L.is_errno.value = 0
            rc = fn(*args)
            if rc is not None and rc < 0:
                if L.is_errno.value == KISAM_ISE_INTERRUPTED and L.is_etop.value:
                    # A signal ended a wait for a lock; the call changed nothing.  Its
                    # handler runs now (KeyboardInterrupt raises from here); a handler
                    # that raises nothing lets the call be made again.
                    _check_signals()
                    continue
                return rc, capture_error(L, ctypes.get_errno())
            return rc, None


def _check_signals():
    """Runs the Python handlers of the signals that arrived; raises what they raise.
    (Outside the main thread it does nothing: the handlers run in the main thread.)"""
    ctypes.pythonapi.PyErr_CheckSignals()


def call(name: str, *args: Any) -> Any:
    """Calls `name` and raises the library's error for a negative result."""
    rc, err = raw(name, *args)
    if err is not None:
        raise err
    return rc


# ---- the process's attachment ----------------------------------------------------------

def _ready() -> Library:
    """The library, with a forked child registered and collected files closed.  Called
    with LOCK held before every call."""
    L = lib()
    if state.forked:
        # A forked child: the library still carries the parent's identity, under which
        # no call may run.
        L.is_etop.value = None
        if L.is_chinit() != 0:
            err = capture_error(L, ctypes.get_errno())
            if not L.ZTKISAMGetComAddr():
                # Refused (no process slot): the library has let the area go, so this
                # process is not attached and its inherited handles are gone.
                state.forked = False
                state.pid, state.users, state.external = None, 0, False
                state.generation += 1
            raise err
        state.forked = False
        state.pid = os.getpid()
        state.external = False
        _detach_at_exit_of_child()
    while state.pending:
        gen, fd = state.pending.pop()
        if gen == state.generation and state.pid is not None:
            _close_fd(L, fd)
            _release_locked(L)
    return L


def _detach_at_exit_of_child() -> None:
    # A child of multiprocessing ends with os._exit, which skips atexit; its own exit
    # hooks still run.
    mp = sys.modules.get("multiprocessing.util")
    if mp is not None:
        mp.Finalize(None, detach_at_exit, exitpriority=0)


def _config_value(config: Any) -> str:
    if config is None:
        return os.environ.get("KISCONFIG", "")
    value = os.path.abspath(os.fspath(config))
    if "${" in value:
        raise ValueError("configuration path %r: the settings store would expand ${...} in it" % value)
    if len(os.fsencode(value)) > 511:
        raise ValueError("configuration path longer than 511 bytes: %r" % value)
    return value


def attach(config: Any = None) -> None:
    """Takes one hold of the attachment, attaching first if needed."""
    with LOCK:
        L = _ready()
        value = _config_value(config)
        if state.pid is not None:
            if config is not None and value != state.config:
                raise ValueError(
                    "attached already with configuration %r; kisam.detach() first to use %r"
                    % (state.config or "(the library's search)", value))
            state.users += 1
            return
        if L.ZTKISAMGetComAddr():
            # Some other code of this process attached; it owns the attachment.
            state.pid, state.external, state.config = os.getpid(), True, value
            state.users += 1
            return
        if value or state.put_config:
            L.ZTPutEnv(b"KISCONFIG", os.fsencode(value))
            state.put_config = True
        L.is_etop.value = None
        L.is_errno.value = 0
        if L.is_init() != 0:
            raise capture_error(L, ctypes.get_errno())
        state.pid, state.external, state.config, state.users = os.getpid(), False, value, 1
        if not state.atexit:
            atexit.register(detach_at_exit)
            state.atexit = True


def _release_locked(L: Library) -> None:
    state.users -= 1
    if state.users <= 0:
        state.users = 0
        if not state.external:
            L.nisunisam()
        state.pid = None
        state.generation += 1


def release() -> None:
    """Gives one hold back; the last one detaches."""
    with LOCK:
        L = _ready()
        if state.pid is not None:
            _release_locked(L)


def close_handle(fd: int, generation: int) -> None:
    """Closes handle `fd` of `generation` and gives its hold back."""
    with LOCK:
        L = _ready()
        if generation != state.generation or state.pid is None:
            return
        _close_fd(L, fd)
        _release_locked(L)


def _close_fd(L, fd):
    # A close is never given up: a signal that ends its wait for a lock makes it again
    # (the handler runs once the package returns to Python code).
    while True:
        L.is_etop.value = None
        L.is_errno.value = 0
        if L.nisclose(fd) >= 0 or L.is_errno.value != KISAM_ISE_INTERRUPTED or not L.is_etop.value:
            return


def collect(fd: int, generation: int) -> None:
    """Finalizer of a file that was never closed: closed at the next call (never from
    inside the garbage collector, which may run in the middle of another call)."""
    state.pending.append((generation, fd))
    if not sys.is_finalizing():
        warnings.warn("kisam file (handle %d) was never closed" % fd, ResourceWarning, stacklevel=2)


def detach() -> None:
    """Closes every file of this process and detaches from the shared area now."""
    with LOCK:
        if state.lib is None:
            return
        L = _ready()
        state.pending.clear()
        if state.pid is None:
            return
        L.nisunisam()
        state.pid, state.users, state.external = None, 0, False
        state.generation += 1


def detach_at_exit() -> None:
    with LOCK:
        if state.pid == os.getpid() and not state.external:
            state.lib.nisunisam()
            state.pid, state.users = None, 0
            state.generation += 1


def attached() -> bool:
    """Whether this process is attached through the package."""
    with LOCK:
        return state.pid is not None


