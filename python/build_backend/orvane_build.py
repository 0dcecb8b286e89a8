"""A PEP 517 backend for this pure-Python package, standard library only.

pip builds in an isolated environment and would otherwise fetch setuptools
first; with nothing to fetch, `pip install ./python` works offline.
"""
import base64
import hashlib
import io
import re
import tarfile
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
PACKAGE = "orvane"


def _project():
    """The plain string keys of pyproject.toml's [project] table."""
    text = (ROOT / "pyproject.toml").read_text(encoding="utf-8")
    table = text.split("[project]", 1)[1].split("\n[", 1)[0]
    return dict(re.findall(r'^([\w-]+)\s*=\s*"([^"]*)"\s*$', table, re.M))


def _metadata():
    p = _project()
    return (f"Metadata-Version: 2.1\nName: {p['name']}\nVersion: {p['version']}\nSummary: {p['description']}\n"
            f"Requires-Python: {p['requires-python']}\n"), f"{p['name']}-{p['version']}"


def _wheel(directory, files):
    metadata, stem = _metadata()
    dist_info = f"{stem}.dist-info"
    files = dict(files, **{f"{dist_info}/METADATA": metadata.encode(), f"{dist_info}/WHEEL":
                           b"Wheel-Version: 1.0\nGenerator: orvane_build\nRoot-Is-Purelib: true\nTag: py3-none-any\n"})
    record = []
    for name, data in files.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        record.append(f"{name},sha256={digest},{len(data)}\n")
    files[f"{dist_info}/RECORD"] = "".join(record + [f"{dist_info}/RECORD,,\n"]).encode()
    filename = f"{stem}-py3-none-any.whl"
    with zipfile.ZipFile(Path(directory) / filename, "w", zipfile.ZIP_DEFLATED) as wheel:
        for name, data in files.items():
            wheel.writestr(zipfile.ZipInfo(name, (1980, 1, 1, 0, 0, 0)), data)
    return filename


def _sources():
    for path in sorted((ROOT / PACKAGE).iterdir()):
        if path.suffix in (".py", ".typed"):
            yield path


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return _wheel(wheel_directory, {f"{PACKAGE}/{p.name}": p.read_bytes() for p in _sources()})


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    return _wheel(wheel_directory, {f"{PACKAGE}.pth": f"{ROOT}\n".encode()})


def build_sdist(sdist_directory, config_settings=None):
    metadata, stem = _metadata()
    filename = f"{stem}.tar.gz"
    with tarfile.open(Path(sdist_directory) / filename, "w:gz") as sdist:
        for path in [ROOT / "pyproject.toml", ROOT / "build_backend" / "orvane_build.py", *_sources()]:
            sdist.add(path, f"{stem}/{path.relative_to(ROOT)}")
        info = tarfile.TarInfo(f"{stem}/PKG-INFO")
        info.size = len(metadata.encode())
        sdist.addfile(info, io.BytesIO(metadata.encode()))
    return filename
