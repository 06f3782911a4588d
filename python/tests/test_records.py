"""Records through the package against a real file: storing, reading, iteration along
every key in both directions, and the checks on keys and records."""

import os
import random

import pytest

import kisam

# Records of the test file: key 0 of 8 bytes, key 1 of 4 bytes (repeating), then text.
def rec(i, k1=None, rest=b""):
    return b"%08d" % i + (b"%04d" % (i % 7) if k1 is None else k1) + rest


@pytest.fixture
def f(inst):
    with kisam.create(inst.path("cust"), [8, 4]) as f:
        yield f


def test_records_are_bytes_of_any_value_and_never_cut(f):
    """Every byte value survives, and the longest record comes back whole (a read into
    a shorter buffer would be cut without error)."""
    every = bytes(range(256))
    f.put(b"\x00\xff\x00\xff\x00\xff\x00\xff" + b"\x00\x00\x00\x00" + every)
    longest = b"%08d" % 7 + b"abcd" + random.Random(7).randbytes(kisam.MAX_RECORD - 12)
    f.put(longest)
    f.put(bytearray(rec(8, rest=b"from a bytearray")))
    f.put(memoryview(rec(9, rest=b"from a memoryview")))
    assert f.get(b"\x00\xff\x00\xff\x00\xff\x00\xff")[12:] == every
    assert f.get(b"00000007") == longest
    assert f.get(b"abcd", keyno=1) == longest
    assert list(f)[1] == longest
    assert f.get(b"00000009") == rec(9, rest=b"from a memoryview")

    with pytest.raises(kisam.KisamError) as e:
        f.put(longest + b"x")
    assert e.value.code == kisam.ISE_RSIZE
    with pytest.raises(kisam.KisamError) as e:
        f.put(b"00000001abc")                            # shorter than the keys
    assert e.value.code == kisam.ISE_RSIZE
    f.put(b"00000001abcd")                               # exactly the keys
    assert f.get(b"00000001") == b"00000001abcd"


def test_interleaved_scans_keep_their_place(f):
    """Two scans of one key on one handle, a get in between, and records deleted and
    added under a scan: each scan goes on from where it was."""
    for i in range(20):
        f.put(rec(i))
    a, b = f.scan(), f.scan(reverse=True)
    c = f.scan(keyno=1)
    seen_a, seen_b, seen_c = [], [], []
    for step in range(8):
        seen_a.append(next(a)[:8])
        seen_b.append(next(b)[:8])
        seen_c.append(next(c))
        f.get(b"%08d" % (19 - step))
        f.get(b"0005", keyno=1)
    assert seen_a == [b"%08d" % i for i in range(8)]
    assert seen_b == [b"%08d" % i for i in range(19, 11, -1)]
    f.delete(b"00000008")                                # a's next record
    f.put(rec(100))                                      # lies ahead of a
    f.delete(b"00000011")                                # b's next record
    assert [r[:8] for r in a] == [b"%08d" % i for i in [9, 10, *range(12, 20), 100]]
    assert [r[:8] for r in b] == [b"%08d" % i for i in [10, 9, *range(7, -1, -1)]]
    # c saw the first 8 records along key 1; the rest follows without a repeat or a gap
    rest = list(c)
    order = sorted((r[8:12], r[:8]) for r in [*seen_c, *rest])
    assert [(r[8:12], r[:8]) for r in seen_c + rest] == order
    # 19 records now; c saw 08 before it went, and 100 lies ahead of it
    assert len(seen_c) + len(rest) == 20 and b"00000011" not in [r[:8] for r in rest]


def expected_scan(model, keyno, start=None, reverse=False, to=None):
    """What scan(start, keyno, reverse, to=to) gives by the model: forward from the first
    key at least start, up to the last that begins with or precedes to; in reverse from
    the last key whose first bytes are at most start, down to the first at least to."""
    key = (lambda r: r[:8]) if keyno == 0 else (lambda r: r[8:12])
    out = []
    for r in sorted(model.values(), key=lambda r: (key(r), r[:8]), reverse=reverse):
        k = key(r)
        if start is not None and (k[:len(start)] > start if reverse else k < start):
            continue
        if to is not None and (k < to if reverse else k[:len(to)] > to):
            break
        out.append(r)
    return out


def expected_get(model, keyno, value):
    """What get(value, keyno) gives by the model: the first record whose key begins with
    the value, or None."""
    first = expected_scan(model, keyno, value)[:1]
    return first[0] if first and first[0][8 * keyno:8 + 4 * keyno].startswith(value) else None


def test_model_random_operations(f):
    """Random puts, replaces, updates, deletes and reads checked against a dict after
    every step; every 25 steps the whole file along both keys in both directions, and
    random scans, counts and gets from a value or a prefix of one, with and without an
    end, compared with what the model gives."""
    seed = int(os.environ.get("KISAM_SEED", "1515"))
    rnd = random.Random(seed)
    print("seed", seed)
    model = {}
    k1s = [b"same"] * 4 + [b"%04d" % i for i in range(16)]

    def value(keyno):
        v = b"%08d" % rnd.randrange(200) if keyno == 0 else rnd.choice(k1s)
        return v[:rnd.randint(0, len(v))] if rnd.random() < 0.5 else v

    for step in range(800):
        k0 = b"%08d" % rnd.randrange(200)
        r = k0 + rnd.choice(k1s) + rnd.randbytes(rnd.choice((0, 5, 300, 2000)))
        op = rnd.choice(("put", "replace", "update", "delete", "del", "get", "item", "in"))
        where = (seed, step, op, k0)
        try:
            if op == "put":
                f.put(r)
                assert k0 not in model, where
                model[k0] = r
            elif op == "replace":
                f.replace(r)
                model[k0] = r
            elif op == "update":
                f.update(r)
                assert k0 in model, where
                model[k0] = r
            elif op in ("delete", "del"):
                f.delete(k0) if op == "delete" else f.__delitem__(k0)
                assert k0 in model, where
                del model[k0]
            elif op == "get":
                assert f.get(k0) == model.get(k0), where
            elif op == "item":
                assert f[k0] == model[k0], where
            else:
                assert (k0 in f) == (k0 in model), where
        except kisam.DuplicateKeyError as e:
            assert op == "put" and k0 in model and e.code == kisam.E_DUPLICATE, where
        except kisam.NotFoundError as e:
            assert op not in ("put", "replace") and k0 not in model, where
            assert e.code == kisam.ISE_NOKEY and isinstance(e, KeyError), where
        if step % 25 != 24:
            continue
        assert len(f) == len(model), where
        for keyno in (0, 1):
            assert list(f.scan(keyno=keyno)) == expected_scan(model, keyno), where
            assert list(f.scan(keyno=keyno, reverse=True)) == expected_scan(model, keyno, reverse=True), where
        for _ in range(20):
            keyno = rnd.randrange(2)
            start, to, reverse = value(keyno), value(keyno) if rnd.random() < 0.6 else None, rnd.random() < 0.5
            probe = (seed, step, keyno, start, to, reverse)
            want = expected_scan(model, keyno, start, reverse, to)
            common = min(len(start), len(to or b""))
            backwards = to is not None and (start[:common] < to[:common] if reverse else start[:common] > to[:common])
            try:
                got = list(f.scan(start, keyno, reverse, to=to))
            except ValueError as e:
                assert backwards and "reversed" in str(e), probe
            else:
                assert not backwards and got == want, probe
                if not reverse:
                    assert f.count(start, keyno, to=to) == len(want), probe
            assert f.get(start, keyno=keyno) == expected_get(model, keyno, start), probe


@pytest.mark.parametrize("call, error, match", [
    (lambda f: f[b"0000001"], ValueError, "key 0 is 8 bytes"),
    (lambda f: f[b"000000001"], ValueError, "key 0 is 8 bytes"),
    (lambda f: b"0000001" in f, ValueError, "key 0 is 8 bytes"),
    (lambda f: b"000000001" in f, ValueError, "key 0 is 8 bytes"),
    (lambda f: f.delete(b"0000001"), ValueError, ""),
    (lambda f: f.delete(b"000000001"), ValueError, ""),
    (lambda f: f.get(b"000000001"), ValueError, "key 0 is 8 bytes"),   # longer than the key
    (lambda f: f.get(b"00001", keyno=1), ValueError, "key 1 is 4 bytes"),
    (lambda f: f.scan(b"000000000"), ValueError, ""),
    (lambda f: f.scan(to=b"000000001"), ValueError, "longer"),
    (lambda f: f.get("00000001"), TypeError, ""),
    (lambda f: f.put("a str record"), TypeError, ""),
    (lambda f: f.get(b"00000001", keyno=2**32), ValueError, ""),        # never wraps round to key 0
    # A key number the file does not have: the library's refusal.
    (lambda f: f.get(b"x", keyno=2), kisam.KisamError, "ISE_BADKN"),
    (lambda f: next(f.scan(keyno=-1)), kisam.KisamError, "ISE_BADKN"),
])
def test_keys_must_have_their_length(f, call, error, match):
    f.put(rec(1))
    with pytest.raises(error, match=match):
        call(f)


def test_open_modes_and_file_errors(inst):
    path = inst.path("f")
    with kisam.create(path, [4]) as f:
        f.put(b"0001data")
    with pytest.raises(FileExistsError):
        kisam.create(path, [4])
    with kisam.open(path, "r") as f:
        assert f.get(b"0001") == b"0001data" and not f.writable
        with pytest.raises(kisam.KisamError) as e:
            f.put(b"0002")
        assert e.value.code == kisam.ISE_RONLY
    with kisam.open(path) as f:
        f.put(b"0002")
    with kisam.create(path, [4, 2], replace=True) as f:
        assert f.key_lengths == (4, 2) and list(f) == []
    with open(inst.path("text"), "wb") as t:
        t.write(b"not an isam file" * 100)
    for call, code in [(lambda: kisam.open(inst.path("missing")), kisam.ISE_OPENF),
                       (lambda: kisam.open(inst.path("text")), kisam.ISE_NOTISAM),
                       (lambda: kisam.create(inst.path("wide"), [8] * 26), kisam.ISE_NKEYERR),
                       (lambda: kisam.create(inst.path("deep"), [600]), kisam.ISE_INVKL),
                       (lambda: kisam.create(inst.path("n" * 130), [4]), kisam.ISE_CREATF),  # names are kept in 128 bytes
                       (lambda: kisam.create(inst.path("none"), []), None),
                       (lambda: kisam.open(inst.path("a\0b")), None),
                       (lambda: kisam.open(path, "rw"), None)]:
        with pytest.raises(kisam.KisamError if code else ValueError) as e:
            call()
        assert code is None or e.value.code == code
    assert not kisam.attached()                          # failed opens hold nothing


def test_padding_helpers(f):
    assert kisam.pad(b"42", 8) == b"42      "
    assert kisam.pad("é", 4, b"\0") == b"\xc3\xa9\0\0"
    assert f.pad_key(b"7", 1, fill=b"0") == b"7000"
    with pytest.raises(ValueError):
        kisam.pad(b"123456789", 8)
    with pytest.raises(ValueError):
        kisam.pad(b"1", 8, fill=b"ab")
    with pytest.raises(TypeError):
        kisam.pad(5, 8)
    r = kisam.pad(b"42", 8) + kisam.pad(b"x", 4) + b"rest"
    f.put(r)
    assert f.get(kisam.pad(b"42", 8)) == r
    assert f.key_of(r) == b"42      " and f.key_of(r, 1) == b"x   "


def test_create_options(inst):
    for opts in ({"key_in_index": True}, {"small_header": True}, {}):
        p = inst.path("opt%d" % len(opts) + "".join(opts))
        with kisam.create(p, [6, 2], **opts) as f:
            f.put(b"abcdefXY")                           # the keys alone
            f.put(b"abcdegXYrest")
        with kisam.open(p) as f:
            assert list(f) == [b"abcdefXY", b"abcdegXYrest"]
            assert f.get(b"XY", keyno=1) == b"abcdefXY"
        header = open(p, "rb").read(2)
        assert header == (b"\x54\xab" if opts.get("small_header") else b"\x55\xab")


def test_closed_files_and_attachment(inst):
    f = kisam.create(inst.path("c"), [4])
    g = kisam.open(inst.path("c"))
    assert kisam.attached()
    f.put(b"0001")
    with g.lock(b"0001"):
        f.close()
        f.close()                                        # twice is harmless
        assert f.closed and not g.closed and kisam.attached()
        with pytest.raises(ValueError, match="closed"):
            f.get(b"0001")
    g.close()
    assert not kisam.attached()                          # the last close detached
    # A hold keeps the attachment without open files; detach() closes everything.
    with kisam.attach():
        with kisam.open(inst.path("c")):
            pass
        assert kisam.attached()
        h2 = kisam.open(inst.path("c"))
        kisam.detach()
        assert h2.closed and not kisam.attached()
        with pytest.raises(ValueError):
            h2.get(b"0001")
    h2.close()


def test_collected_file_is_closed(inst):
    import gc
    import warnings
    p = inst.path("gc")
    kisam.create(p, [4]).close()
    with kisam.attach():
        with warnings.catch_warnings(record=True) as w:
            warnings.simplefilter("always")
            g = kisam.open(p)
            g.lock(b"0001")
            del g
            gc.collect()
        assert any(issubclass(x.category, ResourceWarning) for x in w)
        # Its lock went with it: another handle of this process can take it ...
        with kisam.open(p) as h:
            assert h.unlock_all() == 0                   # ... and this handle holds none
            h.lock(b"0001", wait=False).release()
    assert not kisam.attached()


def test_control_bracket(f):
    assert f and len(f) == 0                             # an open file is true, also when empty
    f.put(rec(1))
    with f.control() as g:
        assert g is f
        with f.control():                                # nests
            f.replace(rec(1, rest=b"in the bracket"))
        f.put(rec(2))
        assert len(f) == 2 and f.count(keyno=1) == 2     # counts inside a bracket too
    assert f.get(b"00000001") == rec(1, rest=b"in the bracket")
    f.flush()


def test_record_locks_in_one_process(f):
    lk = f.lock(b"0001")
    assert lk.held and "held" in repr(lk)
    f.lock(b"0001", wait=False).release()                # a process never conflicts with itself
    with f.lock(b"00", wait=False), f.lock(b"0001xyz", wait=False):
        pass
    lk.release()
    assert not lk.held
    with pytest.raises(RuntimeError):
        lk.release()
    with pytest.raises(kisam.LockError, match="no record lock"):
        f.unlock(b"0001")
    for k in (b"0001", b"0002", b"0101", b"1"):
        f.lock(k)
    assert f.unlock_all(b"0") == 3 and f.unlock_all() == 1 and f.unlock_all() == 0
    with pytest.raises(TypeError):
        f.lock("0001")
    with pytest.raises(kisam.LockError, match="heap has no room") as e:
        f.lock(b"k" * 30000)                             # more than the shared heap holds
    assert len(str(e.value)) < 200
    with pytest.raises(kisam.KisamError) as e:
        f.lock(b"k" * 40000)                             # longer than a lock key can be
    assert e.value.code == kisam.ISE_INVKL
    last = f.lock(b"9")
    f.close()
    assert not last.held
    last.release()                                       # the close released it already


def test_threads_share_a_file(f):
    """The package serialises its calls: threads writing and scanning one file at once
    neither corrupt it nor see another thread's error state."""
    import threading
    errors = []

    def work(t):
        try:
            for i in range(150):
                f.put(rec(t * 1000 + i))
                if i % 50 == 0:
                    assert all(len(r) == 12 for r in f.scan(keyno=1))
                with pytest.raises(kisam.DuplicateKeyError):
                    f.put(rec(t * 1000 + i))
                with pytest.raises(kisam.NotFoundError):
                    f.delete(b"%08d" % (t * 1000 + 999))
        except BaseException as e:  # reported below
            errors.append(e)

    threads = [threading.Thread(target=work, args=(t,)) for t in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors, errors
    assert [r[:8] for r in f] == [b"%08d" % (t * 1000 + i) for t in range(4) for i in range(150)]


def test_attachment_made_by_other_code_is_left_to_it(inst):
    """Code of the process that attached without the package (a C extension, say) keeps
    its attachment: the package neither attaches a second time nor detaches it."""
    L = kisam._lib.lib()
    L.ZTPutEnv(b"KISCONFIG", inst.config.encode())
    assert L.is_init() == 0
    with kisam.create(inst.path("x"), [4]) as f:
        f.put(b"0001")
    assert kisam.attached() is False and L.ZTKISAMGetComAddr()
    [shmid] = inst.segment_ids()
    with open("/proc/sysvipc/shm") as shm:
        nattch = [int(line.split()[6]) for line in shm if line.split()[1] == str(shmid)]
    assert nattch == [1]                                 # one attachment, not two
    L.nisunisam()


def test_get_takes_a_prefix_and_gives_the_smallest_key_0(f):
    """Along a key that repeats, get gives the record with the smallest key 0 value,
    also when the repeats fill several index pages (an exact search lands on any one
    of them); a shorter value is a prefix, and the first match comes back."""
    order = list(range(600))
    random.Random(7).shuffle(order)
    model = {}
    for i in order:
        r = model[b"%08d" % i] = rec(i, k1=b"same" if i >= 100 else b"%04d" % (i % 5))
        f.put(r)
    assert f.get(b"same", keyno=1)[:8] == b"00000100"
    for keyno, values in ((1, (b"sa", b"0003", b"000", b"", b"s", b"x", b"1")),
                          (0, (b"00000042", b"0000005", b"000005", b"000006", b"1"))):
        for v in values:
            assert f.get(v, keyno=keyno) == expected_get(model, keyno, v), (keyno, v)
    # A get between the steps of a scan does not disturb it.
    it = f.scan(keyno=1)
    first = [next(it) for _ in range(3)]
    f.get(b"same", keyno=1)
    assert [r[:8] for r in first + list(it)] == [r[:8] for r in f.scan(keyno=1)]
