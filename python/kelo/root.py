"""The folder in front of the fixed paths, by the rules of the library (`kl/utilities.h`): the variable KL_ROOT.

R1  a program with more rights than its caller ignores the variable
R2  a process of root takes only a folder that it owns, as all above it, and that nobody else can write
"""

from __future__ import annotations

import os
import stat

from kelo.errors import RootError

MOST_BYTES = 83  # so that the names of the sockets fit behind it


def under_root(path: str) -> str:
    """A path of the system where it really is: "/ram/kelosock", or with the folder of KL_ROOT in front.

    RootError if KL_ROOT names a folder that is not taken.
    """
    return _root() + path


def _root() -> str:
    if os.getuid() != os.geteuid() or os.getgid() != os.getegid():
        return ""  # R1
    given = os.environ.get("KL_ROOT", "")
    if not given:
        return ""
    if not given.startswith("/"):
        raise RootError("KL_ROOT: expected an absolute path")
    if ".." in given.split("/"):
        raise RootError("KL_ROOT: expected a path without ..")
    root = given.rstrip("/")
    if len(os.fsencode(root)) > MOST_BYTES:
        raise RootError(f"KL_ROOT: expected at most {MOST_BYTES} bytes, so that sockets have room behind them")
    if root and os.geteuid() == 0:
        _refuse_folders_of_others(root)
    return root


def _refuse_folders_of_others(root: str) -> None:
    parts = root.split("/")
    for count in range(1, len(parts) + 1):
        folder = "/".join(parts[:count]) or "/"
        if not _is_roots_alone(folder):  # R2
            raise RootError(f"KL_ROOT: expected a folder that root alone writes, unlike {folder}")


def _is_roots_alone(folder: str) -> bool:
    try:
        status = os.lstat(folder)
    except OSError:
        return False
    return stat.S_ISDIR(status.st_mode) and status.st_uid == 0 and not status.st_mode & 0o022
