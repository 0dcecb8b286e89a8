"""The orvane package against the reference server, through the real library."""
import os
import signal
import socket
import subprocess
import sys
import threading

import pytest
from conftest import SOURCE, digest

import orvane


def test_publish_stores_the_bytes_and_reports_progress(server):
    first, second = server.extract("q1.qrx", 300_000), server.extract("q1-new.qrx", 70_000)
    calls = []
    with server.session() as s:
        s.publish(first, "Samples", progress=lambda sent, total: calls.append((sent, total)))
        s.publish(first, project="Samples", name="Quartal ü 1")
        s.publish(second, project="Samples", name="q1", overwrite=True)
    assert server.published() == {("Samples", "q1"): digest(second), ("Samples", "Quartal ü 1"): digest(first)}
    total = calls[-1][1]
    # From 0 to the whole body (the file and the multipart envelope), in steps of at most 64 KiB.
    assert calls[0] == (0, total) and calls[-1] == (total, total) and 300_000 < total < 302_000
    assert {t for _, t in calls} == {total} and len(calls) == 2 + 300_000 // 65536
    assert all(0 < b - a <= 65536 for (a, _), (b, _) in zip(calls, calls[1:]))


def closed_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def publish_twice(server):
    path = server.extract("twice.qrx", 1000)
    with server.session() as s:
        s.publish(path, "Samples")
        s.publish(path, "Samples")


def publish(server, path, project="Samples"):
    with server.session() as s:
        s.publish(path, project)


FAILURES = {  # situation: (action, class, code, HTTP status, text in str(error))
    "password refused": (lambda srv: orvane.Session(srv.url, "demo", "wrong"), orvane.SignInError, 401, 401,
                         "Signin Error: Wrong user name, password or site."),
    "no such project": (lambda srv: publish(srv, srv.extract("a.qrx", 10), "Nowhere"), orvane.ProjectNotFound,
                        303, 200, 'Project "Nowhere" doesn\'t exist on server'),
    "not an extract": (lambda srv: publish(srv, srv.extract("a.csv", 10)), orvane.ExtractFileError, 303, 0,
                       "a.csv\" is either invalid or doesn't exist"),
    "name taken": (publish_twice, orvane.AlreadyExists, 401, 409, 'named "twice" already exists'),
    "nothing listening": (lambda srv: orvane.Session(f"http://127.0.0.1:{closed_port()}", "demo", "pw"),
                          orvane.TransferError, 400, 0, "connect"),
    "reply too large": (lambda srv: srv.session(max_reply_size=10), orvane.TransferError, 400, 0, "limit of 10"),
    "server silent": (lambda srv: orvane.Session(f"http://127.0.0.1:{srv.silent().getsockname()[1]}", "demo", "pw",
                                                 stall_timeout=1), orvane.TimedOut, 501, 0, ""),
    "not the API": (lambda srv: orvane.Session(srv.url + "/elsewhere", "demo", "pw"), orvane.ServerError, 401, 404,
                    "Not Found"),
    "bad option": (lambda srv: srv.session(upload_buffer_size=1), orvane.PublishError, 1, 0, "Invalid argument"),
}


@pytest.mark.parametrize("case", FAILURES.values(), ids=FAILURES.keys())
def test_each_failure_raises_its_class(server, case):
    action, cls, code, status, text = case
    with pytest.raises(orvane.PublishError) as raised:
        action(server)
    assert (type(raised.value), raised.value.code, raised.value.http_status) == (cls, code, status)
    assert text in str(raised.value)


def test_cancel_from_another_thread_stops_the_upload(server):
    path = server.extract("big.qrx", 4 << 20)
    with server.session() as s:
        def progress(sent, total):
            if sent == 0:  # as a stop button on another thread would, while the upload runs
                canceller = threading.Thread(target=s.cancel)
                canceller.start()
                canceller.join()
        with pytest.raises(orvane.Cancelled, match="Cancelled"):
            s.publish(path, "Samples", progress=progress)
        s.publish(path, "Samples", "after")  # the session stays usable
    assert list(server.published()) == [("Samples", "after")]


def test_ctrl_c_during_the_upload_cancels_it(server):
    path = server.extract("big.qrx", 4 << 20)
    with server.session() as s:
        with pytest.raises(KeyboardInterrupt):
            s.publish(path, "Samples", progress=lambda sent, total: sent or os.kill(os.getpid(), signal.SIGINT))
        s.publish(path, "Samples", "after")
    assert list(server.published()) == [("Samples", "after")]
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler


def test_ctrl_c_while_the_server_is_silent_cancels_the_wait(server):
    listener = server.silent()

    def interrupt_once_asked():  # runs while the main thread waits in the library: the GIL is free
        connection, _ = listener.accept()
        with connection:
            connection.recv(1)
            os.kill(os.getpid(), signal.SIGINT)

    interrupter = threading.Thread(target=interrupt_once_asked)
    interrupter.start()
    with pytest.raises(KeyboardInterrupt):  # not TimedOut: the cancel came first
        orvane.Session(f"http://127.0.0.1:{listener.getsockname()[1]}", "demo", "pw", stall_timeout=30)
    interrupter.join()


def test_four_threads_publish_at_once(server):
    paths = [server.extract(f"t{i}.qrx", 1 << 20) for i in range(4)]
    in_flight = threading.Barrier(4, timeout=60)
    errors = []

    def publish_one(path):
        try:
            with server.session() as s:
                # Every upload waits mid-body until all four are under way.
                s.publish(path, "Samples", progress=lambda sent, total: sent == 65536 and in_flight.wait())
        except BaseException as e:
            errors.append(e)

    threads = [threading.Thread(target=publish_one, args=(p,)) for p in paths]
    for t in threads:
        t.start()
    for t in threads:
        t.join(120)
    assert errors == [] and not any(t.is_alive() for t in threads)
    assert server.published() == {("Samples", f"t{i}"): digest(p) for i, p in enumerate(paths)}


def test_pip_installs_offline_and_finds_the_library_in_the_prefix(tmp_path):
    venv = tmp_path / "venv"
    subprocess.run([sys.executable, "-m", "venv", str(venv)], check=True, timeout=120)
    python = str(venv / "bin" / "python")
    subprocess.run([python, "-m", "pip", "install", "-q", "--no-index", "--no-cache-dir", str(SOURCE / "python")],
                   check=True, timeout=120)
    library = os.environ["ORVANE_LIBRARY"]
    os.symlink(library, venv / "lib" / "libOrvaneServer.so.1")
    env = {k: v for k, v in os.environ.items() if k not in ("ORVANE_LIBRARY", "PYTHONPATH")}
    shown = subprocess.run([python, "-c", "import orvane; print(orvane.__file__, orvane.library_version(), "
                            "orvane._native.library()._name)"], cwd=tmp_path, env=env, capture_output=True,
                           text=True, check=True, timeout=60).stdout.split()
    assert shown == [str(venv / "lib" / f"python{sys.version_info[0]}.{sys.version_info[1]}" / "site-packages" /
                         "orvane" / "__init__.py"), "1.1.0", str(venv / "lib" / "libOrvaneServer.so.1")]
