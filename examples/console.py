# Shell mode: lines as one would type them: scripts/run.sh --shell <examples/console.py
import NodegraphAPI

first = NodegraphAPI.CreateNode("color")
first.setParameter("color", (0.9, 0.5, 0.1))
for number in range(3):
    node = NodegraphAPI.CreateNode("merge")
    node.connect(first)
NodegraphAPI.GetAllNodes()
node.getParameters()
