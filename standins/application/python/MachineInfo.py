"""What the machine offers, and how much of it the application takes."""

import os

import ConfigurationAPI_cmodule as Configuration

_MEBIBYTE = 1024 * 1024


def _positiveIntegers(text, count, separator="x"):
    """The numbers of a text like "64x32", or None if it isn't exactly so many positive ones."""
    try:
        numbers = tuple(int(part) for part in text.lower().split(separator))
    except ValueError:
        return None
    return numbers if len(numbers) == count and min(numbers) > 0 else None


class Tavrel(object):
    """The figures that the application's subsystems are set up with."""

    @staticmethod
    def GetRenderThreadCount():
        """One thread for each processor that this process may run on."""
        return len(os.sched_getaffinity(0))

    @staticmethod
    def GetRenderTileSize(customLogger=None):
        """(width, height) from TAVREL_RENDER_TILE_SIZE, or None if it isn't set or can't be read."""
        text = Configuration.get("TAVREL_RENDER_TILE_SIZE")
        if not text:
            return None
        size = _positiveIntegers(text, 2)
        if size is None and customLogger:
            customLogger.error('TAVREL_RENDER_TILE_SIZE is "%s"; give width and height in pixels, '
                               'as in 64x64.', text)
        return size

    @staticmethod
    def GetImageMemoryMB(isBatch, customLogger=None):
        """Half of the machine's memory; three quarters in batch, where no user works beside it."""
        total = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") // _MEBIBYTE
        limit = total * (3 if isBatch else 2) // 4
        if customLogger:
            customLogger.debug("Image memory limited to %d of %d MB.", limit, total)
        return limit

    @staticmethod
    def GetImageDiskMemoryMB(isBatch, customLogger=None):
        """A quarter of what is free where the temporary files go; half of it in batch."""
        folder = Configuration.get("TAVREL_TMPDIR") or "/tmp"
        try:
            status = os.statvfs(folder)
        except OSError as exception:
            if customLogger:
                customLogger.warning('No disk space for images: "%s": %s.', folder,
                                     exception.strerror)
            return 0
        free = status.f_bavail * status.f_frsize // _MEBIBYTE
        limit = free // (2 if isBatch else 4)
        if customLogger:
            customLogger.debug("Image disk space limited to %d of %d MB.", limit, free)
        return limit
