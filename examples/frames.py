"""Batch mode: frames as a farm renders them: FRAMES=1-24 scripts/run.sh --batch examples/frames.py

FRAMES is a number, a range or a range with a step, as in 1-24x2; in a Slurm array,
SLURM_ARRAY_TASK_ID names the one frame. The images frame_0001.ppm ... go into the folder
FRAMES_DIR, the current one if that isn't set. Each appears when it is whole: SIGTERM in the middle
leaves none in part.
"""

import os
import re
import sys

import NodegraphAPI
import RenderingAPI


def framesOf(text):
    match = re.fullmatch(r"(\d+)(?:-(\d+)(?:x([1-9]\d*))?)?", text, re.ASCII)
    if match is None:
        sys.exit('frames.py: FRAMES is "%s"; give it as 7, 1-24 or 1-24x2' % text)
    first, last, step = (int(part) if part else None for part in match.groups())
    return range(first, (first if last is None else last) + 1, step or 1) or sys.exit(
        'frames.py: FRAMES is "%s", which names no frame' % text)


frames = framesOf(os.environ.get("SLURM_ARRAY_TASK_ID") or os.environ.get("FRAMES") or "1")
folder = os.environ.get("FRAMES_DIR") or "."
os.makedirs(folder, exist_ok=True)

color = NodegraphAPI.CreateNode("color")
color.setParameter("color", (0.9, 0.5, 0.1))
clouds = NodegraphAPI.CreateNode("noise")
clouds.setParameter("noise", 0.7)
clouds.connect(color)
for frame in frames:
    clouds.setParameter("scale", 20 + frame)
    path = os.path.join(folder, "frame_%04d.ppm" % frame)
    try:
        RenderingAPI.RenderToFile(clouds, path, 320, 180).wait()
    except OSError as error:
        sys.exit('frames.py: can\'t write "%s": %s' % (path, error.strerror))
    print("wrote %s" % path)
