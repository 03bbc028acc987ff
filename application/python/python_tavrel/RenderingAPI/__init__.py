"""Rendering nodes with the renderer plug-ins."""

from RenderingAPI import RenderPlugins


def RenderToFile(node, path, width, height, renderType="disk"):
    """Starts to render a node into a PPM file and returns the render of Nodes2DAPI.

    The renderer is that of DEFAULT_RENDERER. The file appears whole when the render is done, and
    not at all when it is cancelled.
    """
    import os
    import ConfigurationAPI_cmodule as Configuration
    import Nodes2DAPI

    renderer = RenderPlugins.LoadRenderer(Configuration.get("DEFAULT_RENDERER"))
    parameters = node.getParameters()
    rows = [b""] * height

    def renderTile(left, top, right, bottom):
        for y, row in enumerate(renderer.RenderTile(parameters, left, top, right, bottom), top):
            rows[y] += row

    def finish():
        partial = "%s.%d.partial" % (path, os.getpid())
        try:
            with open(partial, "wb") as image:
                image.write(b"P6\n%d %d\n255\n" % (width, height))
                image.writelines(rows)
            os.replace(partial, path)
        except OSError:
            if os.path.exists(partial):
                os.remove(partial)
            raise

    return Nodes2DAPI.StartRender(renderType, width, height, renderTile, finish)
