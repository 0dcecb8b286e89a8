"""The shared library: finding it, declaring its functions, starting it once.

Every foreign call goes through a ctypes.CDLL function, which releases the GIL
while the library works, so sessions on different threads publish at once.
"""
from __future__ import annotations

import atexit
import ctypes
import os
import sys
import sysconfig
import threading
from ctypes import POINTER, c_char_p, c_int, c_long, c_uint64, c_void_p, c_wchar_p
from pathlib import Path
from typing import List, Optional, Set

LIBRARY = "libOrvaneServer.so.1"
PROGRESS = ctypes.CFUNCTYPE(c_int, c_void_p, c_uint64, c_uint64)

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
}

_lock = threading.RLock()  # reentrant: a collected Session closes its handle from any allocation
_lib: Optional[ctypes.CDLL] = None
_started = False
_open: Set[int] = set()  # handles not yet closed, closed at exit before the library stops


def utf16(text: str) -> bytes:
    """A NUL-terminated UTF-16 string for the C API."""
    if "\0" in text:
        raise ValueError("text for the library must not contain NUL characters")
    return text.encode("utf-16-le") + b"\0\0"


def candidates() -> List[str]:
    """Where the library is looked for, in order; the loader's own search comes last."""
    override = os.environ.get("ORVANE_LIBRARY")
    if override:
        return [override]
    # site-packages sits in PREFIX/lib/pythonX.Y/ (or PREFIX/lib/python3/dist-packages/).
    here = list(Path(__file__).resolve().parents)
    prefixes = here[4:5] + [Path(sys.prefix), Path(sys.base_prefix)]
    libdirs = ["lib", "lib64"] + ["lib/" + a for a in [sysconfig.get_config_var("MULTIARCH")] if a]
    found = []
    for prefix in dict.fromkeys(prefixes):
        for libdir in libdirs:
            path = prefix / libdir / LIBRARY
            if path.is_file() and str(path) not in found:
                found.append(str(path))
    return found + [LIBRARY]


def _load() -> ctypes.CDLL:
    errors = []
    for path in candidates():
        try:
            # An installed tree may carry no run path: load libOrvaneCommon from beside it first.
            common = Path(path).with_name("libOrvaneCommon.so.1")
            if os.sep in path and common.is_file():
                ctypes.CDLL(str(common), mode=ctypes.RTLD_GLOBAL)
            lib = ctypes.CDLL(path)
            break
        except OSError as e:
            errors.append(str(e))
    else:
        raise OSError("libOrvaneServer not found (set ORVANE_LIBRARY to its path): " + "; ".join(errors))
    try:
        for name, argtypes in _FUNCTIONS.items():
            function = getattr(lib, name)
            function.argtypes, function.restype = argtypes, ctypes.c_int32
        lib.OrvGetLastErrorMessage.argtypes, lib.OrvGetLastErrorMessage.restype = (), c_wchar_p
        lib.OrvServerAPIGetVersion.argtypes, lib.OrvServerAPIGetVersion.restype = (), c_char_p
    except AttributeError as e:
        raise OSError(f"{path} is older than this package needs (1.1 or later): {e}") from None
    return lib


def library() -> ctypes.CDLL:
    """The loaded library (not necessarily started)."""
    global _lib
    with _lock:
        if _lib is None:
            _lib = _load()
        return _lib


def start() -> ctypes.CDLL:
    """The library, started once per process; it is stopped at exit."""
    global _started
    lib = library()
    with _lock:
        if not _started:
            code = lib.OrvServerAPIInitialize()
            if code != 0:
                raise OSError(f"libOrvaneServer did not start ({code}): {lib.OrvGetLastErrorMessage()}")
            _started = True
            atexit.register(_stop)
    return lib


def register(handle: int) -> None:
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
