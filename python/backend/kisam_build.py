"""Build backend of the kisam package (PEP 517, with the editable hooks of PEP 660).

It writes a pure-Python wheel of the kisam/ directory, an editable wheel that points at
this tree, and a source archive, with nothing but the standard library: pip needs to
fetch nothing to build the package.
"""

import base64
import hashlib
import io
import os
import re
import tarfile
import time
import zipfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
NAME = "kisam"
SUMMARY = "Indexed-sequential files shared by many processes, through libkisam"
REQUIRES_PYTHON = ">=3.8"
TAG = "py3-none-any"
# Fixed entry times keep two builds of one tree byte-identical.
ZIP_TIME = (1980, 1, 1, 0, 0, 0)


def _version():
    with open(os.path.join(ROOT, NAME, "__init__.py"), encoding="utf-8") as f:
        m = re.search(r'^__version__ = "([^"]+)"$', f.read(), re.M)
    if not m:
        raise RuntimeError("kisam/__init__.py defines no __version__")
    return m.group(1)


def _dist_info():
    return "%s-%s.dist-info" % (NAME, _version())


def _metadata():
    lines = ["Metadata-Version: 2.1", "Name: " + NAME, "Version: " + _version(), "Summary: " + SUMMARY,
             "Requires-Python: " + REQUIRES_PYTHON]
    readme = os.path.join(ROOT, "README.md")
    text = ""
    if os.path.exists(readme):
        lines.append("Description-Content-Type: text/markdown")
        with open(readme, encoding="utf-8") as f:
            text = f.read()
    return ("\n".join(lines) + "\n\n" + text).encode("utf-8")


def _wheel_file():
    return ("Wheel-Version: 1.0\nGenerator: kisam_build\nRoot-Is-Purelib: true\nTag: %s\n" % TAG).encode()


def _package_files():
    """(archive name, path) of every module of the package, in a fixed order."""
    out = []
    for dirpath, dirnames, filenames in os.walk(os.path.join(ROOT, NAME)):
        dirnames[:] = sorted(d for d in dirnames if d != "__pycache__")
        for fn in sorted(filenames):
            if fn.endswith(".py") or fn == "py.typed":
                path = os.path.join(dirpath, fn)
                out.append((os.path.relpath(path, ROOT).replace(os.sep, "/"), path))
    return out


def _write_wheel(directory, entries):
    """Writes a wheel of `entries` ((archive name, bytes)) plus its dist-info."""
    dist = _dist_info()
    entries = list(entries) + [(dist + "/METADATA", _metadata()), (dist + "/WHEEL", _wheel_file())]
    name = "%s-%s-%s.whl" % (NAME, _version(), TAG)
    record = []
    with zipfile.ZipFile(os.path.join(directory, name), "w", zipfile.ZIP_DEFLATED) as z:
        for arcname, data in entries:
            info = zipfile.ZipInfo(arcname, ZIP_TIME)
            info.external_attr = 0o644 << 16
            info.compress_type = zipfile.ZIP_DEFLATED
            z.writestr(info, data)
            digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
            record.append("%s,sha256=%s,%d" % (arcname, digest, len(data)))
        record.append(dist + "/RECORD,,")
        info = zipfile.ZipInfo(dist + "/RECORD", ZIP_TIME)
        info.external_attr = 0o644 << 16
        z.writestr(info, "\n".join(record) + "\n")
    return name


def _read(path):
    with open(path, "rb") as f:
        return f.read()


def _write_metadata(metadata_directory):
    dist = os.path.join(metadata_directory, _dist_info())
    os.makedirs(dist, exist_ok=True)
    with open(os.path.join(dist, "METADATA"), "wb") as f:
        f.write(_metadata())
    with open(os.path.join(dist, "WHEEL"), "wb") as f:
        f.write(_wheel_file())
    return _dist_info()


# ---- the hooks ------------------------------------------------------------------------

def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def get_requires_for_build_editable(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    return _write_metadata(metadata_directory)


def prepare_metadata_for_build_editable(metadata_directory, config_settings=None):
    return _write_metadata(metadata_directory)


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return _write_wheel(wheel_directory, [(arc, _read(path)) for arc, path in _package_files()])


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    # A path file puts this tree on sys.path, so the package is used where it lies.
    return _write_wheel(wheel_directory, [(NAME + "_editable.pth", (ROOT + "\n").encode())])


def build_sdist(sdist_directory, config_settings=None):
    base = "%s-%s" % (NAME, _version())
    name = base + ".tar.gz"
    files = [("pyproject.toml", os.path.join(ROOT, "pyproject.toml")),
             ("backend/kisam_build.py", os.path.abspath(__file__))]
    if os.path.exists(os.path.join(ROOT, "README.md")):
        files.append(("README.md", os.path.join(ROOT, "README.md")))
    files += _package_files()
    with tarfile.open(os.path.join(sdist_directory, name), "w:gz", format=tarfile.PAX_FORMAT) as tar:
        pkg_info = _metadata()
        for arcname, data in [("PKG-INFO", pkg_info)] + [(arc, _read(p)) for arc, p in files]:
            info = tarfile.TarInfo(base + "/" + arcname)
            info.size = len(data)
            info.mode = 0o644
            info.mtime = int(time.mktime(ZIP_TIME + (0, 0, -1)))
            tar.addfile(info, io.BytesIO(data))
    return name
