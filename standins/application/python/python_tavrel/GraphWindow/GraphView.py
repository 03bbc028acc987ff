"""The drawing of the graph. Only what is visible is drawn, so that size costs nothing."""

import tkinter
import tkinter.ttk

from GraphWindow import Layout, Look

_STEP = 40
_ZOOM = 1.25
_LEAST_SCALE = 0.02
_MOST_SCALE = 2
# Below it a node has no room for its name, which is cut to so many letters.
_READABLE = 0.7
_LETTERS = 15
# What stays visible of a graph that is moved away, in pixels.
_MARGIN = 40


class GraphView(tkinter.Frame):
    """A click selects a node; dragging one node to another connects them; dragging the background
    or with the middle button moves the view, as do bars and arrow keys; the wheel and the keys +
    and - zoom, F shows the whole graph.

    onSelect(node) and onConnect(upstream, node) say what the user wants.
    """

    def __init__(self, parent, onSelect, onConnect):
        tkinter.Frame.__init__(self, parent, name="view")
        self._onSelect = onSelect
        self._onConnect = onConnect
        self._layout = Layout.Layout([])
        self._selected = None
        # Pixels of the screen: of a unit of the layout, and where the canvas begins in the graph.
        self._scale = 1
        self._left = self._top = 0
        self._isFramed = True
        self._outlines = {}
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
        bind("<Configure>", lambda event: self.frame() if self._isFramed else self.draw())
        bind("<Button-1>", self._press)
        bind("<B1-Motion>", self._drag)
        bind("<ButtonRelease-1>", self._release)
        bind("<Button-2>", self._grab)
        bind("<B2-Motion>", self._pan)
        bind("<Button-4>", lambda event: self._zoom(_ZOOM, event.x, event.y))
        bind("<Button-5>", lambda event: self._zoom(1 / _ZOOM, event.x, event.y))
        for key, by in (("plus", _ZOOM), ("minus", 1 / _ZOOM)):
            bind("<%s>" % key, lambda event, by=by: self._zoom(
                by, self._canvas.winfo_width() / 2, self._canvas.winfo_height() / 2))
        bind("<f>", lambda event: self.frame())
        for event, x, y in (("Up", 0, -1), ("Down", 0, 1), ("Shift-Button-4", -1, 0),
                            ("Shift-Button-5", 1, 0), ("Left", -1, 0), ("Right", 1, 0)):
            bind("<%s>" % event, lambda event, x=x, y=y: self._moveBy(x * _STEP, y * _STEP))

    def bindKey(self, event, command):
        """Has a key do something as long as the graph has the keyboard, as it has after a click."""
        self._canvas.bind(event, lambda _: command())

    def show(self, nodes, selected):
        """Draws a graph anew."""
        self._layout = Layout.Layout(nodes)
        self._selected = selected
        if self._isFramed:
            self.frame()
        else:
            self.draw()

    def select(self, selected, reveal=False):
        """Marks a node, or none; with `reveal` the view moves to it."""
        for node in (self._selected, selected):
            if node in self._outlines:
                self._canvas.itemconfigure(self._outlines[node], **self._outline(node is selected))
        self._selected = selected
        if reveal and selected in self._layout and not self._isVisible(selected):
            x, y = self._layout.corner(selected)
            self._left = int((x + Layout.NODE_WIDTH / 2) * self._scale) - self._canvas.winfo_width() // 2
            self._top = int((y + Layout.NODE_HEIGHT / 2) * self._scale) - self._canvas.winfo_height() // 2
            self._isFramed = False
            self.draw()

    def frame(self):
        """Shows the whole graph, no larger than it is."""
        width, height = self._canvas.winfo_width(), self._canvas.winfo_height()
        self._scale = max(_LEAST_SCALE, min(1, width / self._layout.width, height / self._layout.height))
        self._left = self._top = 0
        self._isFramed = True
        self.draw()

    def _zoom(self, by, x, y):
        """The point of the graph that is at (x, y) stays there."""
        scale = min(_MOST_SCALE, max(_LEAST_SCALE, self._scale * by))
        self._left = int((self._left + x) * scale / self._scale - x)
        self._top = int((self._top + y) * scale / self._scale - y)
        self._scale = scale
        self._isFramed = False
        self.draw()

    def _isVisible(self, node):
        x, y = (place * self._scale for place in self._layout.corner(node))
        return (self._left <= x and x + Layout.NODE_WIDTH * self._scale
                <= self._left + self._canvas.winfo_width()
                and self._top <= y and y + Layout.NODE_HEIGHT * self._scale
                <= self._top + self._canvas.winfo_height())

    def _extent(self, axis):
        """Length of the graph and of what is visible of it, across (0) or down (1), in pixels."""
        if axis == 0:
            return int(self._layout.width * self._scale), self._canvas.winfo_width()
        return int(self._layout.height * self._scale), self._canvas.winfo_height()

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
        self._isFramed = False
        self.draw()

    def _nodeAt(self, event):
        return self._layout.nodeAt(int((event.x + self._left) / self._scale),
                                   int((event.y + self._top) / self._scale))

    def _press(self, event):
        self._canvas.focus_set()
        node = self._nodeAt(event)
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
        target = self._nodeAt(event)
        if source is not None and target is not None and target is not source:
            self._onConnect(source, target)

    def _clamp(self, position, axis):
        whole, visible = self._extent(axis)
        if self._isFramed:
            # In the middle, at the top.
            return (whole - visible) // 2 if axis == 0 else 0
        # Moved anywhere, but not out of sight.
        return min(max(_MARGIN - visible, position), whole - _MARGIN)

    def draw(self):
        width, height = self._canvas.winfo_width(), self._canvas.winfo_height()
        self._left, self._top = self._clamp(self._left, 0), self._clamp(self._top, 1)
        for axis, first in enumerate((self._left, self._top)):
            whole, visible = self._extent(axis)
            self._bars[axis].set(max(0, first / max(whole, 1)), min(1, (first + visible) / max(whole, 1)))
        nodes = self._layout.nodesIn(
            int(self._left / self._scale), int(self._top / self._scale),
            int((self._left + width) / self._scale), int((self._top + height) / self._scale))
        self._canvas.delete("all")
        self._outlines = {}
        if not self._layout:
            self._canvas.create_text(width // 2, height // 2, fill=Look.FAINT_TEXT, justify="center",
                                     text="Make a node with the menu Nodes,\nor open a graph with Ctrl+O.")
        lines = {(upstream, node) for node in nodes for upstream in node.getInputs()}
        lines.update((node, downstream) for node in nodes for downstream in node.getOutputs())
        for upstream, node in lines:
            # What has been made since the last event was handled has no place yet.
            if upstream in self._layout and node in self._layout:
                self._drawLine(upstream, node)
        for node in nodes:
            self._drawNode(node)

    def _place(self, node, across, down):
        """A point of a node, from its upper left corner on, in the canvas."""
        x, y = self._layout.corner(node)
        return (x + across) * self._scale - self._left, (y + down) * self._scale - self._top

    def _drawLine(self, upstream, node):
        middle = Layout.NODE_WIDTH // 2
        self._canvas.create_line(*self._place(upstream, middle, Layout.NODE_HEIGHT),
                                 *self._place(node, middle, 0), fill=Look.LINE,
                                 width=2 if self._scale > _READABLE else 1)

    @staticmethod
    def _outline(isSelected):
        return {"width": 2 if isSelected else 1,
                "outline": Look.SELECTED if isSelected else Look.LINE}

    def _drawNode(self, node):
        self._outlines[node] = self._canvas.create_rectangle(
            *self._place(node, 0, 0), *self._place(node, Layout.NODE_WIDTH, Layout.NODE_HEIGHT),
            fill=Look.HIGHLIGHT, **self._outline(node is self._selected))
        if self._scale > _READABLE:
            name = node.getName()
            self._canvas.create_text(
                *self._place(node, Layout.NODE_WIDTH // 2, Layout.NODE_HEIGHT // 2), fill="white",
                text=name if len(name) <= _LETTERS else name[:_LETTERS - 1] + "\u2026")
