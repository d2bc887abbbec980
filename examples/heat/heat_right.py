"""The heat example's right side, x in [1, 2], in Python: heat_model.Right
stepped one RK4 stage per request, given the left side's flux at x = 1 and
giving it its temperature there.

    heat_right.py DIR N TIME_STEP LAST_CYCLE

Fields: outputs "interface" (y of its points on x = 1), "segments",
"temperature", and "grid", "cells", "T" (the whole temperature), with
"T-CCCC" and "temperature-CCCC" at each cycle end; input "flux".
"""
import sys

import lockstep
from heat_model import Right, grid_cells, segments


def main():
    directory, n, dt, last_cycle = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), int(sys.argv[4])
    project = lockstep.Project(directory)
    right = Right(n, dt)
    project.put("interface", right.y_coordinates)
    project.put("segments", segments(n))
    project.put("grid", right.points())
    project.put("cells", grid_cells(n))
    temperature = right.start()
    project.put("temperature", temperature)
    project.put("T", right.whole())
    for request in project.requests(last_cycle):
        if request.cycle_end:
            project.put("T-%04d" % request.cycle, right.whole())
            project.put("temperature-%04d" % request.cycle, temperature)
            continue
        temperature = right.stage(request.stage, project.get("flux"))
        project.put("temperature", temperature)
        project.put("T", right.whole())


if __name__ == "__main__":
    main()
