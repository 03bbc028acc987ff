"""The window as a whole: its parts, its menus, and what they do to the graph."""

import tkinter
import tkinter.filedialog

import MainLogging
import NodegraphAPI
import NodegraphFile
from GraphWindow import Look
from GraphWindow.GraphView import GraphView
from GraphWindow.ParameterPanel import ParameterPanel
from GraphWindow.PreviewPanel import PreviewPanel
from Utils import EventModule

_TICK_MS = 50
_FILE_SIZE = 1920, 1080
# What a new node of each type begins with.
_NODE_TYPES = (
    ("color", {"color": (0.9, 0.5, 0.1)}),
    ("checker", {"checker": 32}),
    ("noise", {"noise": 0.5, "scale": 64}),
    ("samples", {"samples": 8}),
    ("merge", {}),
    ("output", {}),
)


class Window(object):
    """Shows the graph until Tk's main loop ends. Events are drained, then everything is drawn once,
    so that a large change costs no more than a small one."""

    def __init__(self, root):
        self._root = root
        self._path = None
        nodes = NodegraphAPI.GetAllNodes()
        self._selected = nodes[-1] if nodes else None
        root.title("Tavrel")
        root.geometry("1024x640")
        root.protocol("WM_DELETE_WINDOW", root.quit)
        root.report_callback_exception = self._report
        Look.Apply(root)
        self._status = tkinter.Label(root, name="status", anchor="w", padx=6)
        self._status.pack(side=tkinter.BOTTOM, fill=tkinter.X)
        side = tkinter.Frame(root, name="side", padx=8, pady=8)
        side.pack(side=tkinter.RIGHT, fill=tkinter.Y)
        self._parameters = ParameterPanel(side, self._attempt)
        self._preview = PreviewPanel(side, self._renderSelected, self._attempt)
        self._preview.pack(side=tkinter.BOTTOM, fill=tkinter.X)
        self._parameters.pack(fill=tkinter.BOTH, expand=True, pady=(0, 8))
        self._view = GraphView(root, self._select, lambda upstream, node: self._attempt(
            lambda: node.connect(upstream)))
        self._view.pack(fill=tkinter.BOTH, expand=True)
        self._addMenus()
        self._show()
        self._tick()

    def _addMenus(self):
        bar = tkinter.Menu(self._root)
        create = [("New " + nodeType, "Ctrl+N" if nodeType == "color" else "",
                   lambda entry=(nodeType, parameters): self._create(*entry))
                  for nodeType, parameters in _NODE_TYPES]
        for label, entries in (
                ("File", (("Open...", "Ctrl+O", self._open),
                          ("Save", "Ctrl+S", self._save),
                          ("Save As...", "Ctrl+Shift+S", self._saveAs),
                          ("Render %dx%d to File..." % _FILE_SIZE, "", self._renderToFile),
                          ("Quit", "Ctrl+Q", self._root.quit))),
                ("Nodes", (*create, ("Delete", "Del", self._delete),
                           ("Render", "Ctrl+R", self._renderSelected),
                           ("Clear", "", lambda: NodegraphAPI.SetRootNode(None))))):
            menu = tkinter.Menu(bar, tearoff=False)
            for text, accelerator, command in entries:
                menu.add_command(label=text, accelerator=accelerator, command=command)
                if accelerator.startswith("Ctrl"):
                    self._bind(accelerator, command)
            bar.add_cascade(label=label, menu=menu)
        self._root.configure(menu=bar)
        # Not in the whole window: who types in a field deletes characters.
        self._view.bindKey("<Delete>", self._delete)

    def _bind(self, accelerator, command):
        *modifiers, key = accelerator.replace("Ctrl", "Control").split("+")
        key = key if "Shift" in modifiers else key.lower()
        self._root.bind("<%s>" % "-".join([*modifiers, key]), lambda event: command())

    def _report(self, *failure):
        """What an event's handler has raised goes to the hook, and the next event is handled."""
        try:
            # Not at once: the log would print an exception twice that is being handled.
            self._root.after_idle(lambda: MainLogging.ReportException(*failure))
        except tkinter.TclError:
            # The window is gone, and that is what a dialog on the way out complains of.
            pass

    def _attempt(self, function):
        """The function's result; None if it fails as a wish may, which the status line shows."""
        try:
            return function()
        except (MemoryError, NodegraphFile.GraphFileError, OSError, TypeError, ValueError) as error:
            self._status.configure(text=str(error))
            return None

    def _tick(self):
        # First, so that nothing that goes wrong below can be the last.
        self._root.after(_TICK_MS, self._tick)
        if EventModule.ProcessEvents():
            self._show()
        self._preview.tick()

    def _show(self):
        nodes = NodegraphAPI.GetAllNodes()
        if not self._isInGraph(self._selected):
            self._selected = nodes[-1] if nodes else None
        self._view.show(nodes, self._selected)
        self._parameters.show(self._selected)
        self._status.configure(text="%d node%s" % (len(nodes), "" if len(nodes) == 1 else "s"))

    @staticmethod
    def _isInGraph(node):
        return node is not None and NodegraphAPI.GetNode(node.getName()) is node

    def _select(self, node):
        self._selected = node
        self._view.select(node)
        self._parameters.show(node)

    def _create(self, nodeType, parameters):
        """A new node is fed by the selected one, but for a colour, which begins something new."""
        node = NodegraphAPI.CreateNode(nodeType)
        for item in parameters.items():
            node.setParameter(*item)
        if self._isInGraph(self._selected) and nodeType != "color":
            node.connect(self._selected)
        self._selected = node

    def _delete(self):
        if self._isInGraph(self._selected):
            NodegraphAPI.DeleteNode(self._selected)

    def _renderSelected(self):
        if self._selected is not None:
            self._preview.renderPreview(self._selected)

    def _renderToFile(self):
        path = tkinter.filedialog.asksaveasfilename(
            parent=self._root, defaultextension=".ppm", filetypes=[("PPM picture", "*.ppm")])
        if path and self._selected is not None:
            self._preview.renderToFile(self._selected, path, *_FILE_SIZE)

    def _open(self):
        path = tkinter.filedialog.askopenfilename(parent=self._root,
                                                  filetypes=[("Graph", "*.json")])
        if path:
            self._attempt(lambda: self._openFile(path))

    def _openFile(self, path):
        NodegraphFile.Open(path)
        self._path = path

    def _save(self):
        if self._path is None:
            self._saveAs()
        else:
            self._attempt(lambda: self._saveFile(self._path))

    def _saveAs(self):
        path = tkinter.filedialog.asksaveasfilename(
            parent=self._root, defaultextension=".json", filetypes=[("Graph", "*.json")])
        if path:
            self._attempt(lambda: self._saveFile(path))

    def _saveFile(self, path):
        NodegraphFile.Save(path)
        self._path = path
        self._status.configure(text='saved "%s"' % path)
