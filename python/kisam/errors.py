"""Exceptions of the kisam package and the library's error codes."""

from __future__ import annotations

import os
from collections import namedtuple
from typing import Iterable, Optional

# The library's error codes (is_errno).
ISE_BTNP = 1
ISE_CREATF = 2
ISE_INITERR = 3
ISE_NKEYERR = 4
ISE_NOIDB = 5
ISE_NOKEY = 6
ISE_OPENF = 7
ISE_INVKL = 8
ISE_RONLY = 9
ISE_RSIZE = 10
ISE_BADFD = 11
ISE_BADKN = 12
ISE_NOFCP = 13
ISE_NOTISAM = 14
ISE_RDSK = 15
ISE_RDWT = 16
ISE_BUFLINK = 17
ISE_RDRD = 18
ISE_FLSK = 19
ISE_FLWT = 20
ISE_NWSK = 21
ISE_NWWT = 22
ISE_FLFCP = 23
ISE_BTS = 24
ISE_KEYSAVE = 25
ISE_TMFILES = 26
ISE_MAGICVALERR = 27
ISE_VERSIONERR = 28
ISE_CREATEISOPEN = 29
ISE_INCONSISTENT = 30
ISE_DEADLOCK = 31

# Codes of this package for the failures that the library reports without a code of
# its own (its call returns 1 or -1 and leaves is_errno alone).  They lie above the
# library's codes, which never reach them.
E_DUPLICATE = 100   # put: a record with this key 0 value is stored already
E_LOCKED = 101      # lock without waiting: another process holds an overlapping lock
E_LOCKROOM = 102    # lock: the shared area's heap has no room for another lock
E_NOTLOCKED = 103   # unlock: no such lock is held through this file

ERROR_NAMES = {v: k for k, v in list(globals().items()) if k.startswith(("ISE_", "E_"))}

# One entry of the library's procedure stack: the procedure's name, the failure point
# within it (the detail, a signed byte) and the 16-bit code (character * 256 + detail).
StackEntry = namedtuple("StackEntry", "procedure detail code")


class KisamError(Exception):
    """A failed library call.

    ``code`` is the library's error number (``is_errno``, one of the ``ISE_*``
    constants); for the failures the library reports without one, this package's own
    (``E_DUPLICATE``, ``E_LOCKED``, ``E_LOCKROOM``, ``E_NOTLOCKED``); None only where
    a call failed with no report at all.  ``stack`` lists the
    procedures the failure passed through, innermost first.  ``message`` is the
    library's own one-line report (``niserrmsgget``), ``errno`` the system error of the
    call (0 if none), ``hint`` a remark of this package on a known cause, or "".
    """

    def __init__(self, message: str, code: Optional[int] = None, stack: Iterable["StackEntry"] = (),
                 errno: int = 0, hint: str = "") -> None:
        super().__init__(message)
        self.message = message
        self.code = code
        self.stack = tuple(stack)
        self.errno = errno
        self.hint = hint

    @property
    def name(self) -> Optional[str]:
        """The name of ``code`` ("ISE_NOKEY"), or None."""
        if self.code is None:
            return None
        return ERROR_NAMES.get(self.code, "isam error #%d" % self.code)

    def __str__(self) -> str:
        text = self.message
        if self.hint:
            text += "\n" + self.hint
        return text


class NotFoundError(KisamError, KeyError):
    """No record has this key value (``ISE_NOKEY`` from a delete or an update, or a
    lookup with ``file[key]`` that found nothing)."""


class DuplicateKeyError(KisamError, KeyError):
    """``put`` of a record whose key 0 value is stored already; nothing was changed.
    ``code`` is ``E_DUPLICATE``."""


class LockError(KisamError):
    """A record lock was refused: another process holds an overlapping lock
    (``E_LOCKED``), the wait would have closed a cycle of waits (``ISE_DEADLOCK``,
    ``errno`` EDEADLK), the shared area has no room for another lock (``E_LOCKROOM``),
    or a lock to release is not held (``E_NOTLOCKED``)."""


class NoSuchFileError(KisamError, FileNotFoundError):
    """The file to open, or the directory to create it in, does not exist
    (``ISE_OPENF`` or ``ISE_CREATF`` with ``errno`` ENOENT).  Also a
    FileNotFoundError: ``filename`` names the file, ``strerror`` says why."""

    def __init__(self, message: str, code: Optional[int] = None, stack: Iterable["StackEntry"] = (),
                 errno: int = 0, hint: str = "") -> None:
        KisamError.__init__(self, message, code, stack, errno, hint)
        self.strerror = os.strerror(errno) if errno else message
        self.filename = None

    def __str__(self) -> str:
        return KisamError.__str__(self)


class LibraryError(OSError):
    """libkisam.so.1 could not be found or loaded."""
