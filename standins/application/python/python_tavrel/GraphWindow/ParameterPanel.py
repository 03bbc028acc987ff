"""The selected node's parameters and inputs, to look at and to edit."""

import ast
import tkinter
import tkinter.ttk

import NodegraphAPI
from GraphWindow import Look


def _value(text):
    """What a text means in Python, or else the text itself."""
    try:
        return ast.literal_eval(text.strip())
    except (MemoryError, RecursionError, SyntaxError, ValueError):
        return text


class ParameterPanel(tkinter.Frame):
    """attempt(function) is called for what may be refused, and shows the refusal."""

    def __init__(self, parent, attempt):
        tkinter.Frame.__init__(self, parent, name="parameters")
        self._attempt = attempt
        self._node = None
        self._shown = {}
        self._title = tkinter.Label(self, name="title", anchor="w")
        self._title.pack(fill=tkinter.X)
        self._addList()
        self._name, self._setting = self._addRow(
            ("name", 10), ("value", 16),
            buttons=(("set", "Set", self._set), ("remove", "Remove", self._remove)))
        self._setting.bind("<Return>", lambda event: self._set())
        tkinter.Label(self, text="Inputs", anchor="w").pack(fill=tkinter.X)
        self._inputs = tkinter.Listbox(self, name="inputs", height=3, exportselection=False)
        self._inputs.pack(fill=tkinter.X)
        self._input, = self._addRow(
            ("input", 16), buttons=(("connect", "Connect", self._connect),
                                    ("disconnect", "Disconnect", self._disconnect)))
        self._input.bind("<Return>", lambda event: self._connect())

    def _addList(self):
        self._list = tkinter.ttk.Treeview(self, name="list", columns=("value",), height=6,
                                          selectmode="browse")
        self._list.heading("#0", text="Parameter", anchor="w")
        self._list.heading("value", text="Value", anchor="w")
        self._list.column("#0", width=Look.PANEL_WIDTH * 2 // 5)
        self._list.column("value", width=Look.PANEL_WIDTH * 3 // 5)
        self._list.tag_configure("inherited", foreground=Look.FAINT_TEXT)
        self._list.bind("<<TreeviewSelect>>", lambda event: self._pick())
        self._list.pack(fill=tkinter.BOTH, expand=True)

    def _addRow(self, *entries, buttons):
        row = tkinter.Frame(self, name=entries[0][0] + "Row")
        row.pack(fill=tkinter.X, pady=4)
        fields = [tkinter.Entry(row, name=name, width=width) for name, width in entries]
        for field in fields:
            field.pack(side=tkinter.LEFT, fill=tkinter.X, expand=True)
        for name, text, command in buttons:
            tkinter.Button(row, name=name, text=text, padx=6, pady=1,
                           command=command).pack(side=tkinter.LEFT)
        return fields

    def show(self, node):
        """Shows a node, or nothing for None. What the user is typing stays."""
        if node is not self._node:
            for field in (self._name, self._setting, self._input):
                field.delete(0, tkinter.END)
        self._node = node
        self._title.configure(text="" if node is None else "%s, of type %s" % (node.getName(),
                                                                               node.getType()))
        self._inputs.delete(0, tkinter.END)
        self._list.delete(*self._list.get_children())
        self._shown = {}
        if node is None:
            return
        self._inputs.insert(tkinter.END, *(each.getName() for each in node.getInputs()))
        own = node.getOwnParameters()
        for name, value in sorted(node.getParameters().items()):
            row = self._list.insert("", tkinter.END, text=name, values=(repr(value),),
                                    tags=() if name in own else ("inherited",))
            self._shown[row] = name, repr(value)

    def _pick(self):
        for row in self._list.selection():
            for field, text in zip((self._name, self._setting), self._shown[row]):
                field.delete(0, tkinter.END)
                field.insert(0, text)

    def _set(self):
        name = self._name.get().strip()
        if self._node is not None and name:
            self._attempt(lambda: self._node.setParameter(name, _value(self._setting.get())))

    def _remove(self):
        name = self._name.get().strip()
        if self._node is not None and name in self._node.getOwnParameters():
            self._node.removeParameter(name)

    def _connect(self):
        node, name = self._node, self._input.get().strip()
        if node is None or not name:
            return

        def connect():
            upstream = NodegraphAPI.GetNode(name)
            if upstream is None:
                raise ValueError('there is no node "%s"' % name)
            node.connect(upstream)
        self._attempt(connect)

    def _disconnect(self):
        for index in self._inputs.curselection():
            for upstream in self._node.getInputs():
                if upstream.getName() == self._inputs.get(index):
                    self._node.disconnect(upstream)
