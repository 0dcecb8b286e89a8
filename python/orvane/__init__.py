"""Publish data-extract files (".qrx") to a data-publishing server.

    import orvane
    with orvane.Session("https://host", "alice", password, site="marketing") as s:
        result = s.publish("q1.qrx", project="Quarterly", name="Q1", overwrite=True,
                           progress=lambda sent, total: print(f"{sent}/{total}"))
        results = s.publish_many(["a.qrx", "b.qrx"], project="Quarterly", jobs=2)

Failures raise PublishError subclasses.
"""
from __future__ import annotations

import contextlib
import ctypes
import dataclasses
import functools
import os
import queue
import signal
import socket
import threading
import time
import weakref
from typing import Any, Callable, Dict, Iterable, Iterator, List, Optional, Tuple, Union

from . import _native
from ._errors import (AlreadyExists, BatchError, Cancelled, ConnectError, ExtractFileError, ExtractIsADirectory,
                      ExtractNotFound, ExtractNotUsable, Failure, LibraryError, ProjectNotFound, PublishError,
                      ServerError, SignInError, TimedOut, TlsError, TransferError, make_error)

__version__ = "1.2.0"
__all__ = ["Session", "PublishResult", "Failure", "PublishError", "LibraryError", "SignInError", "ProjectNotFound",
           "ExtractFileError", "ExtractNotFound", "ExtractIsADirectory", "ExtractNotUsable", "AlreadyExists",
           "TransferError", "ConnectError", "TlsError", "ServerError", "TimedOut", "Cancelled", "BatchError",
           "library_version", "log_path", "DEFAULT_MAX_REPLY_SIZE"]

Progress = Callable[[int, int], Any]
BatchProgress = Callable[[str, int, int], Any]
StrPath = Union[str, "os.PathLike[str]"]

# The server's replies are short documents; a reply beyond this is refused before it fills memory.
DEFAULT_MAX_REPLY_SIZE = 16 << 20
_REDIRECTS = {"follow": 0, "no-downgrade": 1, "same-origin": 2}
_SIGN_OUT_LIMIT = 10  # seconds close() may spend signing out


@dataclasses.dataclass(frozen=True)
class PublishResult:
    """What one successful publish did.

    ``name`` is the data source's name on the server, ``project`` its project,
    ``path`` the extract, ``bytes`` the extract's size, ``seconds`` how long
    the publish took and ``http_status`` the status of the server's answer."""

    path: str
    name: str
    project: str
    bytes: int
    seconds: float
    http_status: int


def library_version() -> str:
    """The loaded libOrvaneServer's version, "MAJOR.MINOR.PATCH"."""
    version: bytes = _native.library().OrvServerAPIGetVersion()
    return version.decode()


def log_path() -> Optional[str]:
    """The library's log file, once a Session has started the library (None
    before, or when no log could be opened)."""
    path: Optional[bytes] = _native.library().OrvServerAPIGetLogPath()
    return None if path is None else os.fsdecode(path)


def _text(path: Union[StrPath, bytes], what: str = "path") -> str:
    if not isinstance(path, (str, bytes, os.PathLike)):
        raise TypeError(f"{what} must be a str or os.PathLike, not {type(path).__name__}")
    return os.fsdecode(os.fspath(path))


def _string(value: Any, what: str) -> str:
    if not isinstance(value, str):
        raise TypeError(f"{what} must be a str, not {type(value).__name__}")
    return value


def _whole(value: Any, what: str) -> Optional[int]:
    if value is None:
        return None
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{what} must be an int, not {type(value).__name__}")
    if value < 0:
        raise ValueError(f"{what} must not be negative, got {value}")
    return value


def _data_source_name(path: str) -> str:
    base = os.path.basename(path)
    return base[:-4] if base.endswith(".qrx") else base


class Session:
    """One signed-in connection to a server: one library handle.

    Signs in on creation. Use a session from one thread at a time (open one per
    thread to publish in parallel, or use ``publish_many``); ``cancel()`` may be
    called from any thread. ``close()`` (or leaving the ``with`` block) signs out.
    """

    def __init__(self, server: str, user: str, password: str, site: str = "", *,
                 connect_timeout: Optional[int] = None, stall_timeout: Optional[int] = None,
                 reply_timeout: Optional[int] = None, total_timeout: Optional[int] = None,
                 ca_file: Optional[StrPath] = None, proxy_user: Optional[str] = None, proxy_password: str = "",
                 max_redirects: Optional[int] = None, redirects: str = "same-origin",
                 max_reply_size: Optional[int] = DEFAULT_MAX_REPLY_SIZE, upload_buffer_size: Optional[int] = None,
                 reuse_connection: bool = True, project_cache: Optional[int] = 300,
                 expect_continue: bool = False) -> None:
        """Opens a session on ``server`` (an http or https URL) and signs in as
        ``user`` to ``site`` ("" for the default site).

        Time limits are whole seconds, None (or 0) for none:
        ``connect_timeout`` for a connection to be made, ``stall_timeout`` for
        an exchange where no byte moves, ``reply_timeout`` for the server's
        answer once an upload is fully sent, ``total_timeout`` for a call as a
        whole. ``ca_file`` is a PEM bundle or a hashed certificate directory;
        the proxy credentials answer the system proxy. ``redirects`` is
        "same-origin" (the default: never to another scheme, host or port),
        "no-downgrade" (never from https to http) or "follow";
        ``max_redirects`` bounds how many. ``max_reply_size`` refuses longer
        server replies (None: no limit). ``reuse_connection`` keeps one
        connection for all requests, ``project_cache`` remembers a project's
        id for that many seconds (None: look it up on every publish), and
        ``expect_continue`` waits for the server's go-ahead before each
        upload body; the defaults save round trips.

        Raises TypeError or ValueError for unusable arguments, LibraryError when
        the library cannot be loaded or started, and PublishError subclasses
        when the sign-in fails.
        """
        # First, while the parameters are the only locals: publish_many opens more sessions like this one.
        self._arguments: Dict[str, Any] = {name: value for name, value in locals().items() if name != "self"}
        u = _native.utf16
        texts = [u(_string(value, what)) for value, what in
                 ((server, "server"), (user, "user"), (password, "password"), (site, "site"))]
        limits = {name: _whole(value, name) for name, value in
                  (("connect_timeout", connect_timeout), ("stall_timeout", stall_timeout),
                   ("reply_timeout", reply_timeout), ("total_timeout", total_timeout))}
        if redirects not in _REDIRECTS:
            raise ValueError(f"redirects must be one of {', '.join(map(repr, _REDIRECTS))}, got {redirects!r}")
        calls: List[Tuple[Any, ...]] = [("EnableCancel",)]
        for name, value in (("SetConnectTimeout", limits["connect_timeout"]),
                            ("SetStallTimeout", limits["stall_timeout"]),
                            ("SetReplyTimeout", limits["reply_timeout"]),
                            ("SetTotalTimeout", limits["total_timeout"]),
                            ("SetMaxRedirects", _whole(max_redirects, "max_redirects")),
                            ("SetMaxReplySize", _whole(max_reply_size, "max_reply_size")),
                            ("SetUploadBufferSize", _whole(upload_buffer_size, "upload_buffer_size")),
                            ("SetProjectCache", _whole(project_cache, "project_cache"))):
            if value is not None:
                calls.append((name, value))
        calls.append(("SetRedirectPolicy", _REDIRECTS[redirects]))
        calls.append(("SetConnectionReuse", int(bool(reuse_connection))))
        calls.append(("SetExpectContinue", int(bool(expect_continue))))
        if ca_file is not None:
            calls.append(("SetCACertificates", u(_text(ca_file, "ca_file"))))
        if proxy_user is not None:
            calls.append(("SetProxyCredentials", u(_string(proxy_user, "proxy_user")),
                          u(_string(proxy_password, "proxy_password"))))
        self._limits = limits
        self._lib = _native.start()
        self._busy = threading.Lock()  # held for the length of a call; close() waits for it
        self._owner: Optional[int] = None
        self._handle_lock = threading.Lock()  # keeps cancel() from racing close()
        self._interrupted = False
        self._cancel_requested = False
        self._signed_in = False
        self._helpers: List[Session] = []  # the other sessions of a running publish_many
        self._batch_stopped = threading.Event()
        handle = ctypes.c_void_p()
        self._handle: Optional[int] = None
        self._check(self._lib.OrvServerConnectionCreate(ctypes.byref(handle)))
        self._handle = handle.value or 0
        _native.register(self._handle)
        self._finalizer = weakref.finalize(self, _native.close, self._handle)
        self._finalizer.atexit = False  # the library's own exit hook closes what is left
        try:
            for name, *args in calls:
                self._check(getattr(self._lib, "OrvServerConnection" + name)(self._handle, *args))
            self._call(self._lib.OrvServerConnectionConnect, *texts)
            self._signed_in = True
        except BaseException:
            self.close()
            raise

    def publish(self, path: Union[StrPath, bytes], project: str, name: Optional[str] = None, *,
                overwrite: bool = False, progress: Optional[Progress] = None) -> PublishResult:
        """Uploads the extract at ``path`` into ``project`` as data source ``name``
        (default: the file name without ".qrx"); returns when the server has it,
        with a PublishResult.

        ``progress(sent, total)`` is called on this thread: first with 0, then
        about every 64 KiB, last with sent == total (the whole request body).
        Should it raise, the upload stops and the exception is raised here.
        Ctrl-C (on the main thread) stops the publish and raises KeyboardInterrupt.
        """
        text = _text(path)
        _string(project, "project")
        if name is None:
            name = _data_source_name(text)
        _string(name, "name")
        if progress is not None and not callable(progress):
            raise TypeError(f"progress must be callable, not {type(progress).__name__}")
        try:
            size = os.stat(text).st_size
        except (OSError, ValueError):
            size = 0  # the library reports what is wrong with the path
        u = _native.utf16
        started = time.monotonic()
        status = self._call(self._lib.OrvServerConnectionPublishExtract, u(text), u(project), u(name),
                            int(bool(overwrite)), progress=progress, extract=text)
        return PublishResult(text, name, project, size, time.monotonic() - started, status)

    def publish_many(self, paths: Iterable[Union[StrPath, bytes]], project: str, *, overwrite: bool = False,
                     jobs: int = 4, progress: Optional[BatchProgress] = None,
                     raise_on_error: bool = True) -> List[Any]:
        """Publishes every extract of ``paths`` into ``project`` (each under its
        file name without ".qrx") on up to ``jobs`` sessions at once: this one
        and more signed in like it (one that cannot sign in leaves its share to
        the others), signed out at the end.

        Returns a PublishResult per path, in order. When some fail, raises one
        BatchError that lists them (its ``results`` hold the rest), or, with
        ``raise_on_error=False``, returns the exception in that path's place.
        Two paths with the same file name would overwrite each other on the
        server: that is a ValueError, raised before anything is sent.
        ``progress(path, sent, total)`` is called on the publishing threads.
        ``cancel()`` on this session stops the whole batch.
        """
        texts = [_text(path) for path in paths]
        _string(project, "project")
        workers = _whole(jobs, "jobs")
        if not workers:
            raise ValueError("jobs must be at least 1")
        seen: Dict[str, str] = {}
        for text in texts:
            name = _data_source_name(text)
            if name in seen:
                raise ValueError(f'{seen[name]} and {text} would both be published as "{name}"')
            seen[name] = text
        results: List[Any] = [None] * len(texts)
        pending: "queue.SimpleQueue[int]" = queue.SimpleQueue()
        for index in range(len(texts)):
            pending.put(index)
        self._batch_stopped.clear()

        def work(session: Optional[Session]) -> None:
            if session is None:
                try:
                    session = Session(**self._arguments)
                except PublishError:
                    return  # the batch goes on with the sessions it has
                with self._handle_lock:
                    self._helpers.append(session)
            try:
                while not self._batch_stopped.is_set():
                    try:
                        index = pending.get_nowait()
                    except queue.Empty:
                        return
                    path = texts[index]
                    report = None if progress is None else functools.partial(progress, path)
                    try:
                        results[index] = session.publish(path, project, overwrite=overwrite, progress=report)
                    except Exception as error:
                        results[index] = error
            finally:
                if session is not self:
                    session.close()

        threads = [threading.Thread(target=work, args=(self if i == 0 else None,), name=f"orvane-publish-{i}")
                   for i in range(min(workers, len(texts)))]
        for thread in threads:
            thread.start()
        try:
            for thread in threads:
                thread.join()
        except BaseException:  # Ctrl-C while waiting: stop the batch, then let the interrupt through
            self.cancel()
            for thread in threads:
                thread.join()
            raise
        finally:
            with self._handle_lock:
                self._helpers = []
        for index, result in enumerate(results):
            if result is None:  # never started: the batch was cancelled first
                results[index] = Cancelled(500, "Cancelled", failure=Failure.CANCELLED)
        failures = [(path, result) for path, result in zip(texts, results) if isinstance(result, BaseException)]
        if failures and raise_on_error:
            raise BatchError(results, failures)
        return results

    def cancel(self) -> None:
        """Stops the call running on this session (from another thread, or from
        its progress callback); it raises Cancelled. Made while no call runs, it
        stops the next one at its start. During publish_many it stops the batch."""
        self._batch_stopped.set()
        with self._handle_lock:
            helpers = list(self._helpers)
        for helper in helpers:
            helper.cancel()
        if self._owner == threading.get_ident():  # the callback must not call into the library
            self._cancel_requested = True
            return
        with self._handle_lock:
            if self._handle is not None:
                self._lib.OrvServerConnectionCancel(self._handle)

    def close(self) -> None:
        """Signs out, then frees the handle, once a running call has returned.
        A sign-out that fails (the server gone) is not raised: the handle is
        freed all the same."""
        if self._owner == threading.get_ident():
            raise RuntimeError("a Session cannot be closed from inside its own call")
        with self._busy:
            if self._signed_in and self._handle is not None:
                self._signed_in = False
                self._lib.OrvServerConnectionSetTotalTimeout(self._handle, _SIGN_OUT_LIMIT)
                self._lib.OrvServerConnectionSignOut(self._handle)
            with self._handle_lock:
                self._handle = None
                if hasattr(self, "_finalizer"):
                    self._finalizer()

    def __enter__(self) -> "Session":
        """The session itself, closed (and signed out) when the block ends."""
        return self

    def __exit__(self, *exc: object) -> None:
        """Closes the session, whether the block raised or not."""
        self.close()

    def _check(self, code: int) -> None:
        error = self._error(code, None)
        if error is not None:
            raise error

    def _failure(self) -> Tuple[Failure, bool]:
        """The kind of the handle's failed call and whether it is worth another try."""
        kind = ctypes.c_int(int(Failure.OTHER))
        if self._handle is not None:
            self._lib.OrvServerConnectionGetFailure(self._handle, ctypes.byref(kind), None)
        failure = Failure(kind.value) if kind.value in Failure._value2member_map_ else Failure.OTHER
        return failure, bool(self._lib.OrvFailureIsTransient(failure))

    def _error(self, code: int, extract: Optional[str]) -> Optional[PublishError]:
        """The exception for a result code, from this thread's last error and the handle's last call."""
        if code == 0:
            return None
        message = self._lib.OrvGetLastErrorMessage() or ""
        status = ctypes.c_long(0)
        reason = ctypes.c_wchar_p()
        if self._handle is not None:
            self._lib.OrvServerConnectionGetHttpStatus(self._handle, ctypes.byref(status))
            self._lib.OrvServerConnectionGetServerReason(self._handle, ctypes.byref(reason))
        failure, transient = self._failure()
        return make_error(code, message, status.value, reason.value or "", failure, transient, extract, self._limits)

    def _call(self, function: Callable[..., int], *args: Any, progress: Optional[Progress] = None,
              extract: Optional[str] = None) -> int:
        """Runs one library call on the handle; returns the HTTP status of its last reply."""
        if not self._busy.acquire(blocking=False):
            raise RuntimeError("this Session is in use by another call")
        try:
            if self._handle is None:
                raise ValueError("the Session is closed")
            failure: List[BaseException] = []
            self._cancel_requested = False

            def on_progress(_: Any, sent: int, total: int) -> int:
                if self._interrupted or failure:
                    return 1
                try:
                    if progress is not None:
                        progress(sent, total)
                except BaseException as e:  # the library must see a return value, never an exception
                    failure.append(e)
                    return 1
                return int(self._interrupted or self._cancel_requested)

            callback = _native.PROGRESS(on_progress)
            self._check(self._lib.OrvServerConnectionSetProgressCallback(self._handle, callback, None))
            status = ctypes.c_long(0)
            try:
                self._owner = threading.get_ident()
                with self._ctrl_c():
                    code = function(self._handle, *args)
                error = self._error(code, extract)  # before another call on the handle
                self._lib.OrvServerConnectionGetHttpStatus(self._handle, ctypes.byref(status))
            finally:
                self._lib.OrvServerConnectionSetProgressCallback(self._handle, _native.PROGRESS(0), None)
                self._owner = None
            if failure:
                raise failure[0]
            if error is not None:
                raise error
            return status.value
        finally:
            self._busy.release()

    @contextlib.contextmanager
    def _ctrl_c(self) -> Iterator[None]:
        """On the main thread, turns SIGINT during the call into a cancel, then
        hands it to the previous handler (KeyboardInterrupt by default) once the
        call has returned.

        Inside a progress callback the handler runs at once and the callback
        stops the upload. Elsewhere (signing in, finding the project, waiting
        for the reply) the main thread runs no Python, so a watcher thread,
        woken through the signal wakeup fd, cancels instead. It leaves a signal
        the callback has already seen alone: a cancel reaching the handle after
        its call ended would stop the next call."""
        self._interrupted = False
        previous = signal.getsignal(signal.SIGINT) if threading.current_thread() is threading.main_thread() else None
        if not callable(previous):
            yield
            return
        reader, writer = socket.socketpair()
        writer.setblocking(False)
        running = [True]
        running_lock = threading.Lock()

        def on_sigint(signum: int, frame: Any) -> None:
            self._interrupted = True

        def watch() -> None:
            while True:
                data = reader.recv(64)
                if not data:
                    return
                with running_lock:
                    if signal.SIGINT in data and running[0] and not self._interrupted:
                        self._lib.OrvServerConnectionCancel(self._handle)
                    self._interrupted = self._interrupted or signal.SIGINT in data

        watcher = threading.Thread(target=watch, name="orvane-ctrl-c", daemon=True)
        watcher.start()
        signal.signal(signal.SIGINT, on_sigint)
        previous_fd = signal.set_wakeup_fd(writer.fileno(), warn_on_full_buffer=False)
        try:
            yield
        finally:
            with running_lock:
                running[0] = False
            signal.set_wakeup_fd(previous_fd)
            signal.signal(signal.SIGINT, previous)
            writer.close()
            watcher.join()
            reader.close()
        if self._interrupted:
            previous(signal.SIGINT, None)
