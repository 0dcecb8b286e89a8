"""The reference server fixture for the orvane package's tests.

ORVANE_LIBRARY names the library under test, ORVANE_REFERENCE_SERVER the
server script (ctest sets both).
"""
import atexit
import hashlib
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "python"))
import orvane  # noqa: E402

# Loopback only: no proxy from the environment; the library's log goes to a scratch folder.
for key in [k for k in os.environ if k.lower() in ("http_proxy", "https_proxy", "all_proxy")]:
    del os.environ[key]
os.environ["no_proxy"] = "127.0.0.1,localhost"
os.environ["ORV_SDK_LOGDIR"] = tempfile.mkdtemp(prefix="orv-py-log-")
atexit.register(shutil.rmtree, os.environ["ORV_SDK_LOGDIR"], True)


class Server:
    def __init__(self, url: str, folder: Path) -> None:
        self.url, self.folder, self.listeners = url, folder, []

    def extract(self, name: str, size: int) -> Path:
        path = self.folder / name
        path.write_bytes(os.urandom(size))
        return path

    def session(self, **options) -> orvane.Session:
        return orvane.Session(self.url, "demo", "demo-password", **options)

    def published(self) -> dict:
        """(project, name) -> (size, sha256) of every stored extract."""
        with urllib.request.urlopen(self.url + "/__published", timeout=30) as reply:
            rows = [line.split("\t") for line in reply.read().decode().splitlines()]
        return {(r[0], r[1]): (int(r[2]), r[3]) for r in rows}

    def silent(self) -> socket.socket:
        """A loopback listener that never answers (connections wait in its backlog)."""
        listener = socket.create_server(("127.0.0.1", 0))
        self.listeners.append(listener)
        return listener


def digest(path: Path) -> tuple:
    data = path.read_bytes()
    return len(data), hashlib.sha256(data).hexdigest()


@pytest.fixture
def server(tmp_path):
    script = os.environ.get("ORVANE_REFERENCE_SERVER", str(SOURCE / "tools" / "orvane-reference-server"))
    port_file = tmp_path / "port"
    process = subprocess.Popen([sys.executable, script, "--host", "127.0.0.1", "--port", "0", "--port-file",
                                str(port_file), "--data-dir", str(tmp_path / "data"), "--quiet"])
    server = Server("", tmp_path)
    try:
        for _ in range(400):
            if port_file.exists() and port_file.read_text().strip() or process.poll() is not None:
                break
            time.sleep(0.05)
        server.url = f"http://127.0.0.1:{port_file.read_text().strip()}"
        yield server
    finally:
        for listener in server.listeners:
            listener.close()
        process.terminate()
        process.wait(10)
