"""Says what a script sees of the application: scripts/run.sh --script examples/hello.py one two"""

import sys

import NodegraphAPI
import PyUtilModule

print("Hello from Tavrel, %s mode, Python %s." % (PyUtilModule.GetRunMode(), sys.version.split()[0]))
for number, argument in enumerate(sys.argv[1:], 1):
    print("Argument %d: %s" % (number, argument))
node = NodegraphAPI.CreateNode("color", "hello")
node.connect(NodegraphAPI.GetRootNode())
print("The graph holds: %s." % ", ".join(n.getName() for n in NodegraphAPI.GetAllNodes()))
