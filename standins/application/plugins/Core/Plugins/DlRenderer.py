"""The renderer "dl": draws a node's colour over a checkerboard under clouds, tile by tile."""

import TileAPI_cmodule


def RenderTile(parameters, left, top, right, bottom):
    """The tile's pixels, row by row from the top: a bytes object of red, green, blue for each. The
    result depends on nothing but the arguments, and any thread may call it.

    parameters: "color" (three numbers from 0 to 1), "checker" (edge of a square in pixels), "noise"
    (strength of the clouds, 0 to 1), "scale" (their size in pixels), "samples" (points looked at
    along each edge of a pixel, at most 16).
    """
    return TileAPI_cmodule.shadeTile(
        (left, top, right, bottom), tuple(parameters.get("color", (0.18, 0.18, 0.18))),
        parameters.get("checker", 32), parameters.get("noise", 0), parameters.get("scale", 64),
        parameters.get("samples", 1))
