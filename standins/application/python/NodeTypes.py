"""The node types that a render understands, and the values that their parameters take."""

import numbers

NAMES = ("rootNode", "color", "checker", "noise", "samples", "merge", "output")

# As the renderers of the tree have them; a parameter of another name may have any value.
_RANGES = {"checker": (1, 1 << 30), "noise": (0, 1), "scale": (0.01, 1e9), "samples": (1, 16)}


def _isNumber(value, least, most):
    # What is not a number is in no range.
    return (isinstance(value, numbers.Real) and not isinstance(value, bool)
            and least <= value <= most)


def CheckParameter(name, value):
    """ValueError for a value that the parameter doesn't take: its text is one line for the user."""
    if name == "color":
        if not (isinstance(value, (list, tuple)) and len(value) == 3
                and all(_isNumber(each, 0, 1) for each in value)):
            raise ValueError('the parameter "color" takes three numbers from 0 to 1, not %r' % (value,))
    elif name in _RANGES and not _isNumber(value, *_RANGES[name]):
        raise ValueError('the parameter "%s" takes a number from %g to %g, not %r'
                         % (name, *_RANGES[name], value))
