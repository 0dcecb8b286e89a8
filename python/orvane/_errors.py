"""The exceptions of the orvane package, and the failure kinds they come from."""
from __future__ import annotations

import enum
import errno
import os
from typing import Any, Dict, Optional, Sequence, Tuple, Type


class Failure(enum.IntEnum):
    """What kind of failure ended a library call (the library's ORV_FAILURE)."""

    NONE = 0
    SIGN_IN_REFUSED = 1
    PROJECT_NOT_FOUND = 2
    EXTRACT_UNUSABLE = 3
    ALREADY_EXISTS = 4
    REFUSED = 5
    SERVER_ERROR = 6
    REPLY_UNREADABLE = 7
    RESOLVE = 8
    CONNECT = 9
    TLS = 10
    PROXY = 11
    CONNECTION_LOST = 12
    TOO_MANY_REDIRECTS = 13
    REDIRECT_REFUSED = 14
    REPLY_TOO_LARGE = 15
    CONNECT_TIMEOUT = 16
    STALL_TIMEOUT = 17
    REPLY_TIMEOUT = 18
    TOTAL_TIMEOUT = 19
    CANCELLED = 20
    OTHER = 21


class PublishError(Exception):
    """A library call failed.

    ``code`` is the library's result code and ``message`` its text;
    ``http_status`` is the status of the last reply the server sent during the
    call (0 if none) and ``reason`` the server's own explanation of a refusal
    ("" if the server refused nothing). ``failure`` is the kind of failure and
    ``transient`` whether another try may succeed. ``str(error)`` is one line
    for a person: what happened and, where one helps, what to do.
    """

    def __init__(self, code: int, message: str, http_status: int = 0, reason: str = "",
                 failure: Failure = Failure.OTHER, transient: bool = False, hint: str = "") -> None:
        self.code = code
        self.message = message
        self.http_status = http_status
        self.reason = reason
        self.failure = Failure(failure)
        self.transient = transient
        self.hint = hint
        super().__init__(self._line())

    def _line(self) -> str:
        if self.reason:  # the server's own words say more than the library's "Server Response Code"
            if self.failure == Failure.SIGN_IN_REFUSED:
                what = "sign-in refused"
            elif self.http_status >= 500:
                what = "the server failed"
            else:
                what = "refused by the server"
            text = f"{what} (HTTP {self.http_status}): {self.reason}"
        else:
            text = self.message or f"failed (code {self.code})"
        if not self.hint:
            return text
        return f"{text}{' ' if text.endswith('.') else '. '}{self.hint}."

    def __str__(self) -> str:
        return self._line()

    def __reduce__(self) -> Tuple[Any, ...]:  # so that errors cross process pools
        return type(self), (self.code, self.message, self.http_status, self.reason, self.failure, self.transient,
                            self.hint)


class LibraryError(PublishError, OSError):
    """libOrvaneServer could not be found, loaded or started."""


class SignInError(PublishError):
    """The server refused the sign-in: user name, password or site."""


class ProjectNotFound(PublishError):
    """The site has no project of that name."""


class ExtractFileError(PublishError):
    """The extract cannot be published: missing, not a regular file, not named ".qrx", unreadable.

    Raised as one of its subclasses, which are also the matching built-in
    errors (FileNotFoundError, IsADirectoryError, ValueError); ``path`` is the
    extract's path."""

    path = ""


class ExtractNotFound(ExtractFileError, FileNotFoundError):
    """There is no file at the extract's path."""


class ExtractIsADirectory(ExtractFileError, IsADirectoryError):
    """The extract's path names a directory."""


class ExtractNotUsable(ExtractFileError, ValueError):
    """The extract is not a readable regular file named ".qrx"."""


class AlreadyExists(PublishError):
    """A data source of that name exists; publish with overwrite=True to replace it."""


class ServerError(PublishError):
    """The server refused a request, failed, or sent a reply the library cannot read."""


class TransferError(PublishError):
    """The exchange failed: name lookup, proxy, lost connection, redirects, an oversized reply."""


class ConnectError(TransferError):
    """No connection to the server or the proxy (also a name that does not resolve)."""


class TlsError(TransferError):
    """The TLS handshake or the server's certificate check failed."""


class TimedOut(PublishError, TimeoutError):
    """A time limit of the session ran out; ``failure`` says which one."""


class Cancelled(PublishError):
    """Session.cancel() stopped the call."""


class BatchError(PublishError):
    """Some extracts of a Session.publish_many batch failed.

    ``results`` has one entry per path, in order: a PublishResult or the
    exception that path raised; ``failures`` lists (path, exception) of the
    failed ones."""

    def __init__(self, results: Sequence[Any], failures: Sequence[Tuple[str, BaseException]]) -> None:
        self.results = list(results)
        self.failures = list(failures)
        lines = [f"{len(self.failures)} of {len(self.results)} extracts failed"]
        lines += [f"{path}: {error}" for path, error in self.failures]
        super().__init__(0, "\n".join(lines))

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (self.results, self.failures)


_BY_KIND: Dict[Failure, Type[PublishError]] = {
    Failure.SIGN_IN_REFUSED: SignInError,
    Failure.PROJECT_NOT_FOUND: ProjectNotFound,
    Failure.ALREADY_EXISTS: AlreadyExists,
    Failure.REFUSED: ServerError,
    Failure.SERVER_ERROR: ServerError,
    Failure.REPLY_UNREADABLE: ServerError,
    Failure.RESOLVE: ConnectError,
    Failure.CONNECT: ConnectError,
    Failure.TLS: TlsError,
    Failure.PROXY: TransferError,
    Failure.CONNECTION_LOST: TransferError,
    Failure.TOO_MANY_REDIRECTS: TransferError,
    Failure.REDIRECT_REFUSED: TransferError,
    Failure.REPLY_TOO_LARGE: TransferError,
    Failure.CONNECT_TIMEOUT: TimedOut,
    Failure.STALL_TIMEOUT: TimedOut,
    Failure.REPLY_TIMEOUT: TimedOut,
    Failure.TOTAL_TIMEOUT: TimedOut,
    Failure.CANCELLED: Cancelled,
}

_LIMITS = {
    Failure.CONNECT_TIMEOUT: "connect_timeout",
    Failure.STALL_TIMEOUT: "stall_timeout",
    Failure.REPLY_TIMEOUT: "reply_timeout",
    Failure.TOTAL_TIMEOUT: "total_timeout",
}

_HINTS = {
    Failure.PROJECT_NOT_FOUND: "Project names are case-sensitive",
    Failure.ALREADY_EXISTS: "Use overwrite=True to replace it",
    Failure.RESOLVE: "Check the server's address",
    Failure.CONNECT: "Check the server's address",
    Failure.TLS: "A server with a private CA needs ca_file=",
    Failure.TOO_MANY_REDIRECTS: "Raise max_redirects= if the server needs more",
    Failure.REDIRECT_REFUSED: "Pass redirects=\"follow\" to follow it",
    Failure.REPLY_TOO_LARGE: "Raise max_reply_size= if the server needs more",
}

_SIGN_IN_HINTS = {403: "The user may not sign in to this site", 404: "Check the server's address and the site"}


def _extract_class(path: str) -> Tuple[Type[ExtractFileError], int]:
    """The subclass that fits what is at `path` now, and the errno it stands for."""
    try:
        is_directory = os.path.isdir(path)
        exists = os.path.lexists(path)
    except (OSError, ValueError):
        return ExtractNotUsable, errno.EINVAL
    if not exists:
        return ExtractNotFound, errno.ENOENT
    if is_directory:
        return ExtractIsADirectory, errno.EISDIR
    return ExtractNotUsable, errno.EINVAL


def make_error(code: int, message: str, status: int, reason: str, failure: Failure, transient: bool,
               extract: Optional[str] = None, limits: Optional[Dict[str, Optional[int]]] = None) -> PublishError:
    """The exception for a failed call, chosen by its failure kind (never by its text).

    `extract` is the path of a publish's extract; `limits` the session's
    time limits, named in the text of a time-out."""
    hint = _HINTS.get(failure, "")
    if failure == Failure.SIGN_IN_REFUSED:
        hint = _SIGN_IN_HINTS.get(status, "Check the user name, the password and the site")
    if failure == Failure.EXTRACT_UNUSABLE:
        cls, number = _extract_class(extract or "")
        error = cls(code, message, status, reason, failure, transient, "")
        error.path = extract or ""
        if isinstance(error, OSError):
            error.errno = number
            error.filename = extract
        return error
    if failure in _LIMITS:
        name = _LIMITS[failure]
        seconds = (limits or {}).get(name)
        hint = f"The {name} of {seconds} s ran out" if seconds else f"The library's {name.replace('_', ' ')} ran out"
    return _BY_KIND.get(failure, PublishError)(code, message, status, reason, failure, transient, hint)

