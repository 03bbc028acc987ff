"""A small graph to look at: scripts/run.sh examples/graph.py, or --shell examples/graph.py"""

import NodegraphAPI

color = NodegraphAPI.CreateNode("color")
checker = NodegraphAPI.CreateNode("checker")
merge = NodegraphAPI.CreateNode("merge")
output = NodegraphAPI.CreateNode("output")
color.setParameter("color", (0.2, 0.4, 0.8))
checker.setParameter("checker", 16)
merge.connect(color)
merge.connect(checker)
output.connect(merge)
