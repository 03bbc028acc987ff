"""Scenes: renders that walk a node graph instead of the tiles of a picture."""

import threading

import Nodes2DAPI

_threadCount = None
_lock = threading.Lock()
_renders = []


def SetRenderThreads(count):
    """None: as many as images have."""
    global _threadCount
    _threadCount = count


def GetRenderThreads():
    return Nodes2DAPI.GetRenderThreads() if _threadCount is None else _threadCount


class SceneRender(object):
    """A walk over the nodes above one node, on a thread of its own. visited: names, in order."""

    def __init__(self, node, visit):
        self.visited = []
        self._error = None
        self._nodes = [node] + node.getUpstreamNodes()
        self._visit = visit
        self._cancelled = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def _run(self):
        try:
            for node in self._nodes:
                if self._cancelled.is_set():
                    return
                self._visit(node)
                self.visited.append(node.getName())
        except BaseException as exception:
            self._error = exception
        finally:
            with _lock:
                _renders.remove(self)

    def cancel(self):
        self._cancelled.set()

    def wait(self, seconds=None):
        """Waits for the end; False if the time was up first. Raises what visit has raised."""
        self._thread.join(seconds)
        if self._error is not None:
            raise self._error
        return not self._thread.is_alive()


def StartRender(node, visit):
    """Calls visit(node) for the node and then for every node upstream of it. Returns the render."""
    render = SceneRender(node, visit)
    with _lock:
        # Its end waits for the lock.
        render._thread.start()
        _renders.append(render)
    return render


def CancelAllRenders():
    """Asks all renders of scenes to end, each before its next node."""
    with _lock:
        for render in _renders:
            render.cancel()
