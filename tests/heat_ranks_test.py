"""The heat example with its left side on 2 ranks and its right side on 3,
at the smallest sizes, killed whole in the middle of a cycle and resumed:
heat.py fails unless every final temperature equals the serial coupled
run's to 1e-12. Then the VTK files of both runs: all are the serial run's
to the byte (the left side's strips follow the serial numbering, and only
one rank has interface points on the right) but the right side's grids,
which meshio reads back with the same points, values and triangles in the
order of its strips.

    heat_ranks_test.py HEAT_PY BIN_DIR HEAT_LEFT   (PYTHONPATH: the lockstep package)
"""
import os
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy


def by_point(grid, field):
    """The grid's points, values and triangles (as their points'
    coordinates) in an order of their own."""
    points = grid.points[:, :2]
    order = numpy.lexsort((points[:, 0], points[:, 1]))
    triangles = sorted(tuple(sorted(map(tuple, points[cell]))) for cell in grid.cells_dict["triangle"])
    return points[order], grid.point_data[field][order, 0], triangles


def main() -> int:
    if os.environ.get("LOCKSTEP_SANITIZED") == "ON":
        print("skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load")
        return 77
    import meshio

    heat_py, binaries, heat_left = sys.argv[1:4]
    with tempfile.TemporaryDirectory() as work:
        work = Path(work)
        subprocess.run([sys.executable, heat_py, binaries, heat_left, str(work), "--smallest", "--ranks", "2,3",
                        "--stop-and-resume"], check=True)
        serial, parallel = work / "vtk-serial", work / "vtk-on-2-3-ranks"
        files = sorted(path.name for path in serial.iterdir())
        assert files == sorted(path.name for path in parallel.iterdir()) and len(files) == 20, files
        for name in files:
            if name.startswith("heat-right-"):
                one, many = meshio.read(serial / name), meshio.read(parallel / name)
                for a, b in zip(by_point(one, "T"), by_point(many, "T")):
                    assert numpy.array_equal(numpy.asarray(a), numpy.asarray(b)), name
            else:
                assert (serial / name).read_bytes() == (parallel / name).read_bytes(), name
        print(f"heat example on 2 and 3 ranks: {len(files)} VTK files the serial run's")
    return 0


if __name__ == "__main__":
    sys.exit(main())
