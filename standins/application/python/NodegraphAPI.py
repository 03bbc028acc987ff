"""The node graph: nodes with parameters, connected output to input, below one root node.

The graph belongs to the main thread. Every change queues an event of Utils.EventModule.
"""

import NodeTypes
from Utils import EventModule

_nodes = {}
_numbers = {}
_root = None


def _walk(start, neighbours):
    """The nodes that can be reached from one, itself first, each once, in the order of a recursive
    descent that takes the last neighbour first."""
    visited, waiting = set(), [start]
    while waiting:
        node = waiting.pop()
        if node not in visited:
            visited.add(node)
            yield node
            waiting += neighbours(node)


def _reaches(upstream, node):
    """True if `upstream` depends on `node`. Both ends walk towards each other, so that what is
    added at either end of a long chain takes a step."""
    up = _walk(upstream, lambda each: each._inputs)
    down = _walk(node, lambda each: each._outputs)
    return any(one is node or other is upstream for one, other in zip(up, down))


class Node(object):
    """Made by CreateNode only. The name is unique in the graph."""

    def __init__(self, name, nodeType):
        self._name = name
        self._type = nodeType
        self._parameters = {}
        # Dicts for their order, and for finding one of many at once.
        self._inputs = {}
        self._outputs = {}

    def __repr__(self):
        return "<%s node %r>" % (self._type, self._name)

    def getName(self):
        return self._name

    def getType(self):
        return self._type

    def setParameter(self, name, value):
        """ValueError for a value that a render could not use."""
        NodeTypes.CheckParameter(name, value)
        self._parameters[name] = value
        EventModule.QueueEvent("parameter_set", node=self._name, parameter=name)

    def removeParameter(self, name):
        """What the inputs say holds again. KeyError for one that the node itself doesn't have."""
        del self._parameters[name]
        EventModule.QueueEvent("parameter_removed", node=self._name, parameter=name)

    def getOwnParameters(self):
        return dict(self._parameters)

    def getParameters(self):
        """All parameters, those of the inputs included; the node's own win over those of its
        inputs, and a later input's over an earlier one's."""
        parameters = {}
        for node in _walk(self, lambda each: each._inputs):
            for item in node._parameters.items():
                parameters.setdefault(*item)
        return parameters

    def _attach(self, upstream):
        if upstream in self._inputs:
            raise ValueError('"%s" is an input of "%s" already' % (upstream._name, self._name))
        if _reaches(upstream, self):
            raise ValueError('connecting "%s" to "%s" would close a circle'
                             % (self._name, upstream._name))
        self._inputs[upstream] = upstream._outputs[self] = True

    def connect(self, upstream):
        """Adds an input. ValueError for one that it is already, for a connection that would close a
        circle, and where one of the two is not in the graph any more."""
        _requireInGraph(self)
        _requireInGraph(upstream)
        self._attach(upstream)
        EventModule.QueueEvent("connected", node=self._name, upstream=upstream._name)

    def disconnect(self, upstream):
        """ValueError for a node that is no input."""
        if upstream not in self._inputs:
            raise ValueError('"%s" is no input of "%s"' % (upstream._name, self._name))
        del self._inputs[upstream]
        del upstream._outputs[self]
        EventModule.QueueEvent("disconnected", node=self._name, upstream=upstream._name)

    def getInputs(self):
        return list(self._inputs)

    def getOutputs(self):
        return list(self._outputs)

    def getUpstreamNodes(self):
        """Every node that this one depends on, each once, the first input's before the second's."""
        nodes = _walk(self, lambda each: reversed(each.getInputs()))
        next(nodes)
        return list(nodes)


def _requireInGraph(node):
    if _nodes.get(node._name) is not node:
        raise ValueError('"%s" is no node of the graph' % node._name)


def _freeName(nodeType):
    """The type's name, numbered from the second on. Numbers are not used twice."""
    name = nodeType
    while name in _nodes:
        _numbers[nodeType] = _numbers.get(nodeType, 1) + 1
        name = "%s%d" % (nodeType, _numbers[nodeType])
    return name


def CreateNode(nodeType, name=None):
    """A new node. Without a name it is the type's, numbered if need be; a given name that is
    taken raises ValueError."""
    if name is None:
        name = _freeName(nodeType)
    elif name in _nodes:
        raise ValueError('there is a node "%s" already' % name)
    node = _nodes[name] = Node(name, nodeType)
    EventModule.QueueEvent("node_created", node=name)
    return node


def DeleteNode(node):
    """Takes a node out of the graph, with its connections. ValueError for one that isn't in it."""
    global _root
    _requireInGraph(node)
    for upstream in node.getInputs():
        node.disconnect(upstream)
    for downstream in node.getOutputs():
        downstream.disconnect(node)
    del _nodes[node._name]
    if _root is node:
        _root = None
    EventModule.QueueEvent("node_deleted", node=node._name)


def GetNode(name):
    """The node of that name, or None."""
    return _nodes.get(name)


def GetAllNodes():
    """All nodes in the order of their creation."""
    return list(_nodes.values())


def SetRootNode(node):
    """Makes a node the root; ValueError for one that isn't in the graph. None lets go of the whole
    graph."""
    global _root
    if node is not None:
        _requireInGraph(node)
    _root = node
    if node is None:
        _nodes.clear()
        _numbers.clear()
        EventModule.QueueEvent("graph_cleared")


def FindRootNode():
    """The root node, or None if there is none yet."""
    return _root


def ReplaceGraph(nodes, rootName):
    """Puts other nodes in the place of all that there are: (name, type, parameters, names of the
    inputs) each, in order. If they don't make a graph, ValueError, and nothing is changed."""
    global _root
    made = {}
    for name, nodeType, parameters, _ in nodes:
        if name in made:
            raise ValueError('there are two nodes "%s"' % name)
        made[name] = Node(name, nodeType)
        for parameter in parameters.items():
            try:
                NodeTypes.CheckParameter(*parameter)
            except ValueError as error:
                raise ValueError('node "%s": %s' % (name, error))
        made[name]._parameters.update(parameters)
    for name, _, _, inputs in nodes:
        for upstream in inputs:
            if upstream not in made:
                raise ValueError('"%s", an input of "%s", is missing' % (upstream, name))
            made[name]._attach(made[upstream])
    if rootName is not None and rootName not in made:
        raise ValueError('the root node "%s" is missing' % rootName)
    SetRootNode(None)
    _nodes.update(made)
    _root = _nodes.get(rootName)
    EventModule.QueueEvent("graph_replaced", nodes=len(made))
