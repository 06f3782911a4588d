"""`pip install ./python` without a package index, and the installed copy at work."""

import importlib.util
import os
import subprocess
import sys

import pytest

from conftest import PACKAGE_DIR


@pytest.mark.skipif(importlib.util.find_spec("pip") is None, reason="pip is not installed for %s" % sys.executable)
def test_pip_installs_offline_and_the_copy_works(inst, tmp_path):
    target = str(tmp_path / "site")
    env = dict(os.environ, PIP_NO_INDEX="1", PIP_DISABLE_PIP_VERSION_CHECK="1", PYTHONDONTWRITEBYTECODE="1")
    out = subprocess.run([sys.executable, "-m", "pip", "install", "--target", target, PACKAGE_DIR],
                         capture_output=True, text=True, env=env, timeout=300)
    assert out.returncode == 0, out.stdout + out.stderr
    def modules(d):
        return sorted(f for f in os.listdir(os.path.join(d, "kisam")) if f.endswith(".py"))
    assert modules(target) == modules(PACKAGE_DIR)
    assert not os.path.exists(os.path.join(PACKAGE_DIR, "build"))   # the tree stays clean

    script = """
import kisam, sys
assert kisam.__file__.startswith(sys.argv[1]), kisam.__file__
with kisam.create(sys.argv[2], [4]) as f:
    f.put(b"0001installed")
    print(f.get(b"0001").decode())
"""
    run_env = dict(os.environ, PYTHONPATH=target)
    out = subprocess.run([sys.executable, "-c", script, target, inst.path("f")], capture_output=True, text=True,
                         env=run_env, cwd=str(tmp_path), timeout=60)
    assert out.returncode == 0, out.stderr
    assert out.stdout.strip() == "0001installed"
