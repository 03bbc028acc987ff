"""Rendering nodes with the renderer plug-ins.

The renderer is that of DEFAULT_RENDERER. A render works with the parameters that the node has when
it is started.
"""

from RenderingAPI import RenderPlugins


def _loadRenderer():
    import ConfigurationAPI_cmodule as Configuration

    name = Configuration.get("DEFAULT_RENDERER")
    return name, RenderPlugins.LoadRenderer(name)


def RenderToPicture(node, width, height, onTile):
    """Starts to render a preview of a node and returns the render of Nodes2DAPI.

    onTile(left, top, right, bottom, pixels) is called on the render's threads.
    """
    import Nodes2DAPI
    from RenderingAPI import Pictures

    name, renderer = _loadRenderer()
    parameters = node.getParameters()
    key = Pictures.MakeKey(name, parameters, width, height)
    kept = Pictures.Find(key)
    picture = kept or Pictures.Picture(width, height)

    def renderTile(*tile):
        if kept is None:
            picture.paste(*tile, renderer.RenderTile(parameters, *tile))
        onTile(*tile, picture.cut(*tile))

    return Nodes2DAPI.StartRender("preview", width, height, renderTile,
                                  lambda: Pictures.Keep(key, picture))


def RenderToFile(node, path, width, height, renderType="disk"):
    """Starts to render a node into a PPM file and returns the render of Nodes2DAPI.

    The file appears whole when the render is done, and not at all when it is cancelled. OSError,
    before anything is rendered, if it could not be written.
    """
    import Nodes2DAPI
    from RenderingAPI import Pictures
    from Utils import WholeFile

    WholeFile.CheckPlace(path, 3 * width * height)
    _, renderer = _loadRenderer()
    parameters = node.getParameters()
    picture = Pictures.Picture(width, height)

    def renderTile(*tile):
        picture.paste(*tile, renderer.RenderTile(parameters, *tile))

    return Nodes2DAPI.StartRender(renderType, width, height, renderTile,
                                  lambda: WholeFile.Write(path, picture.toPpm()))
