"""Renders an image: scripts/run.sh --script examples/render.py OUTPUT.ppm [WIDTH HEIGHT]"""

import sys

import AnalyzeThat
import NodegraphAPI
import RenderingAPI

if len(sys.argv) not in (2, 4):
    sys.exit("usage: render.py OUTPUT.ppm [WIDTH HEIGHT]")
width, height = (int(text) for text in sys.argv[2:]) if len(sys.argv) == 4 else (320, 180)

color = NodegraphAPI.CreateNode("color")
color.setParameter("color", (0.9, 0.5, 0.1))
checker = NodegraphAPI.CreateNode("checker")
checker.setParameter("checker", 20)
checker.connect(color)

RenderingAPI.RenderToFile(checker, sys.argv[1], width, height).wait()
print("%s: %dx%d pixels after %.2f s" % (sys.argv[1], width, height, AnalyzeThat.GetRunSeconds()))
