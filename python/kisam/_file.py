"""Open ISAM files: records, iteration along a key, record locks and the control lock."""

from __future__ import annotations

import ctypes
import errno
import operator
import os
import time
import weakref

from . import _lib
from ._lib import LOCK, MAX_KEYS, MAX_RECORD
from .errors import DuplicateKeyError, LockError, NotFoundError


def _show(b):
    """A value for a message: its first bytes, and its length when it is long."""
    if len(b) <= 40:
        return repr(b)
    return "%r... (%d bytes)" % (b[:40], len(b))


def pad(value, length, fill=b" "):
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


def _bytes(value, what):
    if isinstance(value, bytes):
        return value
    if isinstance(value, (bytearray, memoryview)):
        return bytes(value)
    raise TypeError("%s must be bytes, not %s" % (what, type(value).__name__))


def _size(b, limit):
    """The length to pass with `b`: its own, or just past `limit`, so that the library
    refuses an over-long value with its own error instead of a C int wrapping round."""
    return min(len(b), limit + 1)


INT_MAX = 2**31 - 1
MAX_LOCK_KEY = 32767


def _path(path):
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

    def __init__(self, fd, path, writable):
        self._fd = fd
        self._generation = _lib.state.generation
        self.path = path
        self.writable = writable
        self._buf = ctypes.create_string_buffer(MAX_RECORD)
        # The iterator that last moved the cursor of each key; any other use of that
        # cursor makes the iterator find its place again (see _Scan).
        self._cursor = {}
        lens = (ctypes.c_int * MAX_KEYS)()
        n = _lib.call("nisstat", fd, MAX_KEYS, lens)
        self.key_lengths = tuple(lens[: min(n, MAX_KEYS)])
        self._offsets = tuple(sum(self.key_lengths[:i]) for i in range(len(self.key_lengths)))
        self._finalizer = weakref.finalize(self, _lib.collect, fd, self._generation)

    # ---- state -------------------------------------------------------------------------

    @property
    def closed(self):
        return self._fd is None or self._generation != _lib.state.generation

    @property
    def min_record(self):
        """Length of the shortest record: all key values together."""
        return sum(self.key_lengths)

    def _handle(self):
        if self.closed:
            raise ValueError("operation on a closed kisam file: %s" % self.path)
        return self._fd

    def close(self):
        """Closes the file; its record locks are released.  Closing twice is harmless."""
        if self._fd is None:
            return
        fd, self._fd = self._fd, None
        self._finalizer.detach()
        _lib.close_handle(fd, self._generation)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __repr__(self):
        state = "closed" if self.closed else "keys=%r %s" % (self.key_lengths, "rw" if self.writable else "r")
        return "<kisam.File %r %s>" % (self.path, state)

    # ---- keys --------------------------------------------------------------------------

    def _keyno(self, keyno):
        keyno = operator.index(keyno)
        if not -INT_MAX - 1 <= keyno <= INT_MAX:
            raise ValueError("key number out of range: %d" % keyno)
        return keyno, 0 <= keyno < len(self.key_lengths)

    def _key(self, value, keyno):
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

    def key_of(self, record, keyno=0):
        """The value of key ``keyno`` in ``record``."""
        keyno = operator.index(keyno)
        o = self._offsets[keyno]
        return bytes(record[o: o + self.key_lengths[keyno]])

    def pad_key(self, value, keyno=0, fill=b" "):
        """``value`` filled with ``fill`` to the length of key ``keyno``."""
        return pad(value, self.key_lengths[operator.index(keyno)], fill)

    # ---- records -----------------------------------------------------------------------

    def _result(self, n):
        return ctypes.string_at(self._buf, n) if n > 0 else None

    def get(self, key, keyno=0):
        """The record whose key ``keyno`` equals ``key``, or None.  Along a key that
        repeats, the one with the smallest key 0 value."""
        with LOCK:
            fd = self._handle()
            keyno, k = self._key(key, keyno)
            n = _lib.call("nisfind", fd, keyno, k, self._buf, MAX_RECORD)
            self._cursor[keyno] = None
            return self._result(n)

    def __getitem__(self, key):
        rec = self.get(key)
        if rec is None:
            raise NotFoundError("no record with key 0 value %s" % _show(bytes(key)))
        return rec

    def __contains__(self, key):
        return self.get(key) is not None

    def put(self, record):
        """Adds a record.  DuplicateKeyError when its key 0 value is stored already."""
        rec = _bytes(record, "a record")
        rc = _lib.call("niswrite", self._handle(), rec, _size(rec, MAX_RECORD))
        if rc == 1:
            raise DuplicateKeyError("a record with key 0 value %s exists already" % _show(self.key_of(rec)))

    def replace(self, record):
        """Adds a record, or replaces the one with the same key 0 value."""
        rec = _bytes(record, "a record")
        _lib.call("nisfwrite", self._handle(), rec, _size(rec, MAX_RECORD))

    def update(self, record):
        """Replaces the record with the same key 0 value; NotFoundError when there is
        none."""
        rec = _bytes(record, "a record")
        _lib.call("nisupdate", self._handle(), rec, _size(rec, MAX_RECORD))

    def delete(self, key):
        """Deletes the record with key 0 value ``key``; NotFoundError when there is
        none."""
        fd = self._handle()
        _, k = self._key(key, 0)
        _lib.call("nisdelete", fd, k)

    __delitem__ = delete

    def flush(self):
        """Writes what this process changed to disk (every change is written at once
        anyway; this also writes the file's control page)."""
        _lib.call("nisflush", self._handle())

    # ---- iteration ---------------------------------------------------------------------

    def scan(self, start=None, keyno=0, reverse=False):
        """The records in the order of key ``keyno``, ascending or with ``reverse``
        descending.

        ``start`` is a value of that key, or a prefix of one: forward, the scan begins
        at the first record whose key is at least ``start``; in reverse, at the last one
        whose key is at most ``start`` filled with 0xFF bytes, so every record whose key
        begins with ``start`` is included.  Records that other processes add or delete
        meanwhile are seen as the scan reaches their place.
        """
        return _Scan(self, start, keyno, reverse)

    def __iter__(self):
        return self.scan()

    def __reversed__(self):
        return self.scan(reverse=True)

    # ---- locks -------------------------------------------------------------------------

    def lock(self, key, wait=True, timeout=None):
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

    def _lock_once(self, k, rtnopt):
        rc, err = _lib.raw("nislock", self._handle(), k, _size(k, MAX_LOCK_KEY), rtnopt)
        if err is None:
            return
        if err.code is not None:
            raise err
        if err.errno in (errno.EAGAIN, errno.EACCES):
            why = "another process holds an overlapping lock"
        elif err.errno == errno.EDEADLK:
            why = "waiting would close a cycle of waits between processes (deadlock)"
        else:
            why = "the shared area's heap has no room for another lock"
        raise LockError("record lock on %s refused: %s" % (_show(k), why), None, (), err.errno)

    def unlock(self, key):
        """Releases this file's lock on exactly ``key``; LockError when it holds
        none."""
        k = _bytes(key, "a lock key")
        rc, err = _lib.raw("nisunlock", self._handle(), k, _size(k, MAX_LOCK_KEY), 0)
        if err is not None:
            if err.code is not None:
                raise err
            raise LockError("no record lock on %s is held through this file" % _show(k))

    def unlock_all(self, prefix=b""):
        """Releases every lock of this file that overlaps ``prefix`` (all of them for
        b""); returns how many."""
        k = _bytes(prefix, "a lock key")
        return _lib.call("nisunlock", self._handle(), k, _size(k, MAX_LOCK_KEY), 1)

    def control(self):
        """A context manager that holds the file's control lock: other processes wait
        while this one makes several calls as one unit, and the calls save taking and
        giving up the lock each time.  Nests.  Do not wait for a record lock or open
        other files inside it."""
        return _Control(self)


class RecordLock:
    """A record lock held through a File; ``release()`` or leaving the ``with`` block
    releases it, and so does closing the file."""

    def __init__(self, file, key):
        self.file = file
        self.key = key
        self._held = True

    @property
    def held(self):
        return self._held and not self.file.closed

    def release(self):
        if not self._held:
            raise RuntimeError("record lock on %s released already" % _show(self.key))
        self._held = False
        if not self.file.closed:
            self.file.unlock(self.key)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        if self._held:
            self.release()

    def __repr__(self):
        return "<kisam.RecordLock %s %s>" % (_show(self.key), "held" if self.held else "released")


class _Control:
    def __init__(self, file):
        self.file = file

    def __enter__(self):
        _lib.call("nisgetctl", self.file._handle())
        return self.file

    def __exit__(self, *exc):
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

    def __init__(self, file, start, keyno, reverse):
        self.file = file
        self.reverse = bool(reverse)
        self.keyno, valid = file._keyno(keyno)
        self.read = "nispread" if self.reverse else "nisread"
        self.last = None
        self.done = False
        if not valid:
            self.start = file._buf          # refused by the library at the first step
            return
        n = file.key_lengths[self.keyno]
        fill = b"\xff" if self.reverse else b"\x00"
        start = b"" if start is None else _bytes(start, "a start value")
        if len(start) > n:
            raise ValueError("start value of %d bytes is longer than key %d (%d bytes): %s"
                             % (len(start), self.keyno, n, _show(start)))
        self.start = start + fill * (n - len(start))

    def __iter__(self):
        return self

    def _step(self, fd):
        f = self.file
        n = _lib.call(self.read, fd, self.keyno, f._buf, MAX_RECORD)
        return f._result(n)

    def _position(self, rec):
        f = self.file
        return f.key_of(rec, self.keyno), f.key_of(rec, 0)

    def __next__(self):
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
            if rec is None:
                self.done = True
                raise StopIteration
            self.last = self._position(rec)
            return rec


def open(path, mode="w", *, config=None, noverify=False):
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
        except BaseException:
            _lib.release()
            raise
        return _adopt(fd, path, mode == "w")


def create(path, key_lengths, *, key_in_index=False, small_header=False, replace=False, config=None):
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
        except BaseException:
            _lib.release()
            raise
        return _adopt(fd, path, True)


def _adopt(fd, path, writable):
    try:
        return File(fd, os.fsdecode(path) if isinstance(path, bytes) else os.fspath(path), writable)
    except BaseException:
        _lib.close_handle(fd, _lib.state.generation)
        raise
