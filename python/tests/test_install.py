"""`pip install ./python` without a package index, and the installed copy at work."""

import glob
import importlib.util
import os
import subprocess
import sys

import pytest

from conftest import PACKAGE_DIR, ftok, segments


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
    assert os.path.exists(os.path.join(target, "kisam", "py.typed")), "type checkers need the marker"
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


def test_readme_example_runs(inst, tmp_path):
    """The example of both READMEs, run as a user would (its own installation in a new
    temporary directory) and giving the output python/README.md states."""
    examples = []
    for readme in (os.path.join(PACKAGE_DIR, "README.md"), os.path.join(os.path.dirname(PACKAGE_DIR), "README.md")):
        text = open(readme, encoding="utf-8").read()
        examples.append(text.split("```python\n", 1)[1].split("```", 1)[0])
    assert examples[0] == examples[1] and len(examples[0].splitlines()) <= 10
    env = dict(os.environ, TMPDIR=str(tmp_path), PYTHONPATH=PACKAGE_DIR)
    env.pop("KISCONFIG")
    out = subprocess.run([sys.executable, "-c", examples[0]], capture_output=True, text=True, env=env, timeout=60)
    assert out.returncode == 0, out.stderr
    assert out.stdout.splitlines() == ["b'00000042Smith       Leeds'", "b'00000043Jones       Paris'"]
    [lock_file] = glob.glob(str(tmp_path / "*" / "kisamconfig.lk"))
    assert segments(ftok(lock_file)) == []


def test_public_interface_is_typed():
    """Every public function and method says what it takes and gives, so that type
    checkers (which the py.typed marker invites) check callers."""
    import inspect
    import kisam
    missing = []
    def check(name, fn):
        sig = inspect.signature(fn)
        for p in sig.parameters.values():
            if p.name not in ("self", "cls") and p.annotation is inspect.Parameter.empty:
                missing.append("%s(%s)" % (name, p.name))
        if sig.return_annotation is inspect.Signature.empty and name.rsplit(".", 1)[-1] != "__init__":
            missing.append("%s -> ?" % name)
    for name in kisam.__all__:
        obj = getattr(kisam, name)
        if inspect.isfunction(obj):
            check(name, obj)
        elif inspect.isclass(obj) and obj.__module__.startswith("kisam"):
            for attr, member in vars(obj).items():
                if inspect.isfunction(member) and (not attr.startswith("_") or attr in (
                        "__init__", "__len__", "__getitem__", "__contains__", "__iter__", "__enter__")):
                    check("%s.%s" % (name, attr), member)
                elif isinstance(member, property):
                    check("%s.%s" % (name, attr), member.fget)
    assert missing == []
