"""The shared library: finding it, declaring its functions, starting it once.

Every foreign call goes through a ctypes.CDLL function, which releases the GIL
while the library works, so sessions on different threads publish at once.
"""
from __future__ import annotations

import atexit
import ctypes
import logging
import os
import sys
import sysconfig
import tempfile
import threading
from ctypes import POINTER, c_char_p, c_int, c_long, c_uint64, c_void_p, c_wchar_p
from pathlib import Path
from typing import Any, Iterator, List, Optional, Set

from ._errors import LibraryError

LIBRARY = "libOrvaneServer.so.1"
COMMON = "libOrvaneCommon.so.1"
PROGRESS = ctypes.CFUNCTYPE(c_int, c_void_p, c_uint64, c_uint64)
LOG_LISTENER = ctypes.CFUNCTYPE(None, c_void_p, c_char_p)

# name: (argument types) -- every function returns an ORV_RESULT (int32).
_FUNCTIONS = {
    "OrvServerAPIInitialize": (),
    "OrvServerAPICleanup": (),
    "OrvServerConnectionCreate": (POINTER(c_void_p),),
    "OrvServerConnectionConnect": (c_void_p, c_char_p, c_char_p, c_char_p, c_char_p),
    "OrvServerConnectionPublishExtract": (c_void_p, c_char_p, c_char_p, c_char_p, c_int),
    "OrvServerConnectionDisconnect": (c_void_p,),
    "OrvServerConnectionClose": (c_void_p,),
    "OrvServerConnectionSetProxyCredentials": (c_void_p, c_char_p, c_char_p),
    "OrvServerConnectionSetProgressCallback": (c_void_p, PROGRESS, c_void_p),
    "OrvServerConnectionEnableCancel": (c_void_p,),
    "OrvServerConnectionCancel": (c_void_p,),
    "OrvServerConnectionSetConnectTimeout": (c_void_p, c_long),
    "OrvServerConnectionSetStallTimeout": (c_void_p, c_long),
    "OrvServerConnectionSetMaxRedirects": (c_void_p, c_long),
    "OrvServerConnectionSetMaxReplySize": (c_void_p, c_uint64),
    "OrvServerConnectionSetCACertificates": (c_void_p, c_char_p),
    "OrvServerConnectionSetUploadBufferSize": (c_void_p, c_long),
    "OrvServerConnectionGetHttpStatus": (c_void_p, POINTER(c_long)),
    "OrvServerConnectionGetServerReason": (c_void_p, POINTER(c_wchar_p)),
    "OrvServerConnectionGetFailure": (c_void_p, POINTER(c_int), POINTER(c_long)),
    "OrvFailureIsTransient": (c_int,),
    "OrvServerConnectionSetReplyTimeout": (c_void_p, c_long),
    "OrvServerConnectionSetTotalTimeout": (c_void_p, c_long),
    "OrvServerConnectionSetRedirectPolicy": (c_void_p, c_int),
    "OrvServerAPISetLogDirectory": (c_char_p,),
    "OrvServerAPISetLogListener": (LOG_LISTENER, c_void_p),
    "OrvServerConnectionSetConnectionReuse": (c_void_p, c_int),
    "OrvServerConnectionSetProjectCache": (c_void_p, c_long),
    "OrvServerConnectionSetExpectContinue": (c_void_p, c_int),
    "OrvServerConnectionSignOut": (c_void_p,),
}

_LOG_UNAVAILABLE = 502  # ORV_RESULT_LogUnavailable
_lock = threading.RLock()  # reentrant: a collected Session closes its handle from any allocation
_lib: Optional[ctypes.CDLL] = None
_started = False
_open: Set[int] = set()  # handles not yet closed, closed at exit before the library stops
_logger = logging.getLogger("orvane")


def utf16(text: str) -> bytes:
    """A NUL-terminated UTF-16 string for the C API."""
    if "\0" in text:
        raise ValueError("text for the library must not contain NUL characters")
    return text.encode("utf-16-le") + b"\0\0"


def candidates() -> List[str]:
    """Where the library is looked for, in order: the package's own copy,
    $ORVANE_LIBRARY (the file or its directory), lib/ of the installation's
    prefixes, and last the system loader's own search."""
    own = Path(__file__).resolve().with_name(LIBRARY)
    found = [own] if own.is_file() else []
    override = os.environ.get("ORVANE_LIBRARY")
    if override:
        path = Path(override)
        found.append(path / LIBRARY if path.is_dir() else path)
    # site-packages sits in PREFIX/lib/pythonX.Y/ (or PREFIX/lib/python3/dist-packages/).
    here = list(Path(__file__).resolve().parents)
    prefixes = here[4:5] + [Path(sys.prefix), Path(sys.base_prefix)]
    libdirs = ["lib", "lib64"] + ["lib/" + a for a in [sysconfig.get_config_var("MULTIARCH")] if a]
    for prefix in dict.fromkeys(prefixes):
        for libdir in libdirs:
            path = prefix / libdir / LIBRARY
            if path.is_file():
                found.append(path)
    return list(dict.fromkeys(str(path) for path in found)) + [LIBRARY]


def _open_library(path: str) -> ctypes.CDLL:
    # A tree installed without a run path finds libOrvaneCommon only when it is loaded first.
    common = Path(path).with_name(COMMON)
    if os.sep in path and common.is_file():
        ctypes.CDLL(str(common), mode=ctypes.RTLD_GLOBAL)
    return ctypes.CDLL(path)


def _load() -> ctypes.CDLL:
    errors = []
    for path in candidates():
        try:
            lib = _open_library(path)
            break
        except OSError as e:
            errors.append(str(e))
    else:
        raise LibraryError(0, "libOrvaneServer not found (set ORVANE_LIBRARY to the library or its directory): "
                           + "; ".join(errors))
    try:
        for name, argtypes in _FUNCTIONS.items():
            function = getattr(lib, name)
            function.argtypes = argtypes
            function.restype = ctypes.c_int32
        lib.OrvGetLastErrorMessage.argtypes = ()
        lib.OrvGetLastErrorMessage.restype = c_wchar_p
        lib.OrvServerAPIGetVersion.argtypes = ()
        lib.OrvServerAPIGetVersion.restype = c_char_p
        lib.OrvServerAPIGetLogPath.argtypes = ()
        lib.OrvServerAPIGetLogPath.restype = c_char_p
    except AttributeError as e:
        raise LibraryError(0, f"{path} is older than this package needs (1.2 or later): {e}") from None
    return lib


def library() -> ctypes.CDLL:
    """The loaded library (not necessarily started)."""
    global _lib
    with _lock:
        if _lib is None:
            _lib = _load()
        return _lib


def _log_directories() -> Iterator[Optional[str]]:
    """Where the log may go, in order: None for $ORV_SDK_LOGDIR (the library
    reads it), else $XDG_STATE_HOME/orvane (~/.local/state/orvane), then a
    private temporary directory, and "" (no log file) when none will do;
    never the working directory."""
    if os.environ.get("ORV_SDK_LOGDIR"):
        yield None
        return
    state = os.environ.get("XDG_STATE_HOME") or os.path.join(os.path.expanduser("~"), ".local", "state")
    directory = Path(state) / "orvane"
    try:
        directory.mkdir(mode=0o700, parents=True, exist_ok=True)
        yield str(directory)
    except OSError:
        pass
    try:
        yield tempfile.mkdtemp(prefix="orvane-log-")
    except OSError:
        pass
    yield ""  # publishing matters more than its log


def _on_log_line(_: Any, line: Optional[bytes]) -> None:
    # On the library's log writer thread: an exception here would have nowhere to go.
    try:
        _logger.debug("%s", (line or b"").decode("utf-8", "replace"))
    except Exception:
        pass


# Kept for the life of the process: the library may call it until it stops.
_listener = LOG_LISTENER(_on_log_line)


def start() -> ctypes.CDLL:
    """The library, started once per process; it is stopped at exit."""
    global _started
    lib = library()
    with _lock:
        if not _started:
            lib.OrvServerAPISetLogListener(_listener, None)
            for directory in _log_directories():
                lib.OrvServerAPISetLogDirectory(None if directory is None else utf16(directory))
                code = lib.OrvServerAPIInitialize()
                if code != _LOG_UNAVAILABLE:  # else the library stays stopped and takes another directory
                    break
            if code != 0:
                raise LibraryError(code, f"libOrvaneServer did not start: {lib.OrvGetLastErrorMessage()}")
            _started = True
            atexit.register(_stop)
    return lib


def register(handle: int) -> None:
    """Remembers an open handle, to be closed before the library stops."""
    with _lock:
        _open.add(handle)


def close(handle: int) -> None:
    """Closes a handle once; later calls (and the one at exit) do nothing."""
    with _lock:
        if handle not in _open:
            return
        _open.discard(handle)
        assert _lib is not None
        _lib.OrvServerConnectionClose(handle)


def _stop() -> None:
    global _started
    with _lock:
        assert _lib is not None
        for handle in sorted(_open):
            _lib.OrvServerConnectionClose(handle)
        _open.clear()
        _lib.OrvServerAPICleanup()
        _started = False
