"""Script mode: a graph file or a graph of its own into an image:

scripts/run.sh --script examples/render.py OUTPUT.ppm [WIDTH HEIGHT [GRAPH.json]]
"""

import sys
import time

import NodegraphAPI
import NodegraphFile
import RenderingAPI

output, *size = sys.argv[1:] or sys.exit("usage: render.py OUTPUT.ppm [WIDTH HEIGHT [GRAPH.json]]")
try:
    width, height = (int(text) for text in size[:2] or ("320", "180"))
    if min(width, height) < 1:
        raise ValueError
except ValueError:
    sys.exit("render.py: width and height are two whole numbers from 1")

if size[2:]:
    try:
        NodegraphFile.Open(size[2])
    except NodegraphFile.GraphFileError as error:
        sys.exit("render.py: %s" % error)
else:
    color = NodegraphAPI.CreateNode("color")
    color.setParameter("color", (0.9, 0.5, 0.1))
    clouds = NodegraphAPI.CreateNode("noise")
    for name, value in (("checker", 20), ("noise", 0.6), ("samples", 4)):
        clouds.setParameter(name, value)
    clouds.connect(color)

nodes = NodegraphAPI.GetAllNodes() or sys.exit("render.py: the graph has no nodes")
start = time.monotonic()
try:
    RenderingAPI.RenderToFile(nodes[-1], output, width, height).wait()
except OSError as error:
    sys.exit('render.py: can\'t write "%s": %s' % (output, error.strerror))
print("%s: %dx%d pixels in %.2f s" % (output, width, height, time.monotonic() - start))
