"""Renders one frame into the current folder: sbatch array.sbatch frame.py"""

import os

import NodegraphAPI
import RenderingAPI

frame = int(os.environ.get("SLURM_ARRAY_TASK_ID", "1"))

color = NodegraphAPI.CreateNode("color")
color.setParameter("color", (0.9, 0.5, 0.1))
checker = NodegraphAPI.CreateNode("checker")
checker.setParameter("checker", frame)
checker.connect(color)

path = "frame_%04d.ppm" % frame
RenderingAPI.RenderToFile(checker, path, 320, 180).wait()
print("wrote %s" % path)
