"""Indexed-sequential files shared by many processes, through libkisam.

    import kisam
    with kisam.open("/data/customers") as f:
        rec = f.get(b"00000042")
        for rec in f.scan(b"Smith", keyno=1):
            ...

The package loads libkisam.so.1 with ctypes (see ``load_library`` for where it looks).
Files are opened with ``open`` and made with ``create``; the process attaches to the
shared area of its installation at the first open and detaches when the last file is
closed.  ``write_config`` writes a configuration file for a new installation.
"""

from typing import Optional

from ._file import BytesLike, File, PathLike, RecordLock, create, open, pad
from ._lib import MAX_KEYS, MAX_RECORD, load_library
from .config import Config, Layout, read_config, write_config
from .errors import (
    ERROR_NAMES,
    DuplicateKeyError,
    KisamError,
    LibraryError,
    LockError,
    NoSuchFileError,
    NotFoundError,
    StackEntry,
)
from . import _lib

# The library's error codes, kisam.ISE_NOKEY and the others, and the package's own for
# failures the library reports without one (kisam.E_DUPLICATE, ...).
globals().update({name: code for code, name in ERROR_NAMES.items()})

__version__ = "1.0.0"


class Attachment:
    """A hold on this process's attachment to the shared area (see ``attach``)."""

    def __init__(self, config: "Optional[PathLike]") -> None:
        _lib.attach(config)
        self._held = True

    def close(self) -> None:
        if self._held:
            self._held = False
            _lib.release()

    def __enter__(self) -> "Attachment":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()


def attach(config: "Optional[PathLike]" = None) -> Attachment:
    """Attaches this process to the shared area now and keeps it attached until the
    returned Attachment is closed (it is a context manager), also while no file is open.

    ``config`` is the configuration file; without it, the KISCONFIG environment
    variable, else the library's search (etc_dir/kisamconfig, then
    $HOME_Q9/kisamconfig, with the settings of ~/.Q9.profile and $HOME_Q9/Q9.info).
    The configuration is settled by the first attachment of the process: naming another
    one while attached raises ValueError.
    """
    return Attachment(config)


def detach() -> None:
    """Closes every file of this process and detaches it from the shared area (the last
    process to detach removes the area).  Runs by itself when the process exits."""
    _lib.detach()


def attached() -> bool:
    """Whether this process is attached to a shared area through this package."""
    return _lib.attached()


def library_path() -> str:
    """Where libkisam was loaded from (loading it if needed)."""
    return load_library()


__all__ = [
    "Attachment", "Config", "DuplicateKeyError", "ERROR_NAMES", "File", "KisamError", "Layout",
    "LibraryError", "LockError", "MAX_KEYS", "MAX_RECORD", "NoSuchFileError", "NotFoundError", "RecordLock",
    "StackEntry", "attach", "attached", "create", "detach", "library_path", "load_library",
    "open", "pad", "read_config", "write_config",
] + sorted(n for n in ERROR_NAMES.values())
