"""The renderer "dl": draws a node's colour over a checkerboard, tile by tile."""


def RenderTile(parameters, left, top, right, bottom):
    """The tile's rows from the top, each a bytes object of red, green, blue for every pixel.

    parameters: "color" (three numbers from 0 to 1), "checker" (edge of a square in pixels).
    """
    color = parameters.get("color", (0.18, 0.18, 0.18))
    edge = max(1, int(parameters.get("checker", 32)))
    light = bytes(max(0, min(255, round(255 * channel))) for channel in color)
    dark = bytes(channel // 2 for channel in light)
    return [b"".join(dark if (x // edge + y // edge) % 2 else light for x in range(left, right))
            for y in range(top, bottom)]
