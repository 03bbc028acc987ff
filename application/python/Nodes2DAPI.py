"""Images: the settings of rendering, and the renders that run on threads of their own."""

import threading

import AnalyzeThis

_RENDER_TYPES = ("preview", "disk")
# A render looks for its cancellation between two tiles; a tile takes far less than this.
_SECONDS_TO_END = 10

_settings = {
    "debug": False,
    "logFile": None,
    "threads": 1,
    "tileSize": (64, 64),
    "maxImageMemory": 0,
    "maxDiskUsage": 0,
    "speculativeCache": True,
}
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


def GetRenderThreads():
    return _settings["threads"]


def SetTileSize(width, height):
    _settings["tileSize"] = (width, height)


def GetTileSize():
    """(width, height) in pixels."""
    return _settings["tileSize"]


def SetMaxImageMemory(megabytes):
    _settings["maxImageMemory"] = megabytes


def SetMaxDiskUsage(megabytes):
    _settings["maxDiskUsage"] = megabytes


def SetSpeculativeCacheEnabled(enabled):
    _settings["speculativeCache"] = bool(enabled)


def _debug(message):
    if not _settings["debug"]:
        return
    if _settings["logFile"] is None:
        import logging
        logging.getLogger("Nodes2D").info("%s", message)
        return
    with _lock, open(_settings["logFile"], "a") as logFile:
        logFile.write(message + "\n")


def _tiles(width, height):
    """The tiles of a picture, each row of them from left to right: (left, top, right, bottom)."""
    tileWidth, tileHeight = _settings["tileSize"]
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
        self._cancelled = threading.Event()
        # The interpreter does not wait for a daemon thread: a render that hangs can't hold the end.
        self._thread = threading.Thread(
            target=self._run, args=(_tiles(width, height), renderTile, finish), daemon=True)

    def _run(self, tiles, renderTile, finish):
        try:
            for tile in tiles:
                if self._cancelled.is_set():
                    self.state = "cancelled"
                    return
                renderTile(*tile)
            finish()
            self.state = "done"
        except Exception as exception:
            self.error = exception
            self.state = "failed"
        finally:
            with _lock:
                _renders.remove(self)
            AnalyzeThis.Count("render " + self.state)
            _debug("%s render %s" % (self.renderType, self.state))

    def cancel(self):
        self._cancelled.set()

    def isCancelled(self):
        return self._cancelled.is_set()

    def wait(self, seconds=None):
        """Waits for the end; False if the time was up first. Raises the error of a failed render."""
        self._thread.join(seconds)
        if self.error is not None:
            raise self.error
        return not self._thread.is_alive()


def StartRender(renderType, width, height, renderTile, finish):
    """Renders a picture on a thread: renderTile(left, top, right, bottom) for each tile, row by row,
    then finish(), which a cancelled render leaves out. Returns the Render."""
    if renderType not in _RENDER_TYPES:
        raise ValueError('"%s" is none of the render types %s' % (renderType, _RENDER_TYPES))
    render = Render(renderType, width, height, renderTile, finish)
    _debug("%s render of %dx%d started" % (renderType, width, height))
    with _lock:
        _renders.append(render)
    render._thread.start()
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
    """Waits for the renders cancelled so far; one that doesn't end in time is abandoned."""
    import logging

    for render in GetRenders():
        if render.isCancelled():
            render._thread.join(_SECONDS_TO_END)
            if render._thread.is_alive():
                logging.getLogger("Nodes2D").warning(
                    "A %s render did not end within %d s and is abandoned.", render.renderType,
                    _SECONDS_TO_END)
