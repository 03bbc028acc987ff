"""UI mode: a window with the node graph."""

import sys
import tkinter

import MainPythonFile
import NodegraphAPI
from Utils import EventModule

_NODE_WIDTH = 120
_NODE_HEIGHT = 32
_GAP = 40
_EVENTS_EVERY_MS = 100


class NodegraphWindow(object):
    """Draws the graph, inputs above the nodes that they feed, adds and clears nodes, and shows the
    parameters of the selected one: the newest at first, then the one that was clicked."""

    def __init__(self, root):
        self._root = root
        root.title("Tavrel")
        root.geometry("800x480")
        root.tk_setPalette(background="#3c3c3c", foreground="#e0e0e0",
                           activeBackground="#4a6a8a", activeForeground="white")
        root.protocol("WM_DELETE_WINDOW", root.quit)
        nodes = NodegraphAPI.GetAllNodes()
        self._selected = nodes[-1].getName() if nodes else None
        self._status = tkinter.Label(root, anchor="w", padx=6)
        self._status.pack(side=tkinter.BOTTOM, fill=tkinter.X)
        self._details = tkinter.Label(root, anchor="nw", justify=tkinter.LEFT, width=30, padx=16,
                                      pady=_GAP)
        self._details.pack(side=tkinter.RIGHT, fill=tkinter.Y)
        self._canvas = tkinter.Canvas(root, background="#2b2b2b", highlightthickness=0)
        self._canvas.pack(fill=tkinter.BOTH, expand=True)
        self._canvas.bind("<Configure>", lambda event: self.draw())
        self._canvas.bind("<Button-1>", self._select)
        root.configure(menu=self._menus())
        root.bind("<Control-q>", lambda event: root.quit())
        root.bind("<Control-n>", lambda event: self._create("color"))
        EventModule.RegisterEventHandler(self._onEvent)
        self.draw()
        self._processEvents()

    def _menus(self):
        bar = tkinter.Menu(self._root)
        fileMenu = tkinter.Menu(bar, tearoff=False)
        fileMenu.add_command(label="Quit", accelerator="Ctrl+Q", command=self._root.quit)
        bar.add_cascade(label="File", menu=fileMenu)
        nodes = tkinter.Menu(bar, tearoff=False)
        for nodeType, accelerator in (("color", "Ctrl+N"), ("merge", ""), ("output", "")):
            nodes.add_command(label="New " + nodeType, accelerator=accelerator,
                              command=lambda nodeType=nodeType: self._create(nodeType))
        nodes.add_separator()
        nodes.add_command(label="Clear", command=lambda: NodegraphAPI.SetRootNode(None))
        bar.add_cascade(label="Nodes", menu=nodes)
        return bar

    def _create(self, nodeType):
        """A new node is fed by the one made last."""
        nodes = NodegraphAPI.GetAllNodes()
        node = NodegraphAPI.CreateNode(nodeType)
        if nodes and nodeType != "color":
            node.connect(nodes[-1])

    def _processEvents(self):
        EventModule.ProcessEvents()
        self._root.after(_EVENTS_EVERY_MS, self._processEvents)

    def _onEvent(self, name, arguments):
        self.draw()

    def _positions(self, nodes):
        """Upper left corner of each node: rows by the length of the way down to it, centred."""
        depths, rows, positions = {}, {}, {}

        def depth(node):
            if node.getName() not in depths:
                depths[node.getName()] = 1 + max(map(depth, node.getInputs()), default=-1)
            return depths[node.getName()]

        for node in nodes:
            rows.setdefault(depth(node), []).append(node.getName())
        for row, names in rows.items():
            width = len(names) * (_NODE_WIDTH + _GAP) - _GAP
            left = max(_GAP, (self._canvas.winfo_width() - width) // 2)
            for column, name in enumerate(names):
                positions[name] = (left + column * (_NODE_WIDTH + _GAP),
                                   _GAP + row * (_NODE_HEIGHT + _GAP))
        return positions

    def _select(self, event):
        for name, (x, y) in self._positions(NodegraphAPI.GetAllNodes()).items():
            if 0 <= event.x - x <= _NODE_WIDTH and 0 <= event.y - y <= _NODE_HEIGHT:
                self._selected = name
                self.draw()

    def _describe(self, node):
        """The details of the selected node, those that it has from its inputs included."""
        lines = [node.getName(), "%s node" % node.getType(), ""]
        lines += ["Inputs: %s" % (", ".join(each.getName() for each in node.getInputs()) or "none")]
        lines += ["%s: %s" % item for item in sorted(node.getParameters().items())]
        return "\n".join(lines)

    def _drawNode(self, node, x, y):
        name = node.getName()
        isSelected = name == self._selected
        self._canvas.create_rectangle(x, y, x + _NODE_WIDTH, y + _NODE_HEIGHT,
                                      fill="#4a6a8a", width=2 if isSelected else 1,
                                      outline="#ffb347" if isSelected else "#c0c0c0")
        self._canvas.create_text(x + _NODE_WIDTH // 2, y + _NODE_HEIGHT // 2, text=name,
                                 fill="white")

    def draw(self):
        nodes = NodegraphAPI.GetAllNodes()
        positions = self._positions(nodes)
        self._canvas.delete("all")
        for node in nodes:
            x, y = positions[node.getName()]
            for upstream in node.getInputs():
                fromX, fromY = positions.get(upstream.getName(), (x, y))
                self._canvas.create_line(fromX + _NODE_WIDTH // 2, fromY + _NODE_HEIGHT,
                                         x + _NODE_WIDTH // 2, y, fill="#c0c0c0", width=2)
        for node in nodes:
            self._drawNode(node, *positions[node.getName()])
        selected = NodegraphAPI.GetNode(self._selected)
        self._details.configure(text="" if selected is None else self._describe(selected))
        self._status.configure(text="%d node%s" % (len(nodes), "" if len(nodes) == 1 else "s"))


def Main(options, args):
    """Runs the files, then shows the window until it is closed. Ends the run with one line and
    status 1 if no display can be opened."""
    try:
        root = tkinter.Tk(className="Tavrel")
    except tkinter.TclError as error:
        sys.stderr.write("tavrel: can't open the window: %s; set DISPLAY to an X server, or use "
                         "--batch, --script or --shell\n" % error)
        sys.exit(1)
    try:
        for path in args:
            MainPythonFile.Run([path])
        NodegraphWindow(root)
        root.mainloop()
    finally:
        root.destroy()
