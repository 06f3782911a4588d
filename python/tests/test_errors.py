"""What a failure carries, and how the package finds the library and the
configuration."""

import errno
import os
import shutil
import subprocess
import sys

import pytest

import kisam
from conftest import PACKAGE_DIR, ftok, segments


def test_error_carries_code_stack_message_and_errno(inst):
    with pytest.raises(kisam.KisamError) as e:
        kisam.open(inst.path("missing"))
    err = e.value
    assert err.code == kisam.ISE_OPENF and err.name == "ISE_OPENF"
    assert err.stack[0].procedure == "isopen" and err.stack[0].code == 0x3801
    assert err.errno == 2                                # ENOENT from the system
    assert err.message == "ISE_OPENF   cannot open file in proc. isopen - 1, Sys errno #2 No such file or directory"
    assert str(err) == err.message

    with kisam.create(inst.path("f"), [4]) as f:
        f.put(b"0001")
        with pytest.raises(kisam.NotFoundError) as e:
            f.delete(b"0002")
        assert [(s.procedure, s.detail) for s in e.value.stack][0] == ("is_delete", 2)
        assert e.value.message.startswith("ISE_NOKEY   cannot find key to delete in proc. is_delete - 2")
        assert e.value.errno == 0 and "Sys errno" not in e.value.message
        # A later failure without a code of the library's does not show the earlier
        # one: it carries the package's own code.
        with pytest.raises(kisam.LockError) as e:
            f.unlock(b"0001")
        assert e.value.code == kisam.E_NOTLOCKED and e.value.name == "E_NOTLOCKED"
        assert e.value.stack == ()
        with pytest.raises(kisam.DuplicateKeyError) as e:
            f.put(b"0001")
        assert e.value.code == kisam.E_DUPLICATE and e.value.name == "E_DUPLICATE"
        assert isinstance(e.value, KeyError) and e.value.stack == ()
        with pytest.raises(kisam.NotFoundError) as e:
            f[b"0002"]
        assert e.value.code == kisam.ISE_NOKEY


def test_missing_file_is_also_a_file_not_found_error(inst):
    for call in (lambda: kisam.open(inst.path("missing")),
                 lambda: kisam.open(inst.path("missing"), "r"),
                 lambda: kisam.create(inst.path("no-dir/f"), [4])):
        with pytest.raises(FileNotFoundError) as e:
            call()
        err = e.value
        assert isinstance(err, kisam.KisamError) and isinstance(err, kisam.NoSuchFileError)
        assert err.code in (kisam.ISE_OPENF, kisam.ISE_CREATF)
        assert err.errno == errno.ENOENT and err.strerror == os.strerror(errno.ENOENT)
        assert err.filename is not None and err.filename.startswith(inst.dir)
        assert "Sys errno #2" in str(err)
    assert not kisam.attached()
    # Other failures to open are not: the file is there, it is not an ISAM file.
    with open(inst.path("text"), "wb") as t:
        t.write(b"x" * 2048)
    with pytest.raises(kisam.KisamError) as e:
        kisam.open(inst.path("text"))
    assert not isinstance(e.value, FileNotFoundError)


def test_missing_configuration_is_explained(inst, monkeypatch):
    monkeypatch.setenv("KISCONFIG", inst.path("nowhere"))
    with pytest.raises(kisam.KisamError) as e:
        kisam.create(inst.path("f"), [4])
    err = e.value
    assert err.code == kisam.ISE_INITERR and err.stack[0].code == 0x2201
    assert inst.path("nowhere") in err.hint and "write_config" in err.hint
    assert not kisam.attached()
    # Without KISCONFIG the library searches etc_dir, then $HOME_Q9.
    monkeypatch.delenv("KISCONFIG")
    with pytest.raises(kisam.KisamError) as e:
        kisam.attach()
    assert "kisamconfig" in e.value.hint
    # An explicit configuration wins over the environment.
    with kisam.attach(config=inst.config):
        with pytest.raises(ValueError, match="attached already"):
            kisam.attach(config=inst.path("other"))
        kisam.attach(config=inst.config).close()         # the same one is fine


def test_configuration_found_under_home_q9(inst, monkeypatch):
    monkeypatch.delenv("KISCONFIG")
    q9 = os.environ["HOME_Q9"]
    kisam.write_config(os.path.join(q9, "kisamconfig"), buffers=32)
    # The settings store keeps the HOME_Q9 it saw first in this process; a fresh process
    # shows the search as a new program meets it.
    script = ("import sys; sys.path.insert(0, %r); import kisam\n"
              "with kisam.create(%r, [4]) as f: f.put(b'0001'); print(kisam.attached())"
              % (PACKAGE_DIR, inst.path("viaq9")))
    out = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
    assert out.returncode == 0, out.stderr
    assert out.stdout.strip() == "True"
    assert segments(ftok(os.path.join(q9, "kisamconfig.lk"))) == []


def run_loader(script, env):
    full = "import sys; sys.path.insert(0, %r); import kisam\n" % PACKAGE_DIR + script
    return subprocess.run([sys.executable, "-c", full], capture_output=True, text=True, env=env, timeout=60)


def test_library_search_order(tmp_path):
    built = os.environ["KISAM_LIBRARY"]
    copy = str(tmp_path / "copy" / "libkisam.so.1")
    os.makedirs(os.path.dirname(copy))
    shutil.copy(built, copy)
    base = {k: v for k, v in os.environ.items() if k not in ("KISAM_LIBRARY", "LD_LIBRARY_PATH")}

    # 1. An explicit path, before KISAM_LIBRARY.
    out = run_loader("print(kisam.load_library(%r))" % copy, dict(base, KISAM_LIBRARY=built))
    assert out.stdout.strip() == copy, out.stderr
    # 2. KISAM_LIBRARY.
    out = run_loader("print(kisam.library_path())", dict(base, KISAM_LIBRARY=copy))
    assert out.stdout.strip() == copy, out.stderr
    # 3. The dynamic loader's search.
    out = run_loader("print(kisam.library_path())", dict(base, LD_LIBRARY_PATH=os.path.dirname(copy)))
    assert out.stdout.strip() == "libkisam.so.1", out.stderr
    # Once loaded, another path is refused; a wrong one is reported as such.
    out = run_loader("kisam.load_library(%r); kisam.load_library(%r)" % (copy, built), base)
    assert "loaded already" in out.stderr
    out = run_loader("kisam.load_library('/nonexistent/libkisam.so.1')", base)
    assert "LibraryError" in out.stderr and "/nonexistent/libkisam.so.1" in out.stderr
    libc = "/lib/x86_64-linux-gnu/libc.so.6"
    if os.path.exists(libc):
        out = run_loader("kisam.load_library(%r)" % libc, base)
        assert "is not libkisam" in out.stderr
