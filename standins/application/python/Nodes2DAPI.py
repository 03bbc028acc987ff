"""Images: the settings of rendering, and the renders, whose tiles a pool of threads works off.

The pool has as many threads as SetRenderThreads says, for all renders together. They are started
with a render and end when no tile is left.
"""

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
# Guards all that follows and the counts of the renders.
_lock = threading.Lock()
_renders = []
_threadCount = 0


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


def GetRenderThreads():
    return _settings["threads"]


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
        tileWidth, tileHeight = _settings["tileSize"]
        self.renderType = renderType
        self.state = "running"
        self.error = None
        self.tileCount = -(-width // tileWidth) * -(-height // tileHeight)
        self._tiles = _tiles(width, height, tileWidth, tileHeight)
        self._renderTile = renderTile
        self._finish = finish
        self._given = 0
        self._rendered = 0
        self._atWork = 0
        self._isCancelled = False
        self._isEnding = False
        self._ended = threading.Event()

    def _takeTile(self):
        """A tile that no thread has, or None. With the lock."""
        if self._isCancelled or self.error is not None or self._given == self.tileCount:
            return None
        self._given += 1
        self._atWork += 1
        return next(self._tiles)

    def _claimEnd(self):
        """True for the one caller who is to end the render, when there is no work left. With the
        lock."""
        isOver = self._isCancelled or self.error is not None or self._given == self.tileCount
        if self._atWork or not isOver or self._isEnding:
            return False
        self._isEnding = True
        return True

    def _work(self, tile):
        error = None
        try:
            self._renderTile(*tile)
        except BaseException as exception:
            error = exception
        with _lock:
            self._atWork -= 1
            self._rendered += 1
            self.error = self.error or error
            isLast = self._claimEnd()
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
        with _lock:
            self._isCancelled = True
            isLast = self._claimEnd()
        if isLast:
            self._end()

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


def _takeWork():
    """A render and one of its tiles, of the one that was started first, or None. With the lock."""
    for render in _renders:
        tile = render._takeTile()
        if tile is not None:
            return render, tile
    return None


def _runThread():
    global _threadCount
    while True:
        with _lock:
            work = _takeWork() if _threadCount <= _settings["threads"] else None
            if work is None:
                _threadCount -= 1
                return
        render, tile = work
        render._work(tile)


def _startThreads(count):
    """With the lock. Does with fewer threads than wanted, but not with none."""
    global _threadCount
    while _threadCount < min(count, _settings["threads"]):
        try:
            # The interpreter does not wait for a daemon thread: none that hangs can hold the end.
            threading.Thread(target=_runThread, daemon=True).start()
        except RuntimeError:
            if _threadCount == 0:
                raise
            return
        _threadCount += 1


def StartRender(renderType, width, height, renderTile, finish):
    """Renders a picture on the threads of the pool: renderTile(left, top, right, bottom) for each
    tile, several at a time, then finish(), which a cancelled or failed render leaves out. Returns
    the Render."""
    if renderType not in _RENDER_TYPES:
        raise ValueError('"%s" is none of the render types %s' % (renderType, _RENDER_TYPES))
    if width < 1 or height < 1:
        raise ValueError("a picture of %dx%d pixels can't be rendered" % (width, height))
    render = Render(renderType, width, height, renderTile, finish)
    _debug("%s render of %dx%d started" % (renderType, width, height))
    with _lock:
        _renders.append(render)
        try:
            _startThreads(sum(each.tileCount - each._given for each in _renders))
        except RuntimeError:
            _renders.remove(render)
            raise
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
