"""The configuration file of an installation: a 52-byte binary record that sizes the
shared area, and the lock file beside it (the same name with ".lk" appended).

Every process that names the same configuration file shares one shared area; the
values take effect when the first process attaches, and a changed file only once every
process has detached.
"""

from __future__ import annotations

import errno
import os
import struct
from dataclasses import dataclass
from typing import Optional, Union

# co_maxopen, co_maxbuf, co_maxusers, co_maxnkeys, co_avgalts, co_alenlock, co_anumlock,
# co_locksig, co_maxfbuf, co_fltime (int16 at 0-19); co_comsize, co_bufbase, co_pfobase,
# co_heapbase, co_pidbase, co_needbase (int32 at 20-43); co_maxufile (int16 at 44), two
# bytes of padding, co_bits (uint32 at 48).  Machine byte order, little-endian here.
RECORD = struct.Struct("<10h6ih2xI")
RECORD_SIZE = 52
MIN_SIZE = 48           # a record without co_bits is still read
READ_SIZE = 512         # the library reads no more
MAX_HEAP = 2147483647

TRACK_CHANGES = 0x1     # keep each file's data-changed mark on disk
SYNC_ON_MARK = 0x2      # with TRACK_CHANGES: synchronise the file when the mark changes
CLEAR_ON_RELEASE = 0x4  # with TRACK_CHANGES: clear the mark at every final release

assert RECORD.size == RECORD_SIZE


@dataclass(frozen=True)
class Layout:
    """Where the tables of the shared area lie, computed from a configuration as the
    library computes it at start-up (byte offsets from the start of the segment)."""

    buffers: int
    files_table: int
    process_table: int
    waiting_table: int
    heap: int
    heap_size: int
    segment_size: int


@dataclass(frozen=True)
class Config:
    """The values of a configuration record."""

    files: int = 64             # files open at once, in all processes (co_maxopen)
    buffers: int = 256          # 1024-byte page buffers (co_maxbuf)
    users: int = 32             # processes attached at once (co_maxusers)
    keys: int = 25              # most keys a file may be created with (co_maxnkeys)
    avg_alt_keys: int = 2       # heap sizing: alternate keys per file (co_avgalts)
    lock_key_len: int = 16      # heap sizing: bytes of a record-lock key (co_alenlock)
    locks_per_file: int = 8     # heap sizing: record locks per open file (co_anumlock)
    file_buffers: int = 256     # buffers one file may take before reusing its own (co_maxfbuf)
    files_per_process: int = 0  # handles per process; 0: as many as files (co_maxufile)
    bits: int = 0               # TRACK_CHANGES, SYNC_ON_MARK, CLEAR_ON_RELEASE (co_bits)

    def layout(self) -> Layout:
        bufbase = 156
        pfobase = bufbase + self.buffers * 1040
        pidbase = pfobase + self.files * 4
        needbase = pidbase + self.users * 4
        end = pidbase + self.users * 8
        heapbase = (end + 3) // 4 * 4
        # Integer division of the library truncates toward zero; the operands here are
        # never negative for a record that write_config accepts.
        s = (end + ((self.avg_alt_keys * 16 + 1568) * self.files) // 10
             + (((self.lock_key_len + 16) * self.locks_per_file + 4) // 4) * self.files * 4)
        s = (s + 8191) // 8192 * 8192
        heap = (s - heapbase) // 4 * 4
        return Layout(bufbase, pfobase, pidbase, needbase, heapbase, heap, heapbase + heap)

    @property
    def segment_size(self) -> int:
        """Bytes of the shared segment this configuration leads to: the regions the
        record lays out, and the state the library keeps after them."""
        return self.layout().segment_size + _area_bytes(self.files, self.users, self.buffers)

    def to_bytes(self) -> bytes:
        """The 52-byte record, its computed fields filled as start-up fills them."""
        lay = self.layout()
        return RECORD.pack(self.files, self.buffers, self.users, self.keys, self.avg_alt_keys,
                           self.lock_key_len, self.locks_per_file, 0, self.file_buffers, 0,
                           lay.segment_size, lay.buffers, lay.files_table, lay.heap,
                           lay.process_table, lay.waiting_table, self.files_per_process, self.bits)

    @classmethod
    def from_bytes(cls, data: bytes) -> "Config":
        if len(data) < MIN_SIZE:
            raise ValueError("%d bytes, a configuration record has at least %d" % (len(data), MIN_SIZE))
        data = bytes(data[:RECORD_SIZE])
        bits_present = len(data) >= RECORD_SIZE
        v = RECORD.unpack(data.ljust(RECORD_SIZE, b"\0"))
        return cls(files=v[0], buffers=v[1], users=v[2], keys=v[3], avg_alt_keys=v[4],
                   lock_key_len=v[5], locks_per_file=v[6], file_buffers=v[8],
                   files_per_process=v[16], bits=v[17] if bits_present else 0)


def _area_bytes(files: int, users: int, buffers: int) -> int:
    """What the library adds after the record's regions (0 when it cannot be asked)."""
    try:
        from . import _lib
        n = _lib.lib().kisam_area_bytes(files, users, buffers)
    except Exception:  # no library at hand: the record's own size is the best estimate
        return 0
    return n if n > 0 else 0


def _kernel_limit(name: str) -> Optional[int]:
    try:
        with open("/proc/sys/kernel/" + name) as f:
            return int(f.read().split()[0])
    except (OSError, ValueError, IndexError):
        return None


def _kernel_refusal(size: int) -> str:
    """Why the kernel would refuse a segment of `size` bytes, or ""."""
    shmmax = _kernel_limit("shmmax")
    if shmmax is not None and size > shmmax:
        return ("the shared segment needs %d bytes, above the kernel's limit kernel.shmmax = %d bytes"
                % (size, shmmax))
    shmall = _kernel_limit("shmall")
    page = os.sysconf("SC_PAGESIZE")
    if shmall is not None and page > 0 and (size + page - 1) // page > shmall:
        return ("the shared segment needs %d memory pages, above the kernel's limit kernel.shmall = %d pages"
                % ((size + page - 1) // page, shmall))
    return ""


def _check(name: str, value: object, low: int, high: int) -> None:
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError("%s must be an int, not %s" % (name, type(value).__name__))
    if not low <= value <= high:
        raise ValueError("%s must be from %d to %d, not %d" % (name, low, high, value))


def write_config(path: "Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]", *, files: int = 64,
                 buffers: int = 256, users: int = 32, keys: int = 25, files_per_process: int = 0,
                 file_buffers: Optional[int] = None, avg_alt_keys: int = 2, lock_key_len: int = 16,
                 locks_per_file: int = 8, track_changes: bool = False, sync_on_mark: bool = False,
                 clear_on_release: bool = False, overwrite: bool = False) -> Config:
    """Writes a configuration file and its lock file; returns the Config written.

    The values are those of ``kisam config init``: files open at once, page buffers,
    processes attached at once, keys per file, handles per process (0: as many as
    files), buffers one file may take (default: all), and the heap sizing averages.
    ``track_changes`` keeps each file's data-changed mark on disk, so that a file a
    process left in the middle of a change refuses to open until checked;
    ``sync_on_mark`` and ``clear_on_release`` refine it.  An existing file is replaced
    only with ``overwrite``.  A configuration that the library or the kernel's
    shared-memory limits would refuse raises ValueError and writes nothing.
    """
    if file_buffers is None:
        file_buffers = buffers
    for name, value, low, high in (("files", files, 1, 16383), ("buffers", buffers, 1, 32767),
                                   ("users", users, 1, 32767), ("keys", keys, 1, 25),
                                   ("files_per_process", files_per_process, 0, 32767),
                                   ("file_buffers", file_buffers, 1, 32767),
                                   ("avg_alt_keys", avg_alt_keys, 0, 24),
                                   ("lock_key_len", lock_key_len, 0, 32767),
                                   ("locks_per_file", locks_per_file, 0, 32767)):
        _check(name, value, low, high)
    if files_per_process > files:
        raise ValueError("files_per_process (%d) cannot exceed files (%d)" % (files_per_process, files))
    if (sync_on_mark or clear_on_release) and not track_changes:
        raise ValueError("sync_on_mark and clear_on_release need track_changes")
    bits = 0
    if track_changes:
        bits = TRACK_CHANGES | (SYNC_ON_MARK if sync_on_mark else 0) | (CLEAR_ON_RELEASE if clear_on_release else 0)
    c = Config(files, buffers, users, keys, avg_alt_keys, lock_key_len, locks_per_file, file_buffers,
               files_per_process, bits)
    lay = c.layout()
    if lay.heap_size > MAX_HEAP:
        raise ValueError("the common heap would be %dK bytes, above the maximum of %dK bytes; lower files "
                         "or the heap sizing values" % (lay.heap_size // 1024, MAX_HEAP // 1024))
    if lay.segment_size > 0x7FFFFFFF:
        raise ValueError("the shared segment would exceed 2 GiB")
    why = _kernel_refusal(c.segment_size)
    if why:
        raise ValueError(why + "; lower buffers or files, or raise the limit with sysctl")

    path = os.fspath(path)
    flags = os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC | (os.O_TRUNC if overwrite else os.O_EXCL)
    try:
        fd = os.open(path, flags, 0o666)
    except FileExistsError:
        raise FileExistsError(errno.EEXIST, "exists already (overwrite=True replaces it)", path) from None
    try:
        data = c.to_bytes()
        if os.write(fd, data) != len(data):
            raise OSError(errno.EIO, "short write", path)
    except BaseException:
        os.close(fd)
        os.unlink(path)
        raise
    os.close(fd)
    os.close(os.open(_lock_file(path), os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o666))
    return c


def _lock_file(path: "Union[str, bytes]") -> "Union[str, bytes]":
    if isinstance(path, bytes):
        return path + b".lk"
    return path + ".lk"


def read_config(path: "Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]") -> Config:
    """The Config of a configuration file; ValueError for a file too short to be one."""
    with open(path, "rb") as f:
        data = f.read(READ_SIZE)
    try:
        return Config.from_bytes(data)
    except ValueError as e:
        raise ValueError("not a kisam configuration: %s: %s" % (os.fspath(path), e)) from None
