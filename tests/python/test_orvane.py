"""The orvane package against the reference server (ORVANE_REFERENCE_SERVER), through ORVANE_LIBRARY (the
library's directory)."""
import contextlib
import dataclasses
import hashlib
import json
import logging
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
        self.folder = folder
        self.url = ""
        self.listeners = []

    def extract(self, name, size):
        (self.folder / name).write_bytes(os.urandom(size))
        return self.folder / name

    def session(self, **options):
        return orvane.Session(self.url, "demo", "demo-password", **options)

    def rows(self, page, separator):
        with urllib.request.urlopen(self.url + page, timeout=30) as reply:
            return [line.split(separator) for line in reply.read().decode().splitlines()]

    def published(self):  # (project, name) -> (size, sha256) of each stored extract
        return {(r[0], r[1]): (int(r[2]), r[3]) for r in self.rows("/__published", "\t")}

    def stats(self):  # "sessions" signed in now, "connections" that carried API requests so far
        return {name: int(value) for name, value in self.rows("/__stats", " ")}

    def silent(self):  # a listener that never answers: connections wait in its backlog
        self.listeners.append(socket.create_server(("127.0.0.1", 0)))
        return self.listeners[-1]


def digest(path):
    return path.stat().st_size, hashlib.sha256(path.read_bytes()).hexdigest()


@contextlib.contextmanager
def serving(command, port_file):
    """Runs a loopback server until the block ends; yields its URL once it has written its port."""
    process = subprocess.Popen(command)
    try:
        for _ in range(2000):
            if port_file.exists() and port_file.read_text().strip() or process.poll() is not None:
                break
            time.sleep(0.01)
        yield f"http://127.0.0.1:{port_file.read_text().strip()}"
    finally:
        process.terminate()
        process.wait(10)


@pytest.fixture
def server(tmp_path, monkeypatch):
    monkeypatch.setenv("ORV_SDK_LOGDIR", str(tmp_path))  # read when the library starts, in the first test
    script = os.environ.get("ORVANE_REFERENCE_SERVER", str(SOURCE / "tools" / "orvane-reference-server"))
    port = tmp_path / "port"
    server = Server(tmp_path)
    command = [sys.executable, script, "--host", "127.0.0.1", "--port", "0", "--port-file", str(port), "--data-dir",
               str(tmp_path / "data"), "--quiet"]
    try:
        with serving(command, port) as url:
            server.url = url
            yield server
    finally:
        for listener in server.listeners:
            listener.close()


@pytest.fixture
def scripted(tmp_path):
    """Starts the project's scripted test server with a list of routes; returns its URL."""
    with contextlib.ExitStack() as running:
        def start(routes):
            folder = tmp_path / "scripted"
            folder.mkdir()
            (folder / "script.json").write_text(json.dumps(routes), encoding="latin-1")
            command = [sys.executable, str(SOURCE / "tests" / "support" / "http_test_server.py"), str(folder), "", "0"]
            return running.enter_context(serving(command, folder / "port"))

        yield start


def test_publish_stores_the_bytes_reports_progress_and_returns_a_result(server, caplog):
    caplog.set_level(logging.DEBUG, logger="orvane")
    first = server.extract("q1.qrx", 300_000)
    second = server.extract("q1-new.qrx", 70_000)
    calls = []
    with server.session() as s:
        result = s.publish(first, "Samples", progress=lambda sent, total: calls.append((sent, total)))
        s.publish(first, project="Samples", name="Quartal ü 1")
        s.publish(second, project="Samples", name="q1", overwrite=True)
    assert server.published() == {("Samples", "q1"): digest(second), ("Samples", "Quartal ü 1"): digest(first)}
    assert dataclasses.replace(result, seconds=0) == orvane.PublishResult(str(first), "q1", "Samples", 300_000, 0, 201)
    total = calls[-1][1]  # the whole body: the file and the multipart envelope
    assert calls[-1] == (total, total)
    assert 300_000 < total < 302_000
    assert wait_for(lambda: any(str(first) in record.getMessage() for record in caplog.records))  # the log, routed


def wait_for(condition):  # for what the library does on a thread of its own
    for _ in range(400):
        if condition():
            return True
        time.sleep(0.05)
    return False


def publish(server, path, project="Samples", times=1):
    with server.session() as s:
        for _ in range(times):
            s.publish(path, project)


def sign_in_at(port, **options):
    return orvane.Session(f"http://127.0.0.1:{port}", "demo", "pw", **options)


def unused_port():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        return listener.getsockname()[1]


@dataclasses.dataclass
class Failing:
    action: object
    cls: type
    builtin: type  # the built-in error it also is
    code: int
    status: int
    text: str  # a piece of str(error)


FAILURES = {
    "password refused": Failing(lambda srv: orvane.Session(srv.url, "demo", "wrong"), orvane.SignInError, Exception,
                                401, 401, "sign-in refused (HTTP 401): Signin Error: Wrong user name, password or site."
                                " Check the user name, the password and the site."),
    "no such project": Failing(lambda srv: publish(srv, srv.extract("a.qrx", 10), "Nowhere"), orvane.ProjectNotFound,
                               Exception, 303, 200, "doesn't exist on server. Project names are case-sensitive."),
    "not an extract": Failing(lambda srv: publish(srv, srv.extract("a.csv", 10)), orvane.ExtractNotUsable, ValueError,
                              303, 0, 'a.csv" is either invalid'),
    "no such file": Failing(lambda srv: publish(srv, srv.folder / "gone.qrx"), orvane.ExtractNotFound,
                            FileNotFoundError, 303, 0, 'gone.qrx" is either invalid'),
    "a directory": Failing(lambda srv: publish(srv, srv.folder / "data"), orvane.ExtractIsADirectory,
                           IsADirectoryError, 303, 0, 'data" is either invalid'),
    "name taken": Failing(lambda srv: publish(srv, srv.extract("a.qrx", 10), times=2), orvane.AlreadyExists,
                          Exception, 401, 409, 'refused by the server (HTTP 409): Resource Conflict: A data source'
                          ' named "a" already exists in project "Samples". Use overwrite=True to replace it.'),
    "nothing listening": Failing(lambda srv: sign_in_at(unused_port()), orvane.ConnectError, Exception, 400, 0,
                                 "Check the server's address."),
    "TLS to plain HTTP": Failing(lambda srv: orvane.Session(srv.url.replace("http:", "https:"), "demo", "pw"),
                                 orvane.TlsError, Exception, 400, 0, "ca_file="),
    "server silent": Failing(lambda srv: sign_in_at(srv.silent().getsockname()[1], stall_timeout=1), orvane.TimedOut,
                             TimeoutError, 501, 0, "The stall_timeout of 1 s ran out."),
    "not the API": Failing(lambda srv: orvane.Session(srv.url + "/elsewhere", "demo", "pw"), orvane.SignInError,
                           Exception, 401, 404, "Not Found: No resource at POST /elsewhere/api/2.0/auth/signin."
                           " Check the server's address and the site."),
    "bad option": Failing(lambda srv: srv.session(upload_buffer_size=1), orvane.PublishError, Exception, 1, 0,
                          "Invalid argument"),
}


@pytest.mark.parametrize("case", FAILURES.values(), ids=FAILURES.keys())
def test_each_failure_raises_its_class(server, case):
    with pytest.raises(orvane.PublishError) as raised:
        case.action(server)
    assert type(raised.value) is case.cls
    assert isinstance(raised.value, case.builtin)
    assert raised.value.code == case.code
    assert raised.value.http_status == case.status
    assert case.text in str(raised.value)


MISUSE = {  # what is wrong: (call on a signed-in session, error, piece of its text)
    "project None": (lambda s, path: s.publish(path, None), TypeError, "project must be a str, not NoneType"),
    "path None": (lambda s, path: s.publish(None, "Samples"), TypeError, "path must be a str or os.PathLike"),
    "no jobs": (lambda s, path: s.publish_many([path], "Samples", jobs=0), ValueError, "jobs must be at least 1"),
    "same name twice": (lambda s, path: s.publish_many([path, path.parent / "x" / path.name], "Samples"), ValueError,
                        'would both be published as "a"'),
}


@pytest.mark.parametrize("call, error, text", MISUSE.values(), ids=MISUSE.keys())
def test_misuse_is_refused_before_anything_is_sent(server, call, error, text):
    path = server.extract("a.qrx", 10)
    with server.session() as s:
        with pytest.raises(error, match=text):
            call(s, path)
    assert server.published() == {}


def test_publish_many_reports_the_failures_of_a_batch(server):
    paths = [server.extract(f"b{i}.qrx", 200_000) for i in range(3)]
    paths.insert(1, server.folder / "missing.qrx")
    seen = set()
    with server.session() as s:
        with pytest.raises(orvane.BatchError) as raised:
            s.publish_many(paths, "Samples", jobs=2, progress=lambda path, sent, total: seen.add(path))
        again = s.publish_many(paths, "Samples", overwrite=True, raise_on_error=False)
    assert [path for path, _ in raised.value.failures] == [str(paths[1])]
    assert isinstance(raised.value.failures[0][1], FileNotFoundError)
    assert str(raised.value).startswith("1 of 4 extracts failed\n")
    expected = [orvane.PublishResult, orvane.ExtractNotFound, orvane.PublishResult, orvane.PublishResult]
    assert [type(result) for result in raised.value.results] == expected
    assert [type(result) for result in again] == expected
    assert seen == {str(path) for path in paths if path.exists()}
    assert server.published() == {("Samples", path.stem): digest(path) for path in paths if path.exists()}


SIGN_IN = "/api/2.0/auth/signin"


def sign_in_reply(status, body="", location=None):
    headers = [] if location is None else [["Location", location]]
    return [{"path": SIGN_IN, "method": "POST", "responses": [{"status": status, "body": body, "headers": headers}]}]


EDGES = {  # what the peer does: (routes of the scripted server, the hint of the failure it must cause)
    "reply over the default limit": (lambda srv: sign_in_reply(200, "x" * (16 << 20 | 1)), "Raise max_reply_size="),
    "redirect to another origin": (lambda srv: sign_in_reply(307, location=srv.url + SIGN_IN), 'redirects="follow"'),
}


@pytest.mark.parametrize("routes, hint", EDGES.values(), ids=EDGES.keys())
def test_what_a_session_refuses_by_default(server, scripted, routes, hint):
    url = scripted(routes(server))
    with pytest.raises(orvane.TransferError, match=hint):
        orvane.Session(url, "demo", "demo-password")


ROUND_TRIPS = {  # Session options: connections the server saw for a session with three publishes
    "the defaults": ({}, 1),
    "a connection per request": ({"reuse_connection": False, "project_cache": None, "expect_continue": True}, 14),
}


@pytest.mark.parametrize("options, connections", ROUND_TRIPS.values(), ids=ROUND_TRIPS.keys())
def test_a_session_saves_round_trips_and_signs_out(server, options, connections):
    paths = [server.extract(f"r{i}.qrx", 1000) for i in range(3)]
    with server.session(**options) as s:
        for path in paths:
            s.publish(path, "Samples")
        signed_in = server.stats()["sessions"]
    stats = server.stats()
    assert signed_in == 1
    assert stats["sessions"] == 0
    assert stats["connections"] == connections


def test_cancel_stops_a_whole_batch(server):
    paths = [server.extract(f"c{i}.qrx", 4 << 20) for i in range(4)]
    with server.session() as s:
        with pytest.raises(orvane.BatchError) as raised:
            s.publish_many(paths, "Samples", jobs=2, progress=lambda path, sent, total: sent and s.cancel())
    assert {type(error) for _, error in raised.value.failures} == {orvane.Cancelled}
    assert len(raised.value.failures) == 4
    assert server.published() == {}


def cancel_from_another_thread(session):  # as a stop button would
    canceller = threading.Thread(target=session.cancel)
    canceller.start()
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
        sign_in_at(listener.getsockname()[1], stall_timeout=30)
    interrupter.join()


def test_a_library_not_found_is_a_library_error(tmp_path):
    script = ("import orvane\n"
              "try:\n"
              "    orvane.library_version()\n"
              "except orvane.LibraryError as e:\n"
              "    print(isinstance(e, OSError), e.code)\n")
    env = dict(os.environ, ORVANE_LIBRARY=str(tmp_path), PYTHONPATH=str(SOURCE / "python"))
    result = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True, text=True, timeout=60)
    assert result.stdout == "True 0\n"


# Run by the installed package, in an empty working directory: publishes, then
# shows which library files the process mapped and where the log went.
INSTALLED_SCRIPT = """
import json, sys, orvane
with orvane.Session(sys.argv[1], "demo", "demo-password") as s:
    result = s.publish(sys.argv[2], project="Samples", name="Q1", overwrite=True)
maps = open("/proc/self/maps").read().split()
print(json.dumps({"status": result.http_status, "log": orvane.log_path(),
                  "mapped": sorted({m for m in maps if "libOrvane" in m})}))
"""


def test_the_wheel_carries_its_library(server, tmp_path):
    venv = tmp_path / "venv"
    # This pip installs into the environment: installing pip there first would take most of the test's time.
    subprocess.run([sys.executable, "-m", "venv", "--without-pip", str(venv)], check=True, timeout=120)
    python = str(venv / "bin" / "python")
    build_dir = os.environ.get("ORVANE_BUILD_DIR", str(SOURCE / "build"))  # already built: the wheel compiles nothing
    subprocess.run([sys.executable, "-m", "pip", "--python", python, "install", "-q", "--no-index", "--no-cache-dir",
                    "--config-settings", f"build-dir={build_dir}", str(SOURCE / "python")], check=True, timeout=240)
    package = next(venv.glob("lib/python3*/site-packages/orvane"))
    wheel = next(venv.glob("lib/python3*/site-packages/orvane-*.dist-info/WHEEL")).read_text()
    empty = tmp_path / "empty"
    empty.mkdir()
    hidden = ("ORVANE_LIBRARY", "LD_LIBRARY_PATH", "PYTHONPATH", "ORV_SDK_LOGDIR")
    env = {k: v for k, v in os.environ.items() if k not in hidden}
    env["XDG_STATE_HOME"] = str(tmp_path / "state")
    shown = subprocess.run([python, "-c", INSTALLED_SCRIPT, server.url, str(server.extract("q.qrx", 1000))], cwd=empty,
                           env=env, capture_output=True, text=True, check=True, timeout=60).stdout
    assert f"Tag: py3-none-{sys.platform}_" in wheel
    assert json.loads(shown) == {"status": 201, "log": str(tmp_path / "state" / "orvane" / "OrvaneSDKServer.log"),
                                 "mapped": [str(package / "libOrvaneCommon.so.1"),
                                            str(package / "libOrvaneServer.so.1")]}
    assert (tmp_path / "state" / "orvane").stat().st_mode & 0o777 == 0o700
    assert list(empty.iterdir()) == []
    assert list(server.published()) == [("Samples", "Q1")]
