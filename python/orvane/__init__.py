"""Publish data-extract files (".qrx") to a data-publishing server.

    import orvane
    with orvane.Session("https://host", "alice", password, site="marketing") as s:
        s.publish("q1.qrx", project="Quarterly", name="Q1", overwrite=True,
                  progress=lambda sent, total: print(f"{sent}/{total}"))

Failures raise PublishError subclasses.
"""
from __future__ import annotations

import contextlib
import ctypes
import os
import signal
import socket
import threading
import weakref
from typing import Any, Callable, Iterator, List, Optional, Tuple, Type, Union

from . import _native

__version__ = "1.2.0"
__all__ = ["Session", "PublishError", "SignInError", "ProjectNotFound", "ExtractFileError", "AlreadyExists",
           "TransferError", "ServerError", "TimedOut", "Cancelled", "library_version"]

Progress = Callable[[int, int], Any]
StrPath = Union[str, "os.PathLike[str]"]


class PublishError(Exception):
    """A library call failed.

    ``code`` is the library's result code and ``message`` its text;
    ``http_status`` is the status of the last reply the server sent during the
    call (0 if none) and ``reason`` the server's own explanation of a refusal
    ("" if the server refused nothing).
    """

    def __init__(self, code: int, message: str, http_status: int = 0, reason: str = "") -> None:
        self.code, self.message, self.http_status, self.reason = code, message, http_status, reason
        text = f"{message or 'failed'} [code {code}]"
        super().__init__(text + (f"; HTTP {http_status}: {reason}" if reason else ""))

    def __reduce__(self) -> Tuple[Any, ...]:  # so that errors cross process pools
        return type(self), (self.code, self.message, self.http_status, self.reason)


class SignInError(PublishError):
    """The server refused the sign-in: user name, password or site."""


class ProjectNotFound(PublishError):
    """The site has no project of that name."""


class ExtractFileError(PublishError):
    """The extract does not exist or its name does not end in ".qrx"."""


class AlreadyExists(PublishError):
    """A data source of that name exists; publish with overwrite=True to replace it."""


class TransferError(PublishError):
    """The exchange failed: connecting, TLS, proxy, too many redirects, an oversized reply."""


class ServerError(PublishError):
    """The server refused a request, or its reply was not what the library expects."""


class TimedOut(PublishError):
    """The connect or stall time limit of the session ran out."""


class Cancelled(PublishError):
    """Session.cancel() stopped the call."""


def _error_class(code: int, message: str, status: int, signing_in: bool) -> Type[PublishError]:
    # 500/501 come from the extensions, 300-404 from the session layer.
    if code in (500, 501, 400):
        return {500: Cancelled, 501: TimedOut, 400: TransferError}[code]
    if code == 303:
        return ProjectNotFound if message.startswith('Project "') else ExtractFileError
    if code == 401 and status == 409:
        return AlreadyExists
    if code == 401 and signing_in and status in (401, 403):
        return SignInError
    return ServerError if code in (300, 401, 403) else PublishError


def library_version() -> str:
    """The loaded libOrvaneServer's version, "MAJOR.MINOR.PATCH"."""
    version: bytes = _native.library().OrvServerAPIGetVersion()
    return version.decode()


def _text(path: Union[StrPath, bytes]) -> str:
    return os.fsdecode(os.fspath(path))


class Session:
    """One signed-in connection to a server: one library handle.

    Signs in on creation. Use a session from one thread at a time (open one per
    thread to publish in parallel); ``cancel()`` may be called from any thread.
    Time limits are whole seconds; ``ca_file`` is a PEM bundle or a hashed
    certificate directory; the proxy credentials answer the system proxy.
    """

    def __init__(self, server: str, user: str, password: str, site: str = "", *,
                 connect_timeout: Optional[int] = None, stall_timeout: Optional[int] = None,
                 ca_file: Optional[StrPath] = None, proxy_user: Optional[str] = None, proxy_password: str = "",
                 max_redirects: Optional[int] = None, max_reply_size: Optional[int] = None,
                 upload_buffer_size: Optional[int] = None) -> None:
        self._lib = _native.start()
        self._busy = threading.Lock()  # held for the length of a call; close() waits for it
        self._owner: Optional[int] = None
        self._handle_lock = threading.Lock()  # keeps cancel() from racing close()
        self._interrupted = self._cancel_requested = False
        handle = ctypes.c_void_p()
        self._handle: Optional[int] = None
        self._check(self._lib.OrvServerConnectionCreate(ctypes.byref(handle)))
        self._handle = handle.value or 0
        _native.register(self._handle)
        self._finalizer = weakref.finalize(self, _native.close, self._handle)
        self._finalizer.atexit = False  # the library's own exit hook closes what is left
        try:
            calls: List[Tuple[Any, ...]] = [("EnableCancel",)]
            for name, value in (("SetConnectTimeout", connect_timeout), ("SetStallTimeout", stall_timeout),
                                ("SetMaxRedirects", max_redirects), ("SetMaxReplySize", max_reply_size),
                                ("SetUploadBufferSize", upload_buffer_size)):
                if value is not None:
                    calls.append((name, int(value)))
            if ca_file is not None:
                calls.append(("SetCACertificates", _native.utf16(_text(ca_file))))
            if proxy_user is not None:
                calls.append(("SetProxyCredentials", _native.utf16(proxy_user), _native.utf16(proxy_password)))
            for name, *args in calls:
                self._check(getattr(self._lib, "OrvServerConnection" + name)(self._handle, *args))
            u = _native.utf16
            self._call(self._lib.OrvServerConnectionConnect, u(server), u(user), u(password), u(site), signing_in=True)
        except BaseException:
            self.close()
            raise

    def publish(self, path: Union[StrPath, bytes], project: str, name: Optional[str] = None, *,
                overwrite: bool = False, progress: Optional[Progress] = None) -> None:
        """Uploads the extract at ``path`` into ``project`` as data source ``name``
        (default: the file name without ".qrx"); returns when the server has it.

        ``progress(sent, total)`` is called on this thread: first with 0, then
        about every 64 KiB, last with sent == total (the whole request body).
        Should it raise, the upload stops and the exception is raised here.
        Ctrl-C (on the main thread) stops the publish and raises KeyboardInterrupt.
        """
        text = _text(path)
        if name is None:
            name = os.path.basename(text)[:-4] if text.endswith(".qrx") else os.path.basename(text)
        u = _native.utf16
        self._call(self._lib.OrvServerConnectionPublishExtract, u(text), u(project), u(name), int(bool(overwrite)),
                   progress=progress)

    def cancel(self) -> None:
        """Stops the call running on this session (from another thread, or from
        its progress callback); it raises Cancelled. Made while no call runs, it
        stops the next one at its start."""
        if self._owner == threading.get_ident():  # the callback must not call into the library
            self._cancel_requested = True
            return
        with self._handle_lock:
            if self._handle is not None:
                self._lib.OrvServerConnectionCancel(self._handle)

    def close(self) -> None:
        """Forgets the sign-in and frees the handle, once a running call has returned."""
        if self._owner == threading.get_ident():
            raise RuntimeError("a Session cannot be closed from inside its own call")
        with self._busy, self._handle_lock:
            self._handle = None
            if hasattr(self, "_finalizer"):
                self._finalizer()

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def _check(self, code: int, signing_in: bool = False) -> None:
        error = self._error(code, signing_in)
        if error is not None:
            raise error

    def _error(self, code: int, signing_in: bool) -> Optional[PublishError]:
        """The exception for a result code, from this thread's last error and the handle's last reply."""
        if code == 0:
            return None
        message = self._lib.OrvGetLastErrorMessage() or ""
        status, reason = ctypes.c_long(0), ctypes.c_wchar_p()
        if self._handle is not None:
            self._lib.OrvServerConnectionGetHttpStatus(self._handle, ctypes.byref(status))
            self._lib.OrvServerConnectionGetServerReason(self._handle, ctypes.byref(reason))
        cls = _error_class(code, message, status.value, signing_in)
        return cls(code, message, status.value, reason.value or "")

    def _call(self, function: Callable[..., int], *args: Any, signing_in: bool = False,
              progress: Optional[Progress] = None) -> None:
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
            try:
                self._owner = threading.get_ident()
                with self._ctrl_c():
                    code = function(self._handle, *args)
                error = self._error(code, signing_in)  # before another call on the handle
            finally:
                self._lib.OrvServerConnectionSetProgressCallback(self._handle, _native.PROGRESS(0), None)
                self._owner = None
            if failure:
                raise failure[0]
            if error is not None:
                raise error
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
        running, running_lock = [True], threading.Lock()

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
