"""The renderer plug-ins of the install tree."""

import PluginSystemAPI_cmodule as PluginSystem


def _plugins():
    return PluginSystem.FindPlugins("renderer")


def GetRendererPluginNames(includeViewer=False):
    """Names in the order of the plug-ins' paths. A viewer shows images and makes none for a file."""
    return [plugin["name"] for plugin in _plugins()
            if includeViewer or plugin.get("viewer") != "yes"]


def LoadRenderer(name):
    """The module of a renderer plug-in; ValueError if there is no such plug-in."""
    import importlib
    import os
    import sys

    for plugin in _plugins():
        if plugin["name"] == name:
            folder = os.path.dirname(plugin["file"])
            if folder not in sys.path:
                sys.path.append(folder)
            return importlib.import_module(plugin["module"])
    raise ValueError('there is no renderer plug-in "%s"' % name)
