"""Two processes on one file: records, record locks and the control lock as another
process sees them, and a signal that arrives while a call waits for a lock: it reaches
its Python handler during the wait, KeyboardInterrupt arrives at once with nothing
stored, and a handler that raises nothing lets the call go on waiting.  The second
process is a separate Python interpreter (or a fork) attached to the same installation."""

import multiprocessing
import os
import signal
import time

import pytest

import kisam


@pytest.fixture
def path(inst):
    p = inst.path("shared")
    kisam.create(p, [8, 4]).close()
    return p


def test_second_process_sees_records_and_waits_for_the_bracket(inst, path, child):
    with kisam.open(path) as f:
        f.put(b"00000001aaaafirst")
        c = child("""
            with kisam.open(%r) as f:
                say(f.get(b"00000001").decode())
                wait()
                seen = ",".join(r[:8].decode() for r in f.scan(b"00000002"))
                f.put(b"00000003cccfrom the child")
                f.delete(b"00000001")
                say(seen)                                # one line: it says its next after a wait
                wait()
                say(f.get(b"00000002").decode())
        """ % path)
        c.expect("00000001aaaafirst")
        f.put(b"00000002bbbbsecond")                     # after the child's first read
        f.put(b"00000004ddddfourth")
        c.send()
        c.expect("00000002,00000004")
        assert [r[:8] for r in f] == [b"00000002", b"00000003", b"00000004"]
        assert f.get(b"ccc ", keyno=1) is None and f.get(b"cccf", keyno=1) == b"00000003cccfrom the child"
        with f.control():
            f.replace(b"00000002bbbbpart one")
            c.send()
            assert c.quiet_for(0.5)                      # its read waits for the bracket
            f.replace(b"00000002bbbbpart two")
        c.expect("00000002bbbbpart two")
        assert c.finish() == 0


def test_record_locks_another_process_holds(inst, path, child):
    """Refused at once or after the time-out where they overlap (a prefix either way, the
    empty key), granted where they do not; a waiting lock is granted when the holder
    unlocks; the lock of a holder that was killed is taken over."""
    c = child("""
        f = kisam.open(%r)
        lk = f.lock(b"0000004")                          # a prefix: 00000040 to 00000049
        say("locked")
        wait()
        lk.release()
        say("waiting")
        with f.lock(b"00000007"):
            say("got it")
            wait()
        f.lock(b"00000001")
        say("locked again")
        wait()
    """ % path)
    c.expect("locked")
    with kisam.open(path) as f:
        for key in (b"00000042", b"0000004", b"0000", b""):
            with pytest.raises(kisam.LockError) as e:
                f.lock(key, wait=False)
            assert e.value.code == kisam.E_LOCKED and "another process" in str(e.value)
        with f.lock(b"00000050", wait=False):            # no overlap
            pass
        t0 = time.monotonic()
        with pytest.raises(kisam.LockError):
            f.lock(b"00000042", timeout=0.3)
        assert time.monotonic() - t0 >= 0.3
        seven = f.lock(b"00000007")
        c.send()
        c.expect("waiting")
        assert c.quiet_for(0.5)                          # blocked in the library
        with f.lock(b"00000042", wait=False) as lk:      # the child unlocked it
            assert lk.held
        seven.release()
        c.expect("got it")
        with pytest.raises(kisam.LockError):
            f.lock(b"00000007", wait=False)
        c.send()
        c.expect("locked again")
        f.lock(b"00000007", wait=False).release()
        with pytest.raises(kisam.LockError):
            f.lock(b"00000001", wait=False)
        c.proc.kill()
        c.proc.wait()
        f.lock(b"00000001", wait=False).release()


def _forked_child(f, q):
    # Uses the parent's open file: the package registers the child with the library
    # before its first call, and detaches it when the child ends.
    try:
        f.put(b"00000002bbbbfrom the fork")
        q.put(f.get(b"00000001"))
    except Exception as e:  # reported to the parent
        q.put(repr(e))


def test_forked_child_uses_inherited_file(inst, path):
    ctx = multiprocessing.get_context("fork")
    with kisam.attach():
        with kisam.open(path) as f:
            f.put(b"00000001aaaa")
            q = ctx.Queue()
            p = ctx.Process(target=_forked_child, args=(f, q))
            p.start()
            got = q.get(timeout=30)
            p.join(30)
            assert got == b"00000001aaaa" and p.exitcode == 0
            assert f.get(b"00000002") == b"00000002bbbbfrom the fork"
            with f.lock(b"00000001", wait=False):         # nothing of the child's remains
                pass
        # The child closed its share of the file when it ended: the file is open nowhere,
        # so it may be created again.
        kisam.create(path, [8], replace=True).close()


def test_forked_child_that_never_calls_claims_nothing(inst, path):
    with kisam.open(path) as f:
        pid = os.fork()
        if pid == 0:
            os._exit(0)
        os.waitpid(pid, 0)
        f.put(b"00000001aaaa")                           # the parent is still itself
        assert f.get(b"00000001") == b"00000001aaaa"


def test_forked_child_without_a_process_slot_is_refused(inst, child):
    """With every process slot taken, a forked child cannot register: its first call
    fails, its inherited files are closed to it, and nothing runs under the parent's
    identity."""
    kisam.write_config(inst.config, users=2, overwrite=True)
    p = inst.path("full")
    with kisam.create(p, [4]) as f:
        f.put(b"0001")
        c = child("""
            with kisam.open(%r):
                say("attached")
                wait()
        """ % p)
        c.expect("attached")                             # both slots are taken now
        with f.lock(b"0001"):
            pid = os.fork()
            if pid == 0:
                code = 1
                try:
                    f.lock(b"0001", wait=False)          # as the parent it would succeed
                except kisam.KisamError as e:
                    if e.code == kisam.ISE_INITERR and f.closed and not kisam.attached():
                        code = 0
                except BaseException:
                    pass
                os._exit(code)
            _, status = os.waitpid(pid, 0)
            assert os.waitstatus_to_exitcode(status) == 0
        c.send()
        assert c.finish() == 0
        assert f.get(b"0001") == b"0001"


def test_keyboard_interrupt_during_a_wait_arrives_at_once_with_nothing_stored(inst, path, child):
    with kisam.open(path) as f:
        c = child("""
            with kisam.open(%r) as f:
                say("ready")
                try:
                    f.put(b"00000001aaaafrom the child")
                    say("stored")
                except KeyboardInterrupt:
                    say("interrupted")
        """ % path)
        with f.control():
            c.expect("ready")
            assert c.quiet_for(0.5)                      # its put waits for the bracket
            start = time.monotonic()
            c.proc.send_signal(signal.SIGINT)
            c.expect("interrupted", timeout=10)          # while the bracket is still held
            assert time.monotonic() - start < 5
        assert c.finish() == 0, c.stderr()             # its close waited for the bracket
        assert f.get(b"00000001") is None


def test_a_handler_that_raises_nothing_runs_during_the_wait_which_goes_on(inst, path, child):
    with kisam.open(path) as f:
        c = child("""
            import signal
            signal.signal(signal.SIGUSR1, lambda *a: say("usr1"))
            with kisam.open(%r) as f:
                say("ready")
                f.put(b"00000001aaaafrom the child")
                say("stored")
        """ % path)
        with f.control():
            c.expect("ready")
            assert c.quiet_for(0.5)
            c.proc.send_signal(signal.SIGUSR1)
            c.expect("usr1")                             # the handler ran inside the wait
            assert c.quiet_for(0.3)                      # and the put waits on
        c.expect("stored")
        assert c.finish() == 0, c.stderr()
        assert f.get(b"00000001") == b"00000001aaaafrom the child"
