"""The window as a whole: its parts, its menus, and what they do to the graph."""

import os
import tkinter
import tkinter.filedialog
import tkinter.messagebox

import MainLogging
import NodegraphAPI
import NodegraphFile
from GraphWindow import Autosave, Look
from GraphWindow.GraphView import GraphView
from GraphWindow.ParameterPanel import ParameterPanel
from GraphWindow.PreviewPanel import PreviewPanel
from Utils import EventModule

_TICK_MS = 50
_AUTOSAVE_MS = 10000
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

    def __init__(self, root, graph=None):
        """graph: path of a file to open, or None."""
        self._root = root
        self._path = None
        nodes = NodegraphAPI.GetAllNodes()
        self._selected = nodes[-1] if nodes else None
        self._isNew = False
        # The graph as it is, was when it was last saved, and was before and behind each edit.
        self._now = self._saved = NodegraphFile.Text()
        self._undone, self._done = [], []
        self._autosave, self._timer = Autosave.Autosave(), None
        root.geometry("1024x640")
        root.minsize(720, 480)
        root.protocol("WM_DELETE_WINDOW", self._quit)
        root.report_callback_exception = self._report
        Look.Apply(root)
        self._status = tkinter.Label(root, name="status", anchor="w", padx=6)
        self._status.pack(side=tkinter.BOTTOM, fill=tkinter.X)
        side = tkinter.Frame(root, name="side", padx=8, pady=8, width=Look.PANEL_WIDTH + 16)
        # However long a name or path is; the status line shows the whole of what the pointer is on.
        side.pack_propagate(False)
        side.pack(side=tkinter.RIGHT, fill=tkinter.Y)
        self._parameters = ParameterPanel(side, self._attempt)
        self._preview = PreviewPanel(side, self._renderSelected, self._attempt)
        self._preview.pack(side=tkinter.BOTTOM, fill=tkinter.X)
        self._parameters.pack(fill=tkinter.BOTH, expand=True, pady=(0, 8))
        self._view = GraphView(root, self._select, lambda upstream, node: self._attempt(
            lambda: node.connect(upstream)))
        self._view.pack(fill=tkinter.BOTH, expand=True)
        self._addMenus()
        root.bind_class("Label", "<Enter>", self._showWhole)
        self._show()
        self._showTitle()
        self._tick()
        if graph is not None:
            self._attempt(lambda: self._openFile(graph))

    def _showWhole(self, event):
        if event.widget.winfo_reqwidth() > event.widget.winfo_width():
            self._status.configure(text=event.widget.cget("text"))

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
                          ("Quit", "Ctrl+Q", self._quit))),
                ("Edit", (("Undo", "Ctrl+Z", lambda: self._step(self._done, self._undone)),
                          ("Redo", "Ctrl+Shift+Z", lambda: self._step(self._undone, self._done)))),
                ("Nodes", (*create, ("Delete", "Del", self._delete),
                           ("Render", "Ctrl+R", self._renderSelected),
                           ("Clear", "", self._clear))),
                ("View", (("Show All", "F", self._view.frame),))):
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
            result = function()
            self._showCount()
            return result
        except (MemoryError, NodegraphFile.GraphFileError, OSError, TypeError, ValueError) as error:
            self._status.configure(text=str(error))
            return None

    def _tick(self):
        # First, so that nothing that goes wrong below can be the last.
        self._root.after(_TICK_MS, self._tick)
        if EventModule.ProcessEvents():
            self._noteEdit()
            self._show()
            self._preview.markOld()
        self._preview.tick()

    def _noteEdit(self):
        try:
            text = NodegraphFile.Text()
        except (TypeError, ValueError):
            # A script has set a parameter without a form in JSON: it can't be taken back.
            return
        if text != self._now:
            self._done.append(self._now)
            self._undone.clear()
            self._now = text
            self._noteChange()

    def offerAutosave(self):
        """Asks for the graph that a run has left which crashed."""
        path = Autosave.Find()
        if path is None:
            return
        if tkinter.messagebox.askyesno("Tavrel", "tavrel ended before a graph was saved. Open it?",
                                       parent=self._root):
            self._attempt(lambda: self._openFile(path + ".json"))
            # It has no file of the user's yet.
            self._path, self._saved = None, ""
            self._noteChange()
        Autosave.Remove(path)

    def _noteChange(self):
        self._showTitle()
        if self._now == self._saved:
            self._autosave.forget()
        elif self._timer is None:
            self._timer = self._root.after(_AUTOSAVE_MS, self._keep)

    def _keep(self):
        self._timer = None
        if self._now != self._saved:
            self._autosave.save(self._now)

    def _step(self, fromSteps, toSteps):
        """Takes the last edit back, or makes it again."""
        if fromSteps:
            toSteps.append(self._now)
            self._now = fromSteps.pop()
            NodegraphFile.Restore(self._now)
            self._noteChange()

    def _showTitle(self):
        name = os.path.basename(self._path) if self._path else "untitled"
        mark = "" if self._now == self._saved else " (changed)"
        self._root.title("%s%s - Tavrel" % (name, mark))

    def _mayDrop(self):
        """Whether the graph may go: it is saved, or the user has been asked."""
        if self._now == self._saved:
            return True
        answer = tkinter.messagebox.askyesnocancel(
            "Tavrel", "Save the changes of the graph?", parent=self._root)
        if answer:
            self._save()
        if answer is False:
            self._autosave.forget()
        return self._now == self._saved or answer is False

    def _quit(self):
        if self._mayDrop():
            self._root.quit()

    def _clear(self):
        if self._mayDrop():
            NodegraphAPI.SetRootNode(None)

    def _show(self):
        nodes = NodegraphAPI.GetAllNodes()
        if not self._isInGraph(self._selected):
            # After undo there is another node of the name.
            self._selected = self._selected and NodegraphAPI.GetNode(self._selected.getName())
        self._view.show(nodes, self._selected)
        self._view.select(self._selected, reveal=self._isNew)
        self._isNew = False
        self._parameters.show(self._selected)
        self._showCount()

    def _showCount(self):
        count = len(NodegraphAPI.GetAllNodes())
        self._status.configure(text="%d node%s" % (count, "" if count == 1 else "s"))

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
        self._selected, self._isNew = node, True

    def _delete(self):
        if self._isInGraph(self._selected):
            NodegraphAPI.DeleteNode(self._selected)

    def _renderSelected(self):
        if self._selected is not None:
            self._preview.renderPreview(self._selected)
        else:
            self._status.configure(text="select a node to render")

    def _renderToFile(self):
        if self._selected is None:
            self._status.configure(text="select a node to render")
            return
        path = tkinter.filedialog.asksaveasfilename(
            parent=self._root, defaultextension=".ppm", filetypes=[("PPM picture", "*.ppm")])
        if path:
            self._preview.renderToFile(self._selected, path, *_FILE_SIZE)

    def _open(self):
        if not self._mayDrop():
            return
        path = tkinter.filedialog.askopenfilename(parent=self._root,
                                                  filetypes=[("Graph", "*.json")])
        if path:
            self._attempt(lambda: self._openFile(path))

    def _openFile(self, path):
        try:
            NodegraphFile.Open(path)
        except NodegraphFile.UnknownTypeError as error:
            if not tkinter.messagebox.askyesno(
                    "Tavrel", "%s. Open the graph all the same?" % error, parent=self._root):
                raise
            NodegraphFile.Open(path, anyType=True)
        nodes = NodegraphAPI.GetAllNodes()
        self._selected = nodes[-1] if nodes else None
        self._noteSaved(path)
        self._done.clear()
        self._view.frame()

    def _noteSaved(self, path):
        self._path = path
        self._now = self._saved = NodegraphFile.Text()
        self._undone.clear()
        self._noteChange()

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
        self._noteSaved(path)
        self._root.after_idle(lambda: self._status.configure(text='saved "%s"' % path))
