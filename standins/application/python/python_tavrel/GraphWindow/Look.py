"""Colours and sizes that the parts of the window share."""

import tkinter.ttk

BACKGROUND = "#3c3c3c"
FIELD = "#2b2b2b"
TEXT = "#e0e0e0"
FAINT_TEXT = "#909090"
SCROLLER = "#5a5a5a"
HIGHLIGHT = "#4a6a8a"
LINE = "#c0c0c0"
SELECTED = "#ffb347"

PANEL_WIDTH = 362


def Apply(root):
    root.tk_setPalette(background=BACKGROUND, foreground=TEXT, activeBackground=HIGHLIGHT,
                       activeForeground="white", selectBackground=HIGHLIGHT,
                       highlightBackground=BACKGROUND)
    root.option_add("*Entry.background", FIELD)
    root.option_add("*Listbox.background", FIELD)
    # Tk's own file dialog has a white list under the palette's text.
    root.bind_class("TkFDialog", "<Map>", "catch {%%W.contents.icons.cHull.canvas configure -background %s}"
                    % FIELD)
    # As in other applications; Tk's own is the start of the line.
    root.bind_class("Entry", "<Control-a>", "%W selection range 0 end; break")
    style = tkinter.ttk.Style(root)
    style.theme_use("clam")
    style.configure(".", background=BACKGROUND, foreground=TEXT, fieldbackground=FIELD,
                    bordercolor=BACKGROUND, troughcolor=FIELD, lightcolor=BACKGROUND,
                    darkcolor=BACKGROUND, arrowcolor=TEXT)
    style.map(".", background=[("disabled", BACKGROUND)], foreground=[("disabled", FAINT_TEXT)])
    style.configure("Treeview", background=FIELD)
    style.map("TScrollbar", background=[("disabled", BACKGROUND), ("active", HIGHLIGHT)])
    style.configure("TScrollbar", background=SCROLLER)
    style.map("Treeview", background=[("selected", HIGHLIGHT)])
    style.configure("Horizontal.TProgressbar", background=HIGHLIGHT)
