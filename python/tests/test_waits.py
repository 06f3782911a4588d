"""Waiting for a lock that another process holds: a signal reaches its Python handler
during the wait, KeyboardInterrupt arrives at once with nothing stored, and a handler
that raises nothing lets the call go on waiting."""

import signal
import time

import pytest

import kisam


@pytest.fixture
def path(inst):
    p = inst.path("shared")
    kisam.create(p, [8, 4]).close()
    return p


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
