"""The drawing of the graph. Only what is visible is drawn, so that size costs nothing."""

import tkinter
import tkinter.ttk

from GraphWindow import Layout, Look

_STEP = 40


class GraphView(tkinter.Frame):
    """A click selects a node; dragging one node to another connects them; dragging the background
    or with the middle button moves the view, as do wheel, bars and arrow keys.

    onSelect(node) and onConnect(upstream, node) say what the user wants.
    """

    def __init__(self, parent, onSelect, onConnect):
        tkinter.Frame.__init__(self, parent, name="view")
        self._onSelect = onSelect
        self._onConnect = onConnect
        self._layout = Layout.Layout([])
        self._selected = None
        self._left = self._top = 0
        self._grip = None
        self._source = None
        self._canvas = tkinter.Canvas(self, name="canvas", background=Look.FIELD,
                                      highlightthickness=0, takefocus=True)
        self._bars = [tkinter.ttk.Scrollbar(self, orient=orient)
                      for orient in (tkinter.HORIZONTAL, tkinter.VERTICAL)]
        self._bars[0].pack(side=tkinter.BOTTOM, fill=tkinter.X)
        self._bars[1].pack(side=tkinter.RIGHT, fill=tkinter.Y)
        self._canvas.pack(fill=tkinter.BOTH, expand=True)
        self._bars[0].configure(command=lambda *what: self._scroll(0, *what))
        self._bars[1].configure(command=lambda *what: self._scroll(1, *what))
        self._bind()

    def _bind(self):
        bind = self._canvas.bind
        bind("<Configure>", lambda event: self.draw())
        bind("<Button-1>", self._press)
        bind("<B1-Motion>", self._drag)
        bind("<ButtonRelease-1>", self._release)
        bind("<Button-2>", self._grab)
        bind("<B2-Motion>", self._pan)
        for event, x, y in (("Button-4", 0, -1), ("Button-5", 0, 1), ("Up", 0, -1), ("Down", 0, 1),
                            ("Shift-Button-4", -1, 0), ("Shift-Button-5", 1, 0), ("Left", -1, 0),
                            ("Right", 1, 0)):
            bind("<%s>" % event, lambda event, x=x, y=y: self._moveBy(x * _STEP, y * _STEP))

    def bindKey(self, event, command):
        """Has a key do something as long as the graph has the keyboard, as it has after a click."""
        self._canvas.bind(event, lambda _: command())

    def show(self, nodes, selected):
        """Draws a graph anew."""
        self._layout = Layout.Layout(nodes)
        self._selected = selected
        self.draw()

    def select(self, selected):
        self._selected = selected
        self.draw()

    def _extent(self, axis):
        """Length of the graph and of what is visible of it, across (0) or down (1)."""
        if axis == 0:
            return self._layout.width, self._canvas.winfo_width()
        return self._layout.height, self._canvas.winfo_height()

    def _scroll(self, axis, what, number, unit=""):
        """What a scroll bar asks for."""
        whole, visible = self._extent(axis)
        here = (self._left, self._top)[axis]
        if what == "moveto":
            by = int(float(number) * whole) - here
        else:
            by = int(number) * (visible if unit.startswith("page") else _STEP)
        self._moveBy(*((by, 0) if axis == 0 else (0, by)))

    def _moveBy(self, x, y):
        self._left += x
        self._top += y
        self.draw()

    def _press(self, event):
        self._canvas.focus_set()
        node = self._layout.nodeAt(event.x + self._left, event.y + self._top)
        self._grab(event)
        self._source = node
        if node is not None:
            self._onSelect(node)

    def _grab(self, event):
        self._source = None
        self._grip = event.x, event.y

    def _pan(self, event):
        x, y = self._grip or (event.x, event.y)
        self._grip = event.x, event.y
        self._moveBy(x - event.x, y - event.y)

    def _drag(self, event):
        if self._source is None:
            self._pan(event)
            return
        self._canvas.delete("drag")
        self._canvas.create_line(*self._grip, event.x, event.y, fill=Look.SELECTED, width=2,
                                 arrow=tkinter.LAST, tags="drag")

    def _release(self, event):
        source, self._source = self._source, None
        self._canvas.delete("drag")
        target = self._layout.nodeAt(event.x + self._left, event.y + self._top)
        if source is not None and target is not None and target is not source:
            self._onConnect(source, target)

    def _clamp(self, position, axis):
        whole, visible = self._extent(axis)
        if whole <= visible:
            # A small graph stands in the middle, at the top.
            return (whole - visible) // 2 if axis == 0 else 0
        return min(max(0, position), whole - visible)

    def draw(self):
        width, height = self._canvas.winfo_width(), self._canvas.winfo_height()
        self._left, self._top = self._clamp(self._left, 0), self._clamp(self._top, 1)
        for axis, first in enumerate((self._left, self._top)):
            whole, visible = self._extent(axis)
            self._bars[axis].set(max(0, first / whole), min(1, (first + visible) / whole))
        nodes = self._layout.nodesIn(self._left, self._top, self._left + width, self._top + height)
        self._canvas.delete("all")
        lines = {(upstream, node) for node in nodes for upstream in node.getInputs()}
        lines.update((node, downstream) for node in nodes for downstream in node.getOutputs())
        for upstream, node in lines:
            # What has been made since the last event was handled has no place yet.
            if upstream in self._layout and node in self._layout:
                self._drawLine(upstream, node)
        for node in nodes:
            self._drawNode(node)

    def _drawLine(self, upstream, node):
        fromX, fromY = self._layout.corner(upstream)
        x, y = self._layout.corner(node)
        middle = Layout.NODE_WIDTH // 2
        self._canvas.create_line(fromX + middle - self._left,
                                 fromY + Layout.NODE_HEIGHT - self._top,
                                 x + middle - self._left, y - self._top, fill=Look.LINE, width=2)

    def _drawNode(self, node):
        x, y = self._layout.corner(node)
        x, y = x - self._left, y - self._top
        isSelected = node is self._selected
        self._canvas.create_rectangle(x, y, x + Layout.NODE_WIDTH, y + Layout.NODE_HEIGHT,
                                      fill=Look.HIGHLIGHT, width=2 if isSelected else 1,
                                      outline=Look.SELECTED if isSelected else Look.LINE)
        self._canvas.create_text(x + Layout.NODE_WIDTH // 2, y + Layout.NODE_HEIGHT // 2,
                                 text=node.getName(), fill="white")
