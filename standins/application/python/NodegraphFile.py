"""Graphs in files: JSON, the nodes in the order of their creation."""

import json

import NodegraphAPI
import NodeTypes
from Utils import WholeFile

_FORMAT = "tavrel graph 1"


class GraphFileError(Exception):
    """Its text is one line for the user."""


class UnknownTypeError(GraphFileError):
    """A node is of a type that no render understands."""


def Text():
    """The graph as a file has it. TypeError or ValueError for a parameter without a form in JSON."""
    root = NodegraphAPI.FindRootNode()
    graph = {
        "format": _FORMAT,
        "root": None if root is None else root.getName(),
        "nodes": [{"name": node.getName(), "type": node.getType(),
                   "parameters": node.getOwnParameters(),
                   "inputs": [each.getName() for each in node.getInputs()]}
                  for node in NodegraphAPI.GetAllNodes()]}
    return json.dumps(graph, indent=1, allow_nan=False) + "\n"


def Save(path):
    """Writes the graph. GraphFileError if that fails; a file that was there is then unchanged."""
    try:
        text = Text()
        WholeFile.Write(path, [text.encode()])
    except OSError as error:
        raise GraphFileError('can\'t write the graph "%s": %s' % (path, error.strerror))
    except (RecursionError, TypeError, ValueError) as error:
        raise GraphFileError('can\'t write the graph "%s", a parameter has no form in JSON: %s'
                             % (path, error))


def _nodeOf(entry):
    name, nodeType, parameters, inputs = (
        entry[key] for key in ("name", "type", "parameters", "inputs"))
    names = [name, nodeType] + inputs
    if not isinstance(parameters, dict) or not all(isinstance(each, str) for each in names):
        raise ValueError("a node is not as it should be")
    return name, nodeType, parameters, inputs


def Restore(text):
    """Puts a graph that Text gave in the place of the present one."""
    graph = json.loads(text)
    NodegraphAPI.ReplaceGraph([_nodeOf(entry) for entry in graph["nodes"]], graph["root"])


def Open(path, anyType=False):
    """Puts the graph of a file in the place of the present one. GraphFileError if the file holds
    none, UnknownTypeError for a node of an unknown type unless `anyType`; then nothing is changed."""
    try:
        with open(path, "rb") as file:
            text = file.read().decode()
        graph = json.loads(text)
        if graph["format"] != _FORMAT:
            raise ValueError("its format is %r" % graph["format"])
        for name, nodeType, _, _ in map(_nodeOf, graph["nodes"]):
            if nodeType not in NodeTypes.NAMES and not anyType:
                raise UnknownTypeError('"%s": the node "%s" is of the unknown type "%s"'
                                       % (path, name, nodeType))
        Restore(text)
    except OSError as error:
        raise GraphFileError('can\'t read the graph "%s": %s' % (path, error.strerror))
    except KeyError as error:
        raise GraphFileError('"%s" is no graph: it has no %s' % (path, error))
    except (RecursionError, TypeError):
        raise GraphFileError('"%s" is no graph: a part of it is not as it should be' % path)
    except ValueError as error:
        raise GraphFileError('"%s" is no graph: %s' % (path, error))
