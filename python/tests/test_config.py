"""Configuration files written by the package: the record, the checks, and the
library's own reading of it."""

import os
import subprocess

import pytest

import kisam
from conftest import segments


def test_record_round_trip_and_lock_file(tmp_path):
    p = str(tmp_path / "cfg")
    c = kisam.write_config(p, files=10, buffers=4, users=5, avg_alt_keys=2, lock_key_len=10, locks_per_file=4,
                           files_per_process=3, track_changes=True, clear_on_release=True)
    data = open(p, "rb").read()
    assert len(data) == 52 and os.path.exists(p + ".lk")
    assert kisam.read_config(p) == c
    assert (c.bits, c.file_buffers, c.files_per_process) == (0x5, 4, 3)
    lay = c.layout()
    assert (lay.files_table, lay.process_table, lay.waiting_table, lay.heap) == (4316, 4356, 4376, 4396)
    assert (lay.segment_size, lay.heap_size) == (8192, 3796)
    # The computed fields are stored as start-up computes them.
    assert int.from_bytes(data[20:24], "little") == 8192 and int.from_bytes(data[32:36], "little") == 4396

    with pytest.raises(FileExistsError):
        kisam.write_config(p)
    kisam.write_config(p, buffers=8, overwrite=True)
    assert kisam.read_config(p).buffers == 8

    # A record of 48 bytes (no option bits) is still a configuration; 47 is not.
    with open(p, "r+b") as f:
        f.truncate(48)
    assert kisam.read_config(p).bits == 0
    with open(p, "r+b") as f:
        f.truncate(47)
    with pytest.raises(ValueError, match="not a kisam configuration"):
        kisam.read_config(p)


@pytest.mark.parametrize("kwargs, match", [
    ({"buffers": 0}, "buffers must be from 1"),
    ({"files": 16384}, "files must be from 1 to 16383"),
    ({"keys": 26}, "keys must be from 1 to 25"),
    ({"files": 4, "files_per_process": 5}, "cannot exceed files"),
    ({"sync_on_mark": True}, "need track_changes"),
    ({"files": 16383, "lock_key_len": 32767, "locks_per_file": 32767}, "common heap would be"),
    ({"buffers": 32767, "files": 16383, "users": 32767, "lock_key_len": 113, "locks_per_file": 1000},
     "would exceed 2 GiB"),
])
def test_unusable_values_write_nothing(tmp_path, kwargs, match):
    p = str(tmp_path / "cfg")
    with pytest.raises(ValueError, match=match):
        kisam.write_config(p, **kwargs)
    assert not os.path.exists(p) and not os.path.exists(p + ".lk")
    with pytest.raises(TypeError):
        kisam.write_config(p, buffers="64")


@pytest.mark.parametrize("kwargs", [{}, {"buffers": 100, "files": 20, "users": 7, "locks_per_file": 40}])
def test_library_lays_out_the_segment_as_computed(inst, monkeypatch, kwargs):
    c = kisam.write_config(inst.config, overwrite=True, **kwargs)
    with kisam.attach():
        [shmid] = inst.segment_ids()
        with open("/proc/sysvipc/shm") as f:
            sizes = {int(line.split()[1]): int(line.split()[3]) for line in list(f)[1:]}
        assert sizes[shmid] == c.segment_size
    assert segments(inst.key) == []


@pytest.mark.skipif(not os.environ.get("KISAM_TOOL"), reason="KISAM_TOOL (the kisam tool) not given")
@pytest.mark.parametrize("args, kwargs", [
    ([], {}),
    (["--buffers", "100", "--files", "20", "--users", "7", "--keys", "5", "--files-per-process", "4",
      "--file-buffers", "50", "--avg-alt-keys", "3", "--lock-key-len", "12", "--locks-per-file", "9",
      "--track-changes", "--sync-on-mark"],
     {"buffers": 100, "files": 20, "users": 7, "keys": 5, "files_per_process": 4, "file_buffers": 50,
      "avg_alt_keys": 3, "lock_key_len": 12, "locks_per_file": 9, "track_changes": True, "sync_on_mark": True}),
])
def test_same_bytes_as_the_tool(tmp_path, args, kwargs):
    ours, theirs = str(tmp_path / "ours"), str(tmp_path / "theirs")
    kisam.write_config(ours, **kwargs)
    subprocess.run([os.environ["KISAM_TOOL"], "config", "init", theirs, *args], check=True, capture_output=True)
    assert open(ours, "rb").read() == open(theirs, "rb").read()


def test_kernel_limits_are_respected(tmp_path, monkeypatch):
    from kisam import config
    p = str(tmp_path / "cfg")
    monkeypatch.setattr(config, "_kernel_limit", lambda name: {"shmmax": 100000, "shmall": 10**9}[name])
    with pytest.raises(ValueError, match="kernel.shmmax = 100000 bytes"):
        kisam.write_config(p)
    monkeypatch.setattr(config, "_kernel_limit", lambda name: {"shmmax": 10**12, "shmall": 20}[name])
    with pytest.raises(ValueError, match="kernel.shmall = 20 pages"):
        kisam.write_config(p)
    assert not os.path.exists(p)
