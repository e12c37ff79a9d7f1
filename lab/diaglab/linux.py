"""The system calls for namespaces and mounts, which Python's library lacks."""
import ctypes
import os
from pathlib import Path

CLONE_NEWUTS, CLONE_NEWNET = 0x04000000, 0x40000000
MS_RDONLY, MS_BIND, MS_REC = 1, 0x1000, 0x4000
AT_FDCWD, AT_RECURSIVE = -100, 0x8000
MOUNT_ATTR_RDONLY = 1

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result: int, what: str) -> None:
    if result == -1:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def unshare(flags: int) -> None:
    """Gives the calling thread namespaces of its own."""
    _check(_libc.unshare(flags), "unshare")


def mount(source: str | Path, target: str | Path, kind: str = "", flags: int = 0, data: str = "") -> None:
    words = (os.fsencode(source), os.fsencode(target), kind.encode())
    _check(_libc.mount(*words, ctypes.c_ulong(flags), data.encode()), f"mount {source} on {target}")


def bind(source: str | Path, target: str | Path) -> None:
    """With the mounts below it."""
    mount(source, target, flags=MS_BIND | MS_REC)


def make_read_only(tree: str | Path) -> None:
    """A mount and those below it, each with its other options as they are."""

    class MountAttributes(ctypes.Structure):
        _fields_ = [(name, ctypes.c_uint64) for name in ("set", "clear", "propagation", "user_namespace")]

    attributes = MountAttributes(set=MOUNT_ATTR_RDONLY)
    size = ctypes.c_size_t(ctypes.sizeof(attributes))
    result = _libc.mount_setattr(AT_FDCWD, os.fsencode(tree), AT_RECURSIVE, ctypes.byref(attributes), size)
    _check(result, f"make {tree} read-only")
