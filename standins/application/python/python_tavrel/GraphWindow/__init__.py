"""The window: the graph, the parameters of the selected node, its preview.

Everything here runs on the main thread, in Tk's main loop.
"""

from GraphWindow.Window import Window
