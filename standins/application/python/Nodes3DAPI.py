"""Scenes. Nothing here renders one: what the entry script asks of them is answered."""


def SetRenderThreads(count):
    """None: as many as images have."""


def CancelAllRenders():
    """There is none to cancel."""
