"""Counting how often a file is replaced or rewritten."""

import contextlib
import ctypes
import os
import struct

_CLOSE_WRITE = 0x008
_MOVED_TO = 0x080
_NONBLOCK = os.O_NONBLOCK
_EVENT = struct.Struct("iIII")  # watch, mask, cookie, length of the following name

_libc = ctypes.CDLL(None, use_errno=True)


class Saves:
    """How often the file was saved; set at the end of the count_saves() block."""

    count = 0


@contextlib.contextmanager
def count_saves(path):
    """Counts how often the file @a path is written in place or replaced by a rename."""
    descriptor = _libc.inotify_init1(_NONBLOCK)
    assert descriptor >= 0, os.strerror(ctypes.get_errno())
    saves = Saves()
    try:
        directory, name = os.path.split(os.fsencode(path))
        watch = _libc.inotify_add_watch(descriptor, directory, _CLOSE_WRITE | _MOVED_TO)
        assert watch >= 0, os.strerror(ctypes.get_errno())
        yield saves
        saves.count = sum(event == name for event in _names(descriptor))
    finally:
        os.close(descriptor)


def _names(descriptor):
    try:
        data = os.read(descriptor, 1 << 16)
    except BlockingIOError:
        return
    while data:
        length = _EVENT.unpack_from(data)[3]
        yield data[_EVENT.size:_EVENT.size + length].rstrip(b"\0")
        data = data[_EVENT.size + length:]
