"""The node graph: nodes with parameters, connected output to input, below one root node."""

from Utils import EventModule

_nodes = {}
_root = None


class Node(object):
    """Made by CreateNode only. The name is unique in the graph."""

    def __init__(self, name, nodeType):
        self._name = name
        self._type = nodeType
        self._parameters = {}
        self._inputs = []

    def getName(self):
        return self._name

    def getType(self):
        return self._type

    def setParameter(self, name, value):
        self._parameters[name] = value
        EventModule.QueueEvent("parameter_set", node=self._name, parameter=name)

    def getParameter(self, name, default=None):
        return self._parameters.get(name, default)

    def getParameters(self):
        """All parameters, those of the inputs included; the node's own win."""
        parameters = {}
        for node in self._inputs:
            parameters.update(node.getParameters())
        parameters.update(self._parameters)
        return parameters

    def connect(self, upstream):
        """Adds an input. A connection that would close a circle is refused with ValueError."""
        if self is upstream or self in upstream.getUpstreamNodes():
            raise ValueError('connecting "%s" to "%s" would close a circle'
                             % (self._name, upstream.getName()))
        self._inputs.append(upstream)
        EventModule.QueueEvent("connected", node=self._name, upstream=upstream.getName())

    def getInputs(self):
        return list(self._inputs)

    def getUpstreamNodes(self):
        """Every node that this one depends on, each once."""
        found = []
        for node in self._inputs:
            for candidate in [node] + node.getUpstreamNodes():
                if candidate not in found:
                    found.append(candidate)
        return found


def CreateNode(nodeType, name=None):
    """A new node. Without a name it is the type's, numbered if need be; a given name that is
    taken raises ValueError."""
    if name is None:
        name, number = nodeType, 1
        while name in _nodes:
            number += 1
            name = "%s%d" % (nodeType, number)
    elif name in _nodes:
        raise ValueError('there is a node "%s" already' % name)
    node = _nodes[name] = Node(name, nodeType)
    EventModule.QueueEvent("node_created", node=name)
    return node


def GetNode(name):
    """The node of that name, or None."""
    return _nodes.get(name)


def GetAllNodes():
    """All nodes in the order of their creation."""
    return list(_nodes.values())


def GetRootNode():
    """The root node, made at the first call."""
    global _root
    if _root is None:
        _root = CreateNode("rootNode")
    return _root


def SetRootNode(node):
    """Makes a node the root. None lets go of the whole graph."""
    global _root
    _root = node
    if node is None:
        _nodes.clear()
        EventModule.QueueEvent("graph_cleared")
