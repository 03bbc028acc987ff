"""Pictures within the limits of the run, and those that are kept in case they are wanted again.

A picture takes memory as long as Nodes2DAPI.SetMaxImageMemory lets it, then space in the run's
temporary folder as long as SetMaxDiskUsage does. What is kept goes first, the oldest ahead.
"""

import collections
import threading
import weakref

import Nodes2DAPI

_MEBIBYTE = 1024 * 1024

# A picture may be given back on any thread, also while this one is held.
_lock = threading.RLock()
_used = {"maxImageMemory": 0, "maxDiskUsage": 0}
_kept = collections.OrderedDict()


def _giveBack(limit, size):
    with _lock:
        _used[limit] -= size


def _fits(limit, size):
    most = Nodes2DAPI.GetSettings()[limit]
    return most is None or _used[limit] + size <= most * _MEBIBYTE


def _newFile(size):
    """Memory that is a file without a name. OSError if the disk has no room."""
    import mmap
    import os
    import tempfile

    import PyUtilModule

    with tempfile.TemporaryFile(dir=PyUtilModule.GetTemporaryDirectory() or None) as file:
        # Room that is only promised would end the process by SIGBUS where it lacks.
        os.posix_fallocate(file.fileno(), 0, size)
        return mmap.mmap(file.fileno(), size)


class Picture(object):
    """Red, green, blue for every pixel, row by row. MemoryError if there is no room for it."""

    def __init__(self, width, height):
        self.width = width
        self.height = height
        size = 3 * width * height
        with _lock:
            while _kept and not _fits("maxImageMemory", size):
                _kept.popitem(last=False)
            if _fits("maxImageMemory", size):
                limit, make = "maxImageMemory", bytearray
            elif _fits("maxDiskUsage", size):
                limit, make = "maxDiskUsage", _newFile
            else:
                raise MemoryError("no room for a picture of %dx%d pixels within the limits of "
                                  "image memory and disk usage" % (width, height))
            self._pixels = make(size)
            _used[limit] += size
        weakref.finalize(self, _giveBack, limit, size)

    def _rows(self, left, top, right, bottom):
        for y in range(top, bottom):
            yield slice(3 * (y * self.width + left), 3 * (y * self.width + right))

    def paste(self, left, top, right, bottom, pixels):
        """Takes the pixels of a tile over; ValueError if they are not as many as it has."""
        length = 3 * (right - left)
        if len(pixels) != length * (bottom - top):
            raise ValueError("a tile of %dx%d pixels can't have %d bytes"
                             % (right - left, bottom - top, len(pixels)))
        for number, row in enumerate(self._rows(left, top, right, bottom)):
            self._pixels[row] = pixels[number * length:(number + 1) * length]

    def cut(self, left, top, right, bottom):
        """The pixels of a tile."""
        return b"".join(self._pixels[row] for row in self._rows(left, top, right, bottom))

    def toPpm(self):
        """The pieces of a PPM file."""
        return [b"P6\n%d %d\n255\n" % (self.width, self.height), self._pixels]


def _isKeeping():
    return Nodes2DAPI.GetSettings()["speculativeCache"]


def MakeKey(renderer, parameters, width, height):
    """What a picture is kept under: all that it depends on. None for one that can't be kept."""
    import json

    try:
        return renderer, json.dumps(parameters, sort_keys=True), width, height
    except (RecursionError, TypeError, ValueError):
        return None


def Keep(key, picture):
    """Keeps a finished picture, if the speculative cache is on."""
    if key is not None and _isKeeping():
        with _lock:
            _kept[key] = picture


def Find(key):
    """The picture that is kept under a key, or None."""
    with _lock:
        if key not in _kept or not _isKeeping():
            return None
        _kept.move_to_end(key)
        return _kept[key]
