"""A PEP 517 backend for the orvane package, standard library only.

pip builds in an isolated environment and would otherwise fetch setuptools
first; with nothing to fetch, `pip install ./python` works offline.

The wheel carries its own libOrvaneServer: the project's CMake (the source tree
is this directory's parent) builds the shared library, and the library and
libOrvaneCommon go into the package directory with a run path of $ORIGIN, so
the package needs nothing installed beyond the system's own libraries. The
wheel is therefore tagged for this platform, though it holds no code built
against Python itself.

Config setting `build-dir` (pip's `-C build-dir=DIR`) names a build directory
to keep between builds: an existing one is only brought up to date; without
it the library is built in a temporary directory.
"""
import base64
import hashlib
import io
import os
import re
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCE = ROOT.parent
PACKAGE = "orvane"
# Where the project's CMake puts the two shared libraries, relative to the build directory.
LIBRARIES = {"libOrvaneServer.so.1": ".", "libOrvaneCommon.so.1": "common"}


def _project():
    """The plain string keys of pyproject.toml's [project] table."""
    text = (ROOT / "pyproject.toml").read_text(encoding="utf-8")
    table = text.split("[project]", 1)[1].split("\n[", 1)[0]
    return dict(re.findall(r'^([\w-]+)\s*=\s*"([^"]*)"\s*$', table, re.M))


def _metadata():
    p = _project()
    lines = [
        "Metadata-Version: 2.1",
        f"Name: {p['name']}",
        f"Version: {p['version']}",
        f"Summary: {p['description']}",
        f"Requires-Python: {p['requires-python']}",
    ]
    return "\n".join(lines) + "\n", f"{p['name']}-{p['version']}"


def _platform_tag():
    return "py3-none-" + re.sub(r"[^A-Za-z0-9]", "_", sysconfig.get_platform())


def _wheel(directory, files, tag):
    metadata, stem = _metadata()
    dist_info = f"{stem}.dist-info"
    purelib = "true" if tag == "py3-none-any" else "false"
    wheel_file = f"Wheel-Version: 1.0\nGenerator: orvane_build\nRoot-Is-Purelib: {purelib}\nTag: {tag}\n"
    files = dict(files)
    files[f"{dist_info}/METADATA"] = metadata.encode()
    files[f"{dist_info}/WHEEL"] = wheel_file.encode()
    record = []
    for name, data in files.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        record.append(f"{name},sha256={digest},{len(data)}\n")
    record.append(f"{dist_info}/RECORD,,\n")
    files[f"{dist_info}/RECORD"] = "".join(record).encode()
    filename = f"{stem}-{tag}.whl"
    with zipfile.ZipFile(Path(directory) / filename, "w", zipfile.ZIP_DEFLATED) as wheel:
        for name, data in files.items():
            info = zipfile.ZipInfo(name, (1980, 1, 1, 0, 0, 0))
            info.external_attr = (0o755 if name.endswith(".so.1") else 0o644) << 16
            wheel.writestr(info, data)
    return filename


def _sources():
    for path in sorted((ROOT / PACKAGE).iterdir()):
        if path.suffix in (".py", ".typed"):
            yield path


def _run(command):
    # The build's chatter goes to stderr, which pip shows with -v or on failure.
    subprocess.run([str(part) for part in command], check=True, stdout=sys.stderr)


def _build_library(build_dir):
    """Builds the OrvaneServer target in `build_dir` and returns the two libraries' bytes, run path $ORIGIN."""
    if not (SOURCE / "CMakeLists.txt").is_file():
        raise RuntimeError(f"the library's sources are not at {SOURCE}: build from the project's tree")
    cmake = shutil.which("cmake")
    if cmake is None:
        raise RuntimeError("cmake is needed to build libOrvaneServer (tools/install-deps.sh installs it)")
    if not (build_dir / "CMakeCache.txt").is_file():
        _run([cmake, "-S", SOURCE, "-B", build_dir, "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DORV_BUILD_TESTS=OFF",
              "-DORV_BUILD_BENCH=OFF"])
    _run([cmake, "--build", build_dir, "-j", str(os.cpu_count() or 1), "--target", "OrvaneServer"])
    found = {}
    for name, folder in LIBRARIES.items():
        path = build_dir / folder / name
        if not path.is_file():
            raise RuntimeError(f"the build in {build_dir} made no {folder}/{name}")
        found[name] = path.resolve()
    with tempfile.TemporaryDirectory() as staging:
        script = Path(staging) / "rpath.cmake"
        for name, path in found.items():
            shutil.copyfile(path, Path(staging) / name)
        # Only libOrvaneServer has a run path (to libOrvaneCommon's build directory); CMake's own ELF editor
        # points it at its new neighbour.
        server = Path(staging) / "libOrvaneServer.so.1"
        script.write_text(f'file(RPATH_SET FILE "{server}" NEW_RPATH "$ORIGIN")\n', encoding="utf-8")
        _run([cmake, "-P", script])
        return {name: (Path(staging) / name).read_bytes() for name in found}


def _dist_info(directory):
    metadata, stem = _metadata()
    dist_info = Path(directory) / f"{stem}.dist-info"
    dist_info.mkdir(parents=True, exist_ok=True)
    (dist_info / "METADATA").write_text(metadata, encoding="utf-8")
    return dist_info.name


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    # Without it pip would build the whole wheel, library included, to read the metadata.
    return _dist_info(metadata_directory)


def prepare_metadata_for_build_editable(metadata_directory, config_settings=None):
    return _dist_info(metadata_directory)


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    files = {f"{PACKAGE}/{p.name}": p.read_bytes() for p in _sources()}
    kept = (config_settings or {}).get("build-dir")
    if kept:
        libraries = _build_library(Path(kept).resolve())
    else:
        with tempfile.TemporaryDirectory(prefix="orvane-build-") as build_dir:
            libraries = _build_library(Path(build_dir))
    for name, data in libraries.items():
        files[f"{PACKAGE}/{name}"] = data
    return _wheel(wheel_directory, files, _platform_tag())


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    # The working tree itself, without a library of its own: it is found through ORVANE_LIBRARY.
    return _wheel(wheel_directory, {f"{PACKAGE}.pth": f"{ROOT}\n".encode()}, "py3-none-any")


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
