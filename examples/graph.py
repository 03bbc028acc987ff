"""UI mode: a small graph to look at, to edit and to render: scripts/run.sh examples/graph.py"""

import NodegraphAPI


def node(nodeType, inputs=(), **parameters):
    made = NodegraphAPI.CreateNode(nodeType)
    for upstream in inputs:
        made.connect(upstream)
    for name, value in parameters.items():
        made.setParameter(name, value)
    return made


color = node("color", color=(0.3, 0.55, 0.95))
checker = node("checker", checker=40)
merge = node("merge", (color, checker))
output = node("output", (merge,))
noise = node("noise", (merge,), noise=0.8, scale=90)
samples = node("samples", (noise,), samples=8)
