"""Where the nodes of a graph stand: rows by the longest way down to them, inputs above what they
feed."""

NODE_WIDTH = 120
NODE_HEIGHT = 32
GAP = 40
_STEP_X = NODE_WIDTH + GAP
_STEP_Y = NODE_HEIGHT + GAP
# A row of more nodes than this, or than a square picture of the graph has, goes on below.
_LEAST_COLUMNS = 12


def _byDepth(nodes):
    """The nodes in lists, those without inputs first."""
    missing = {node: len(node.getInputs()) for node in nodes}
    depths = {node: 0 for node in nodes if missing[node] == 0}
    ready = list(depths)
    for node in ready:
        for downstream in node.getOutputs():
            depths[downstream] = max(depths.get(downstream, 0), depths[node] + 1)
            missing[downstream] -= 1
            if missing[downstream] == 0:
                ready.append(downstream)
    rows = [[] for _ in range(1 + max(depths.values(), default=-1))]
    for node in nodes:
        rows[depths[node]].append(node)
    return rows


class Layout(object):
    """width, height: of the whole graph with a margin, in pixels."""

    def __init__(self, nodes):
        columns = max(_LEAST_COLUMNS, int(len(nodes) ** 0.5))
        self._rows = [row[first:first + columns] for row in _byDepth(nodes)
                      for first in range(0, len(row), columns)]
        widest = max(map(len, self._rows), default=0)
        self.width = GAP + widest * _STEP_X
        self.height = GAP + len(self._rows) * _STEP_Y
        self._lefts = [GAP + (widest - len(row)) * _STEP_X // 2 for row in self._rows]
        self._places = {node: (column, number) for number, row in enumerate(self._rows)
                        for column, node in enumerate(row)}

    def __len__(self):
        return len(self._places)

    def __contains__(self, node):
        return node in self._places

    def corner(self, node):
        """(x, y) of a node's upper left corner."""
        column, row = self._places[node]
        return self._lefts[row] + column * _STEP_X, GAP + row * _STEP_Y

    def nodesIn(self, left, top, right, bottom):
        """The nodes that a rectangle touches; it takes no longer for those that it doesn't."""
        found = []
        firstRow = max(0, (top - GAP - NODE_HEIGHT) // _STEP_Y)
        for number in range(firstRow, min(len(self._rows), 1 + (bottom - GAP) // _STEP_Y)):
            start = self._lefts[number]
            first = max(0, (left - start - NODE_WIDTH) // _STEP_X)
            found += self._rows[number][first:max(0, 1 + (right - start) // _STEP_X)]
        return [node for node in found if self._touches(node, left, top, right, bottom)]

    def _touches(self, node, left, top, right, bottom):
        x, y = self.corner(node)
        return x <= right and x + NODE_WIDTH >= left and y <= bottom and y + NODE_HEIGHT >= top

    def nodeAt(self, x, y):
        """The node at a point, or None."""
        return next(iter(self.nodesIn(x, y, x, y)), None)
