"""Open ISAM files: records, iteration along a key, record locks and the control lock."""

from __future__ import annotations

import ctypes
import errno
import operator
import os
import time
import weakref
from typing import Any, Dict, Iterator, Optional, Sequence, Tuple, Union

from . import _lib
from ._lib import LOCK, MAX_KEYS, MAX_RECORD
from .errors import (
    E_DUPLICATE,
    E_LOCKED,
    E_LOCKROOM,
    E_NOTLOCKED,
    ISE_DEADLOCK,
    ISE_NOKEY,
    DuplicateKeyError,
    LockError,
    NoSuchFileError,
    NotFoundError,
)

# What the package accepts as bytes: records, key values, prefixes.
BytesLike = Union[bytes, bytearray, memoryview]
PathLike = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]


def _show(b: bytes) -> str:
    """A value for a message: its first bytes, and its length when it is long."""
    if len(b) <= 40:
        return repr(b)
    return "%r... (%d bytes)" % (b[:40], len(b))


def pad(value: Union[str, BytesLike], length: int, fill: Union[str, bytes] = b" ") -> bytes:
    """``value`` (bytes, or str as UTF-8) filled up to ``length`` bytes with ``fill``.

    Keys are compared as bytes over their whole length, so a value shorter than its key
    must be filled the same way each time it is stored or looked up.  A value longer than
    ``length`` raises ValueError rather than being cut.
    """
    b = value.encode("utf-8") if isinstance(value, str) else _bytes(value, "a key value")
    fill = fill.encode("latin-1") if isinstance(fill, str) else _bytes(fill, "fill")
    if len(fill) != 1:
        raise ValueError("fill must be one byte")
    if len(b) > length:
        raise ValueError("value of %d bytes is longer than %d: %s" % (len(b), length, _show(b)))
    return b + fill * (length - len(b))


def _bytes(value: object, what: str) -> bytes:
    if isinstance(value, bytes):
        return value
    if isinstance(value, (bytearray, memoryview)):
        return bytes(value)
    raise TypeError("%s must be bytes, not %s" % (what, type(value).__name__))


def _size(b: bytes, limit: int) -> int:
    """The length to pass with `b`: its own, or just past `limit`, so that the library
    refuses an over-long value with its own error instead of a C int wrapping round."""
    return min(len(b), limit + 1)


INT_MAX = 2**31 - 1
MAX_LOCK_KEY = 32767


def _path(path: PathLike) -> bytes:
    p = os.fsencode(path)
    if b"\0" in p:
        raise ValueError("file name contains a NUL byte: %r" % (path,))
    return p


class File:
    """An open ISAM file.  Made by ``kisam.open`` and ``kisam.create``; a context
    manager that closes the file.

    Records are bytes that begin with the file's key values, each exactly as long as its
    key (``key_lengths``), key 0 first.  Key 0 is unique; the other keys may repeat.
    """

    def __init__(self, fd: int, path: str, writable: bool) -> None:
        self._fd: Optional[int] = fd
        self._generation = _lib.state.generation
        self.path = path
        self.writable = writable
        self._buf = ctypes.create_string_buffer(MAX_RECORD)
        # The iterator that last moved the cursor of each key; any other use of that
        # cursor makes the iterator find its place again (see _Scan).
        self._cursor: Dict[int, Any] = {}
        lens = (ctypes.c_int * MAX_KEYS)()
        n = _lib.call("nisstat", fd, MAX_KEYS, lens)
        self.key_lengths = tuple(lens[: min(n, MAX_KEYS)])
        self._offsets = tuple(sum(self.key_lengths[:i]) for i in range(len(self.key_lengths)))
        self._finalizer = weakref.finalize(self, _lib.collect, fd, self._generation)

    # ---- state -------------------------------------------------------------------------

    @property
    def closed(self) -> bool:
        return self._fd is None or self._generation != _lib.state.generation

    @property
    def min_record(self) -> int:
        """Length of the shortest record: all key values together."""
        return sum(self.key_lengths)

    def _handle(self) -> int:
        if self.closed:
            raise ValueError("operation on a closed kisam file: %s" % self.path)
        return self._fd

    def close(self) -> None:
        """Closes the file; its record locks are released.  Closing twice is harmless."""
        if self._fd is None:
            return
        fd, self._fd = self._fd, None
        self._finalizer.detach()
        _lib.close_handle(fd, self._generation)

    def __enter__(self) -> "File":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self.closed else "keys=%r %s" % (self.key_lengths, "rw" if self.writable else "r")
        return "<kisam.File %r %s>" % (self.path, state)

    # ---- keys --------------------------------------------------------------------------

    def _keyno(self, keyno: int) -> Tuple[int, bool]:
        keyno = operator.index(keyno)
        if not -INT_MAX - 1 <= keyno <= INT_MAX:
            raise ValueError("key number out of range: %d" % keyno)
        return keyno, 0 <= keyno < len(self.key_lengths)

    def _key(self, value: object, keyno: int) -> Tuple[int, Any]:
        """The key value as the library reads it: exactly the key's length.  For a key
        number the file does not have, the library refuses the call before it reads the
        value (ISE_BADKN)."""
        keyno, valid = self._keyno(keyno)
        if not valid:
            return keyno, self._buf
        b = _bytes(value, "a key value")
        n = self.key_lengths[keyno]
        if len(b) != n:
            raise ValueError("key %d is %d bytes long, the value has %d: %s (kisam.pad() fills a shorter one)"
                             % (keyno, n, len(b), _show(b)))
        return keyno, b

    def key_of(self, record: BytesLike, keyno: int = 0) -> bytes:
        """The value of key ``keyno`` in ``record``."""
        keyno = operator.index(keyno)
        o = self._offsets[keyno]
        return bytes(record[o: o + self.key_lengths[keyno]])

    def pad_key(self, value: Union[str, BytesLike], keyno: int = 0, fill: Union[str, bytes] = b" ") -> bytes:
        """``value`` filled with ``fill`` to the length of key ``keyno``."""
        return pad(value, self.key_lengths[operator.index(keyno)], fill)

    # ---- records -----------------------------------------------------------------------

    def _result(self, n: int) -> Optional[bytes]:
        return ctypes.string_at(self._buf, n) if n > 0 else None

    def get(self, key: BytesLike, keyno: int = 0) -> Optional[bytes]:
        """The first record, in the order of key ``keyno``, whose key begins with
        ``key``, or None.  A value as long as the key must match it exactly; a shorter
        one is a prefix.  Along a key that repeats, the record with the smallest key 0
        value comes first."""
        with LOCK:
            fd = self._handle()
            keyno, valid = self._keyno(keyno)
            if not valid:
                _lib.call("nisfind", fd, keyno, self._buf, self._buf, MAX_RECORD)  # ISE_BADKN
            b = _bytes(key, "a key value")
            n = self.key_lengths[keyno]
            if len(b) > n:
                raise ValueError("key %d is %d bytes long, the value has %d: %s"
                                 % (keyno, n, len(b), _show(b)))
            self._cursor[keyno] = None
            if keyno == 0 and len(b) == n:
                # Key 0 is unique: the exact search finds the one record.
                return self._result(_lib.call("nisfind", fd, 0, b, self._buf, MAX_RECORD))
            # The first record at or after the value (the smallest key 0 among equal
            # values), if it begins with it.
            _lib.call("nisseek", fd, keyno, b + b"\0" * (n - len(b)))
            got = _lib.call("nisread", fd, keyno, self._buf, MAX_RECORD)
            o = self._offsets[keyno]
            if got >= o + len(b) and ctypes.string_at(ctypes.addressof(self._buf) + o, len(b)) == b:
                return self._result(got)
            return None

    def __getitem__(self, key: BytesLike) -> bytes:
        """The record whose key 0 value is ``key`` (as long as key 0: no prefix)."""
        _, k = self._key(key, 0)
        rec = self.get(k)
        if rec is None:
            raise NotFoundError("no record with key 0 value %s" % _show(bytes(key)), ISE_NOKEY)
        return rec

    def __contains__(self, key: object) -> bool:
        _, k = self._key(key, 0)
        return self.get(k) is not None

    def count(self, start: Optional[BytesLike] = None, keyno: int = 0, *, to: Optional[BytesLike] = None) -> int:
        """How many records ``scan(start, keyno, to=to)`` would give, counted under the
        file's control lock, so the figure holds for one moment (other processes' changes
        to the file wait meanwhile).  It reads the index of the key: time grows with the
        number of records counted."""
        with LOCK:
            it = _Scan(self, start, keyno, False, to, self.min_record)
            n = 0
            with self.control():
                for _ in it:
                    n += 1
            return n

    def __len__(self) -> int:
        """The number of records (``count()``)."""
        return self.count()

    def __bool__(self) -> bool:
        # An open file is true, however many records it holds: ``if f:`` must not count.
        return True

    def put(self, record: BytesLike) -> None:
        """Adds a record.  DuplicateKeyError when its key 0 value is stored already."""
        rec = _bytes(record, "a record")
        rc = _lib.call("niswrite", self._handle(), rec, _size(rec, MAX_RECORD))
        if rc == 1:
            raise DuplicateKeyError("a record with key 0 value %s exists already" % _show(self.key_of(rec)),
                                    E_DUPLICATE)

    def replace(self, record: BytesLike) -> None:
        """Adds a record, or replaces the one with the same key 0 value."""
        rec = _bytes(record, "a record")
        _lib.call("nisfwrite", self._handle(), rec, _size(rec, MAX_RECORD))

    def update(self, record: BytesLike) -> None:
        """Replaces the record with the same key 0 value; NotFoundError when there is
        none."""
        rec = _bytes(record, "a record")
        _lib.call("nisupdate", self._handle(), rec, _size(rec, MAX_RECORD))

    def delete(self, key: BytesLike) -> None:
        """Deletes the record with key 0 value ``key``; NotFoundError when there is
        none."""
        fd = self._handle()
        _, k = self._key(key, 0)
        _lib.call("nisdelete", fd, k)

    __delitem__ = delete

    def flush(self) -> None:
        """Writes what this process changed to disk (every change is written at once
        anyway; this also writes the file's control page)."""
        _lib.call("nisflush", self._handle())

    # ---- iteration ---------------------------------------------------------------------

    def scan(self, start: Optional[BytesLike] = None, keyno: int = 0, reverse: bool = False, *,
             to: Optional[BytesLike] = None) -> Iterator[bytes]:
        """The records in the order of key ``keyno``, ascending or with ``reverse``
        descending.

        ``start`` is a value of that key, or a prefix of one: forward, the scan begins
        at the first record whose key is at least ``start``; in reverse, at the last one
        whose key is at most ``start`` filled with 0xFF bytes, so every record whose key
        begins with ``start`` is included.  ``to`` ends the scan, and is included as
        the tool's ``scan --to`` is: forward, after the last key that begins with or
        precedes ``to``; in reverse, before the first key below ``to``.  So
        ``scan(b"S", to=b"S")`` gives every key that begins with "S".  A ``start`` past
        ``to`` for the direction raises ValueError.  Records that other processes add or
        delete meanwhile are seen as the scan reaches their place.
        """
        return _Scan(self, start, keyno, reverse, to)

    def __iter__(self) -> Iterator[bytes]:
        return self.scan()

    def __reversed__(self) -> Iterator[bytes]:
        return self.scan(reverse=True)

    # ---- locks -------------------------------------------------------------------------

    def lock(self, key: BytesLike, wait: bool = True, timeout: Optional[float] = None) -> "RecordLock":
        """Locks ``key`` for this process and returns a RecordLock (a context manager
        that unlocks).

        Locks are advisory: reads and writes do not consult them.  Two keys conflict
        when they agree over the shorter one's length, so a prefix locks every key that
        begins with it and b"" the whole file; locks of one process never conflict.
        With ``wait`` the call waits for a conflicting lock of another process to go
        (a wait cannot be interrupted; give ``timeout`` in seconds to bound it, which
        polls instead).  Without ``wait`` a conflict raises LockError at once.
        """
        k = _bytes(key, "a lock key")
        if timeout is None:
            self._lock_once(k, 0 if wait else 1)
        else:
            deadline = time.monotonic() + timeout
            pause = 0.001
            while True:
                try:
                    self._lock_once(k, 1)
                    break
                except LockError as e:
                    if e.errno not in (errno.EAGAIN, errno.EACCES) or time.monotonic() >= deadline:
                        raise
                time.sleep(min(pause, max(0.0, deadline - time.monotonic())))
                pause = min(pause * 2, 0.05)
        return RecordLock(self, k)

    def _lock_once(self, k: bytes, rtnopt: int) -> None:
        rc, err = _lib.raw("nislock", self._handle(), k, _size(k, MAX_LOCK_KEY), rtnopt)
        if err is None:
            return
        if err.code is not None:
            raise err
        # The library refuses these without a code of its own: the package gives one.
        if err.errno in (errno.EAGAIN, errno.EACCES):
            why, code = "another process holds an overlapping lock", E_LOCKED
        elif err.errno == errno.EDEADLK:
            why, code = "waiting would close a cycle of waits between processes (deadlock)", ISE_DEADLOCK
        else:
            why, code = "the shared area's heap has no room for another lock", E_LOCKROOM
        raise LockError("record lock on %s refused: %s" % (_show(k), why), code, (), err.errno)

    def unlock(self, key: BytesLike) -> None:
        """Releases this file's lock on exactly ``key``; LockError when it holds
        none."""
        k = _bytes(key, "a lock key")
        rc, err = _lib.raw("nisunlock", self._handle(), k, _size(k, MAX_LOCK_KEY), 0)
        if err is not None:
            if err.code is not None:
                raise err
            raise LockError("no record lock on %s is held through this file" % _show(k), E_NOTLOCKED)

    def unlock_all(self, prefix: BytesLike = b"") -> int:
        """Releases every lock of this file that overlaps ``prefix`` (all of them for
        b""); returns how many."""
        k = _bytes(prefix, "a lock key")
        return _lib.call("nisunlock", self._handle(), k, _size(k, MAX_LOCK_KEY), 1)

    def control(self) -> "_Control":
        """A context manager that holds the file's control lock: other processes wait
        while this one makes several calls as one unit, and the calls save taking and
        giving up the lock each time.  Nests.  Do not wait for a record lock or open
        other files inside it."""
        return _Control(self)


class RecordLock:
    """A record lock held through a File; ``release()`` or leaving the ``with`` block
    releases it, and so does closing the file."""

    def __init__(self, file: File, key: bytes) -> None:
        self.file = file
        self.key = key
        self._held = True

    @property
    def held(self) -> bool:
        return self._held and not self.file.closed

    def release(self) -> None:
        if not self._held:
            raise RuntimeError("record lock on %s released already" % _show(self.key))
        self._held = False
        if not self.file.closed:
            self.file.unlock(self.key)

    def __enter__(self) -> "RecordLock":
        return self

    def __exit__(self, *exc: object) -> None:
        if self._held:
            self.release()

    def __repr__(self) -> str:
        return "<kisam.RecordLock %s %s>" % (_show(self.key), "held" if self.held else "released")


class _Control:
    def __init__(self, file: File) -> None:
        self.file = file

    def __enter__(self) -> File:
        _lib.call("nisgetctl", self.file._handle())
        return self.file

    def __exit__(self, *exc: object) -> None:
        if not self.file.closed:
            _lib.call("nisrelctl", self.file._fd)


class _Scan:
    """Iterator over a File along one key.

    The library keeps one cursor per handle and key, holding the last key value read.
    While this iterator is the only user of its cursor each step is one read.  If
    something else moved the cursor (another scan of the same key, a get), the step first
    finds its place again: it seeks the last record's key value and passes over the
    records up to and including the last one returned, comparing (key value, key 0
    value), which identifies a record along any key.
    """

    def __init__(self, file: File, start: Optional[BytesLike], keyno: int, reverse: bool,
                 to: Optional[BytesLike] = None, bufsize: int = MAX_RECORD) -> None:
        self.file = file
        self.reverse = bool(reverse)
        self.keyno, valid = file._keyno(keyno)
        self.read = "nispread" if self.reverse else "nisread"
        self.bufsize = bufsize
        self.last: Optional[Tuple[bytes, bytes]] = None
        self.done = False
        self.to: Optional[bytes] = None
        if not valid:
            self.start = file._buf          # refused by the library at the first step
            return
        n = file.key_lengths[self.keyno]
        fill = b"\xff" if self.reverse else b"\x00"
        begin = b"" if start is None else _bytes(start, "a start value")
        if len(begin) > n:
            raise ValueError("start value of %d bytes is longer than key %d (%d bytes): %s"
                             % (len(begin), self.keyno, n, _show(begin)))
        self.start = begin + fill * (n - len(begin))
        if to is not None:
            end = _bytes(to, "a to value")
            if len(end) > n:
                raise ValueError("to value of %d bytes is longer than key %d (%d bytes): %s"
                                 % (len(end), self.keyno, n, _show(end)))
            # Values compare over the bytes both give, a prefix reaching every value it
            # begins: a range the wrong way round for the direction selects nothing, and
            # is a slip rather than an empty answer.
            if start is not None:
                common = min(len(begin), len(end))
                if (begin[:common] < end[:common]) if self.reverse else (begin[:common] > end[:common]):
                    raise ValueError("the range is reversed: start %s comes %s to %s%s"
                                     % (_show(begin), "before" if self.reverse else "after", _show(end),
                                        " (in reverse, start is the high end)" if self.reverse
                                        else " (reverse=True reads downwards)"))
            self.to = end

    def _past_end(self, rec: bytes) -> bool:
        """Whether ``rec`` lies beyond the ``to`` bound of the scan."""
        if self.to is None:
            return False
        head = self.file.key_of(rec, self.keyno)[: len(self.to)]
        return head < self.to if self.reverse else head > self.to

    def __iter__(self) -> "_Scan":
        return self

    def _step(self, fd: int) -> Optional[bytes]:
        f = self.file
        n = _lib.call(self.read, fd, self.keyno, f._buf, self.bufsize)
        return f._result(n)

    def _position(self, rec: bytes) -> Tuple[bytes, bytes]:
        f = self.file
        return f.key_of(rec, self.keyno), f.key_of(rec, 0)

    def __next__(self) -> bytes:
        if self.done:
            raise StopIteration
        f = self.file
        with LOCK:
            fd = f._handle()
            if self.last is None:
                _lib.call("nisseek", fd, self.keyno, self.start)
                rec = self._step(fd)
            elif f._cursor.get(self.keyno) is not self:
                _lib.call("nisseek", fd, self.keyno, self.last[0])
                while True:
                    rec = self._step(fd)
                    if rec is None:
                        break
                    pos = self._position(rec)
                    if (pos < self.last) if self.reverse else (pos > self.last):
                        break
            else:
                rec = self._step(fd)
            f._cursor[self.keyno] = self
            if rec is None or self._past_end(rec):
                self.done = True
                raise StopIteration
            self.last = self._position(rec)
            return rec


def open(path: PathLike, mode: str = "w", *, config: Optional[PathLike] = None, noverify: bool = False) -> File:
    """Opens an ISAM file: ``mode`` "w" to read and write, "r" to read only.

    The first file opened attaches the process to the shared area of its installation;
    ``config`` names the configuration file (else the KISCONFIG environment variable,
    else the library's search: etc_dir/kisamconfig, then $HOME_Q9/kisamconfig).
    ``noverify`` opens a file whose data-changed mark is set.
    """
    if mode not in ("r", "w"):
        raise ValueError("mode must be 'r' or 'w', not %r" % (mode,))
    p = _path(path)
    access = (_lib.ISO_RDONLY if mode == "r" else _lib.ISO_RDWR) | (_lib.ISF_NOVERIFY if noverify else 0)
    with LOCK:
        _lib.attach(config)
        try:
            fd = _lib.call("nisopen", p, access)
        except BaseException as e:
            _lib.release()
            if isinstance(e, NoSuchFileError):
                e.filename = os.fsdecode(p)
            raise
        return _adopt(fd, path, mode == "w")


def create(path: PathLike, key_lengths: Sequence[int], *, key_in_index: bool = False,
           small_header: bool = False, replace: bool = False, config: Optional[PathLike] = None) -> File:
    """Creates an ISAM file with keys of the given lengths (key 0 first) and returns it
    open for reading and writing.

    ``key_in_index`` keeps key 0 only in its index, not again in the data pages;
    ``small_header`` writes a 512-byte control page.  An existing file is replaced only
    with ``replace`` (FileExistsError otherwise); a file some process has open is never
    replaced (ISE_CREATEISOPEN).
    """
    lens = [operator.index(n) for n in key_lengths]
    if not lens:
        raise ValueError("a file needs at least one key")
    if not all(-INT_MAX - 1 <= n <= INT_MAX for n in lens):
        raise ValueError("key lengths out of range: %r" % (lens,))
    p = _path(path)
    if not replace and os.path.lexists(p):
        raise FileExistsError(errno.EEXIST, "exists already (replace=True re-creates it)", os.fsdecode(p))
    arr = (ctypes.c_int * len(lens))(*lens)
    with LOCK:
        _lib.attach(config)
        try:
            _lib.call("niscr_ctl", 1 if key_in_index else 0, 512 if small_header else 1024)
            fd = _lib.call("niscreate", p, len(lens), arr)
        except BaseException as e:
            _lib.release()
            if isinstance(e, NoSuchFileError):
                e.filename = os.fsdecode(p)
            raise
        return _adopt(fd, path, True)


def _adopt(fd: int, path: PathLike, writable: bool) -> File:
    try:
        return File(fd, os.fsdecode(path) if isinstance(path, bytes) else os.fspath(path), writable)
    except BaseException:
        _lib.close_handle(fd, _lib.state.generation)
        raise
