"""The picture of the selected node, which fills tile by tile, and how far its render has come."""

import collections
import time
import tkinter
import tkinter.ttk

import RenderingAPI
from GraphWindow import Look

_WIDTH = 320
_HEIGHT = 180
_OLD = " (old)"


class PreviewPanel(tkinter.Frame):
    """Follows one render at a time: a new one cancels the one before."""

    def __init__(self, parent, onRender, attempt):
        tkinter.Frame.__init__(self, parent, name="preview")
        self._attempt = attempt
        self._render = None
        # Filled by the render's threads, emptied by tick.
        self._tiles = collections.deque()
        self._what = ""
        self._start = 0
        self._photo = tkinter.PhotoImage(master=self, name="previewPicture", width=_WIDTH,
                                         height=_HEIGHT)
        tkinter.Label(self, image=self._photo, background=Look.FIELD).pack()
        self._bar = tkinter.ttk.Progressbar(self, name="bar")
        self._bar.pack(fill=tkinter.X, pady=4)
        row = tkinter.Frame(self, name="row")
        row.pack(fill=tkinter.X)
        self._button = tkinter.Button(row, name="render", text="Render", command=onRender, pady=1)
        self._button.pack(side=tkinter.LEFT)
        self._cancel = tkinter.Button(row, name="cancel", text="Cancel", command=self.cancel,
                                      state=tkinter.DISABLED, pady=1)
        self._cancel.pack(side=tkinter.LEFT)
        self._text = tkinter.Label(row, name="text", anchor="w", padx=6)
        self._text.pack(side=tkinter.LEFT, fill=tkinter.X, expand=True)

    def markOld(self):
        """The graph has changed since the picture was rendered."""
        text = self._text.cget("text")
        if text and self._render is None and not text.endswith(_OLD):
            self._text.configure(text=text + _OLD)

    def renderPreview(self, node):
        tiles = collections.deque()
        self._photo.blank()
        self._tiles = tiles
        self._follow(node.getName(), lambda: RenderingAPI.RenderToPicture(
            node, _WIDTH, _HEIGHT, lambda *tile: tiles.append(tile)))

    def renderToFile(self, node, path, width, height):
        self._follow(path, lambda: RenderingAPI.RenderToFile(node, path, width, height))

    def _follow(self, what, start):
        self.cancel()
        self._what = what
        self._start = time.monotonic()
        self._text.configure(text="")
        self._cancel.configure(state=tkinter.DISABLED)
        self._render = self._attempt(start)
        if self._render is not None:
            self._bar.configure(maximum=self._render.tileCount, value=0)
            self._cancel.configure(state=tkinter.NORMAL)
            self.tick()

    def cancel(self):
        if self._render is not None:
            self._render.cancel()

    def _paste(self, left, top, right, bottom, pixels):
        picture = b"P6\n%d %d\n255\n%b" % (right - left, bottom - top, pixels)
        self.tk.call(self._photo, "put", picture, "-format", "ppm", "-to", left, top)

    def tick(self):
        """Shows what has come since the last call; to be called all the time."""
        render = self._render
        if render is None:
            return
        # Asked for before the tiles are taken: none can come behind the end.
        state = render.state
        while self._tiles:
            self._paste(*self._tiles.popleft())
        rendered = render.getRenderedTileCount()
        self._bar.configure(value=rendered)
        if state == "running":
            self._text.configure(text="%s: %d of %d tiles" % (self._what, rendered,
                                                              render.tileCount))
            return
        self._render = None
        self._cancel.configure(state=tkinter.DISABLED)
        self._text.configure(text="%s: %s, %.1f s" % (self._what, state,
                                                      time.monotonic() - self._start))
        self._attempt(lambda: render.wait(0))
