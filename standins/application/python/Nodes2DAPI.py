"""Images: the settings of rendering, and the renders, whose tiles as many threads work off as
SetRenderThreads says."""

import threading
import time


_RENDER_TYPES = ("preview", "disk")
# A render looks for its cancellation between two tiles; a tile takes far less than this.
_SECONDS_TO_END = 10

_settings = {
    "debug": False,
    "logFile": None,
    "threads": 1,
    "tileSize": (64, 64),
    "maxImageMemory": None,
    "maxDiskUsage": None,
    "speculativeCache": True,
}
# Guards the list, and tiles and counts of the renders.
_lock = threading.Lock()
_renders = []


def GetSettings():
    """A copy of all settings by name."""
    return dict(_settings)


def SetRenderDebug(debug):
    _settings["debug"] = bool(debug)


def SetRenderLogFile(path):
    """Render debugging is appended to this file instead of going to the log."""
    _settings["logFile"] = path


def SetRenderThreads(count):
    if count < 1:
        raise ValueError("a render needs a thread")
    _settings["threads"] = count


def SetTileSize(width, height):
    _settings["tileSize"] = (width, height)


def GetTileSize():
    """(width, height) in pixels."""
    return _settings["tileSize"]


def SetMaxImageMemory(megabytes):
    """What all pictures together may take; RenderingAPI.Pictures goes to the disk beyond it."""
    _settings["maxImageMemory"] = megabytes


def SetMaxDiskUsage(megabytes):
    """What the pictures that are too much for the memory may take of the temporary folder."""
    _settings["maxDiskUsage"] = megabytes


def SetSpeculativeCacheEnabled(enabled):
    """Whether finished previews are kept for the case that they are asked for again."""
    _settings["speculativeCache"] = bool(enabled)


def _debug(message):
    if not _settings["debug"]:
        return
    import logging
    log = logging.getLogger("Nodes2D")
    path = _settings["logFile"]
    if path is None:
        log.info("%s", message)
        return
    try:
        with open(path, "a") as logFile:
            logFile.write(message + "\n")
    except OSError as error:
        with _lock:
            isFirst, _settings["logFile"] = _settings["logFile"] is not None, None
        if isFirst:
            log.warning('Can\'t write the render log "%s": %s. What renders do is logged here.', path,
                        error.strerror)
        log.info("%s", message)


def _tiles(width, height, tileWidth, tileHeight):
    """The tiles of a picture, each row of them from left to right: (left, top, right, bottom)."""
    for top in range(0, height, tileHeight):
        for left in range(0, width, tileWidth):
            yield left, top, min(left + tileWidth, width), min(top + tileHeight, height)


class Render(object):
    """A render on its way, made by StartRender.

    state: "running", "done", "cancelled" or "failed"; error: the exception of a failed render.
    """

    def __init__(self, renderType, width, height, renderTile, finish):
        self.renderType = renderType
        self.state = "running"
        self.error = None
        tileWidth, tileHeight = _settings["tileSize"]
        self.tileCount = -(-width // tileWidth) * -(-height // tileHeight)
        self._tiles = _tiles(width, height, tileWidth, tileHeight)
        self._renderTile = renderTile
        self._finish = finish
        self._rendered = 0
        self._threadCount = 0
        self._isCancelled = False
        self._ended = threading.Event()

    def _start(self):
        """With the lock. Does with fewer threads than wanted, but not with none."""
        while self._threadCount < min(self.tileCount, _settings["threads"]):
            try:
                # The interpreter does not wait for a daemon thread: none that hangs can hold the end.
                threading.Thread(target=self._run, daemon=True).start()
            except RuntimeError:
                if self._threadCount == 0:
                    raise
                return
            self._threadCount += 1

    def _takeTile(self):
        with _lock:
            isOver = self._isCancelled or self.error is not None
            return None if isOver else next(self._tiles, None)

    def _run(self):
        try:
            for tile in iter(self._takeTile, None):
                self._renderTile(*tile)
                with _lock:
                    self._rendered += 1
        except BaseException as exception:
            self.error = self.error or exception
        with _lock:
            self._threadCount -= 1
            isLast = self._threadCount == 0
        if isLast:
            self._end()

    def _end(self):
        state = "cancelled" if self._isCancelled else "done"
        try:
            if state == "done" and self.error is None:
                self._finish()
        except BaseException as exception:
            self.error = exception
        self.state = state if self.error is None else "failed"
        with _lock:
            _renders.remove(self)
        _debug("%s render %s" % (self.renderType, self.state))
        self._ended.set()

    def cancel(self):
        """Asks the render to end; its threads look between two tiles."""
        self._isCancelled = True

    def isCancelled(self):
        return self._isCancelled

    def getRenderedTileCount(self):
        return self._rendered

    def wait(self, seconds=None):
        """Waits for the end; False if the time was up first. Raises a failed render's error."""
        hasEnded = self._ended.wait(seconds)
        if self.error is not None:
            raise self.error
        return hasEnded


def StartRender(renderType, width, height, renderTile, finish):
    """Renders a picture on threads of its own: renderTile(left, top, right, bottom) for each tile,
    several at a time, then finish(), which a cancelled or failed render leaves out. Returns the
    Render."""
    if renderType not in _RENDER_TYPES:
        raise ValueError('"%s" is none of the render types %s' % (renderType, _RENDER_TYPES))
    if width < 1 or height < 1:
        raise ValueError("a picture of %dx%d pixels can't be rendered" % (width, height))
    render = Render(renderType, width, height, renderTile, finish)
    _debug("%s render of %dx%d started" % (renderType, width, height))
    with _lock:
        render._start()
        _renders.append(render)
    return render


def GetRenders():
    """The renders that have not ended."""
    with _lock:
        return list(_renders)


def GetAllRenderTypes():
    return list(_RENDER_TYPES)


def CancelRender(renderType, allOfType):
    """Asks the renders of a type to end: all of them, or the one that was started first."""
    renders = [render for render in GetRenders() if render.renderType == renderType]
    for render in renders if allOfType else renders[:1]:
        render.cancel()


def TerminateCancelledRenders():
    """Waits for the renders cancelled so far; those that don't end in time are abandoned."""
    import logging

    deadline = time.monotonic() + _SECONDS_TO_END
    for render in GetRenders():
        if render.isCancelled() and not render._ended.wait(max(0, deadline - time.monotonic())):
            logging.getLogger("Nodes2D").warning(
                "A %s render did not end within %d s and is abandoned.", render.renderType,
                _SECONDS_TO_END)
