"""The orvane package against the reference server (ORVANE_REFERENCE_SERVER), through ORVANE_LIBRARY."""
import hashlib
import os
import signal
import socket
import subprocess
import sys
import threading
import time
import urllib.request
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "python"))
import orvane  # noqa: E402

# Loopback only, never through a proxy from the environment.
for key in [k for k in os.environ if k.lower() in ("http_proxy", "https_proxy", "all_proxy")]:
    del os.environ[key]
os.environ["no_proxy"] = "127.0.0.1,localhost"
signal.signal(signal.SIGINT, signal.default_int_handler)  # as at a terminal, also when started in the background


class Server:
    def __init__(self, folder):
        self.folder, self.url, self.listeners = folder, "", []

    def extract(self, name, size):
        (self.folder / name).write_bytes(os.urandom(size))
        return self.folder / name

    def session(self, **options):
        return orvane.Session(self.url, "demo", "demo-password", **options)

    def published(self):  # (project, name) -> (size, sha256) of each stored extract
        with urllib.request.urlopen(self.url + "/__published", timeout=30) as reply:
            rows = [line.split("\t") for line in reply.read().decode().splitlines()]
        return {(r[0], r[1]): (int(r[2]), r[3]) for r in rows}

    def silent(self):  # a listener that never answers: connections wait in its backlog
        self.listeners.append(socket.create_server(("127.0.0.1", 0)))
        return self.listeners[-1]


def digest(path):
    return path.stat().st_size, hashlib.sha256(path.read_bytes()).hexdigest()


@pytest.fixture
def server(tmp_path, monkeypatch):
    monkeypatch.setenv("ORV_SDK_LOGDIR", str(tmp_path))  # read when the library starts, in the first test
    script = os.environ.get("ORVANE_REFERENCE_SERVER", str(SOURCE / "tools" / "orvane-reference-server"))
    port = tmp_path / "port"
    process = subprocess.Popen([sys.executable, script, "--host", "127.0.0.1", "--port", "0", "--port-file", str(port),
                                "--data-dir", str(tmp_path / "data"), "--quiet"])
    server = Server(tmp_path)
    try:
        for _ in range(400):
            if port.exists() and port.read_text().strip() or process.poll() is not None:
                break
            time.sleep(0.05)
        server.url = f"http://127.0.0.1:{port.read_text().strip()}"
        yield server
    finally:
        for listener in server.listeners:
            listener.close()
        process.terminate()
        process.wait(10)


def test_publish_stores_the_bytes_and_reports_progress(server):
    first, second, calls = server.extract("q1.qrx", 300_000), server.extract("q1-new.qrx", 70_000), []
    with server.session() as s:
        s.publish(first, "Samples", progress=lambda sent, total: calls.append((sent, total)))
        s.publish(first, project="Samples", name="Quartal ü 1")
        s.publish(second, project="Samples", name="q1", overwrite=True)
    assert server.published() == {("Samples", "q1"): digest(second), ("Samples", "Quartal ü 1"): digest(first)}
    total = calls[-1][1]  # the whole body: the file and the multipart envelope
    assert calls[0] == (0, total) and calls[-1] == (total, total) and 300_000 < total < 302_000
    assert {t for _, t in calls} == {total} and len(calls) == 2 + 300_000 // 65536
    assert all(0 < b - a <= 65536 for (a, _), (b, _) in zip(calls, calls[1:]))


def publish(server, path, project="Samples", times=1, progress=None):
    with server.session() as s:
        for _ in range(times):
            s.publish(path, project, progress=progress)


FAILURES = {  # situation: (action, class, code, HTTP status, text in str(error))
    "password refused": (lambda srv: orvane.Session(srv.url, "demo", "wrong"), orvane.SignInError, 401, 401,
                         "Signin Error: Wrong user name, password or site."),
    "no such project": (lambda srv: publish(srv, srv.extract("a.qrx", 10), "Nowhere"), orvane.ProjectNotFound,
                        303, 200, 'Project "Nowhere" doesn\'t exist on server'),
    "not an extract": (lambda srv: publish(srv, srv.extract("a.csv", 10)), orvane.ExtractFileError, 303, 0,
                       'a.csv" is either invalid or doesn\'t exist'),
    "name taken": (lambda srv: publish(srv, srv.extract("a.qrx", 10), times=2), orvane.AlreadyExists, 401, 409,
                   'named "a" already exists'),
    "nothing listening": (lambda srv: orvane.Session("http://127.0.0.1:1", "demo", "pw"), orvane.TransferError, 400,
                          0, "connect"),
    "server silent": (lambda srv: orvane.Session(f"http://127.0.0.1:{srv.silent().getsockname()[1]}", "demo", "pw",
                                                 stall_timeout=1), orvane.TimedOut, 501, 0, ""),
    "not the API": (lambda srv: orvane.Session(srv.url + "/elsewhere", "demo", "pw"), orvane.ServerError, 401, 404,
                    "Not Found"),
    "bad option": (lambda srv: srv.session(upload_buffer_size=1), orvane.PublishError, 1, 0, "Invalid argument"),
}


@pytest.mark.parametrize("action, cls, code, status, text", FAILURES.values(), ids=FAILURES.keys())
def test_each_failure_raises_its_class(server, action, cls, code, status, text):
    with pytest.raises(orvane.PublishError) as raised:
        action(server)
    assert (type(raised.value), raised.value.code, raised.value.http_status) == (cls, code, status)
    assert text in str(raised.value)


def cancel_from_another_thread(session):  # as a stop button would
    (canceller := threading.Thread(target=session.cancel)).start()
    canceller.join()


STOPS = [(cancel_from_another_thread, orvane.Cancelled), (lambda s: s.cancel(), orvane.Cancelled),
         (lambda s: 1 / 0, ZeroDivisionError), (lambda s: os.kill(os.getpid(), signal.SIGINT), KeyboardInterrupt)]


@pytest.mark.parametrize("stop, raised", STOPS)
def test_a_stop_during_the_upload_cancels_it(server, stop, raised):
    path = server.extract("big.qrx", 4 << 20)
    with server.session() as s:
        with pytest.raises(raised):
            s.publish(path, "Samples", progress=lambda sent, total: sent or stop(s))
        s.publish(path, "Samples", "after")  # the session stays usable
    assert list(server.published()) == [("Samples", "after")]
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler


def test_ctrl_c_while_the_server_is_silent_cancels_the_wait(server):
    listener = server.silent()

    def interrupt_once_asked():  # runs while the main thread waits in the library: the GIL is free
        with listener.accept()[0] as connection:
            connection.recv(1)
            os.kill(os.getpid(), signal.SIGINT)

    interrupter = threading.Thread(target=interrupt_once_asked)
    interrupter.start()
    with pytest.raises(KeyboardInterrupt):  # not TimedOut: the cancel came first
        orvane.Session(f"http://127.0.0.1:{listener.getsockname()[1]}", "demo", "pw", stall_timeout=30)
    interrupter.join()


def test_four_threads_publish_at_once(server):
    paths = [server.extract(f"t{i}.qrx", 1 << 20) for i in range(4)]
    in_flight, errors = threading.Barrier(5, timeout=60), []  # the four uploads and this thread

    def publish_one(path):
        try:  # each upload waits mid-body until all four are under way
            publish(server, path, progress=lambda sent, total: sent == 65536 and in_flight.wait())
        except BaseException as e:
            errors.append(e)

    threads = [threading.Thread(target=publish_one, args=(p,)) for p in paths]
    for t in threads:
        t.start()
    in_flight.wait()
    for t in threads:
        t.join(120)
    assert errors == [] and not any(t.is_alive() for t in threads)
    assert server.published() == {("Samples", f"t{i}"): digest(p) for i, p in enumerate(paths)}


def test_pip_installs_offline_and_finds_the_library_in_the_prefix(tmp_path):
    venv, version = tmp_path / "venv", f"python{sys.version_info[0]}.{sys.version_info[1]}"
    subprocess.run([sys.executable, "-m", "venv", str(venv)], check=True, timeout=120)
    python = str(venv / "bin" / "python")
    subprocess.run([python, "-m", "pip", "install", "-q", "--no-index", "--no-cache-dir", str(SOURCE / "python")],
                   check=True, timeout=120)
    os.symlink(os.environ["ORVANE_LIBRARY"], venv / "lib" / "libOrvaneServer.so.1")
    env = {k: v for k, v in os.environ.items() if k not in ("ORVANE_LIBRARY", "PYTHONPATH")}
    shown = subprocess.run([python, "-c", "import orvane; print(orvane.__file__, orvane.library_version(), "
                            "orvane._native.library()._name)"], cwd=tmp_path, env=env, capture_output=True,
                           text=True, check=True, timeout=60).stdout.split()
    assert shown == [str(venv / "lib" / version / "site-packages" / "orvane" / "__init__.py"), "1.2.0",
                     str(venv / "lib" / "libOrvaneServer.so.1")]
