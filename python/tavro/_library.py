"""Finding libTAVRO.so and declaring the C functions the binding calls."""
from __future__ import annotations

import ctypes
import ctypes.util
import os
import threading
from typing import Optional

from .errors import LibraryNotFoundError

ENV_LIBRARY = "TAVRO_LIBRARY"

# void handler(COMMAND_CODE code, const void* data, uint32_t size, CrRsp* response)
HANDLER = ctypes.CFUNCTYPE(None, ctypes.c_int32, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p)


class TAVRO_RESPONSE(ctypes.Structure):
    _fields_ = [
        ("status", ctypes.c_int32),
        ("errorCode", ctypes.c_int32),
        ("data", ctypes.c_void_p),
        ("dataSize", ctypes.c_uint32),
    ]


def _build_tree_library() -> Optional[str]:
    """The libTAVRO.so the package was built or installed next to, if any."""
    try:
        from . import _build
    except ImportError:
        return None
    path = getattr(_build, "LIBRARY", None)
    return path if path and os.path.exists(path) else None


def candidates(path: Optional[str] = None) -> list[str]:
    """Where the library is looked for, first match wins."""
    if path:
        return [os.fspath(path)]
    if os.environ.get(ENV_LIBRARY):
        return [os.environ[ENV_LIBRARY]]
    found = [p for p in (_build_tree_library(), ctypes.util.find_library("TAVRO")) if p]
    # The dynamic loader's own search (LD_LIBRARY_PATH, ldconfig cache).
    return found + ["libTAVRO.so.1"]


def _declare(lib: ctypes.CDLL) -> None:
    i32, u32, vp = ctypes.c_int32, ctypes.c_uint32, ctypes.c_void_p
    pint = ctypes.POINTER(ctypes.c_int)
    table = {
        "I_TAVRO_Initialize": (i32, []),
        "I_TAVRO_Version": (None, [pint, pint, pint]),
        "I_SwitchConnect": (i32, [ctypes.c_int]),
        "I_SwitchIsConnected": (i32, []),
        "I_SwitchDisconnect": (i32, []),
        "I_TAVRO_RegisterCommandHandler": (i32, [i32, HANDLER]),
        "I_TAVRO_UnRegisterCommandHandler": (i32, [i32]),
        "I_TAVRO_SendCommandNoResponse": (i32, [i32, vp, ctypes.c_uint]),
        "I_TAVRO_SendCommandWithResponse": (i32, [i32, vp, ctypes.c_uint, ctypes.c_uint,
                                                  ctypes.POINTER(TAVRO_RESPONSE)]),
        "I_TAVRO_FreeResponse": (None, [ctypes.POINTER(TAVRO_RESPONSE)]),
        "I_TAVRO_SetResponseStatus": (i32, [vp, i32]),
        "I_TAVRO_SetResponseError": (i32, [vp, i32]),
        "I_TAVRO_SetResponseData": (i32, [vp, vp, ctypes.c_uint]),
    }
    for name, (restype, argtypes) in table.items():
        try:
            fn = getattr(lib, name)
        except AttributeError:
            raise LibraryNotFoundError(f"{lib._name} has no {name}: a libTAVRO.so older than this binding") from None
        fn.restype = restype
        fn.argtypes = argtypes


_lock = threading.Lock()
_lib: Optional[ctypes.CDLL] = None


def load(path: Optional[str] = None) -> ctypes.CDLL:
    """Loads libTAVRO.so once per process and returns it.

    path, else the environment variable TAVRO_LIBRARY, else the library of the
    build tree this package came from, else the system's libTAVRO.so.1.
    """
    global _lib
    with _lock:
        if _lib is not None:
            if path and os.path.realpath(path) != os.path.realpath(_lib._name):
                raise LibraryNotFoundError(
                    f"libTAVRO is already loaded from {_lib._name}; a process holds one copy (asked for {path})")
            return _lib
        tried = []
        for candidate in candidates(path):
            try:
                lib = ctypes.CDLL(candidate)
            except OSError as e:
                tried.append(f"{candidate} ({e})")
                continue
            _declare(lib)
            _lib = lib
            return lib
        raise LibraryNotFoundError(
            "cannot load libTAVRO.so; tried " + "; ".join(tried)
            + f". Build it, install it, or name it with {ENV_LIBRARY}=/path/to/libTAVRO.so")


def loaded() -> Optional[ctypes.CDLL]:
    return _lib
