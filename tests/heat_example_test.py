"""The heat example at its smallest sizes, with its VTK files read back by
meshio: every grid of the collections holds exactly the values of the field
file it was written from, on the solvers' points and triangles.

    heat_example_test.py BIN_DIR HEAT_LEFT HEAT_PY   (PYTHONPATH: the lockstep package)
"""
import os
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import numpy


def main() -> int:
    if os.environ.get("LOCKSTEP_SANITIZED") == "ON":
        print("skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load")
        return 77
    try:
        import meshio
    except ImportError:
        print("skipped: meshio is missing (apt-get install python3-meshio)")
        return 77
    binaries, heat_left, heat_py = sys.argv[1:4]
    with tempfile.TemporaryDirectory() as work:
        work = Path(work)
        subprocess.run([sys.executable, heat_py, binaries, heat_left, str(work), "--smallest"], check=True)
        tree = work / "nearest-neighbour-8-8"
        for name, side in (("main", "left"), ("sub1", "right")):
            fields = tree / name / "fields" / "out"
            collection = ElementTree.parse(work / f"heat-{side}.pvd").getroot()
            frames = collection.findall("./Collection/DataSet")
            assert [int(frame.get("timestep")) for frame in frames] == [1, 2, 3, 4]
            for frame in frames:
                grid = meshio.read(work / frame.get("file"))
                cycle = int(frame.get("timestep"))
                expected = numpy.load(fields / ("T-%04d.npy" % cycle))
                # One array name across the steps, as ParaView colours by.
                assert (grid.point_data["T"][:, 0] == expected).all(), frame.get("file")
                assert (grid.points[:, :2] == numpy.load(fields / "grid.npy")).all()
                assert (grid.cells_dict["triangle"] == numpy.load(fields / "cells.npy")).all()
            field = "flux" if name == "main" else "temperature"
            frames = ElementTree.parse(work / f"interface-{side}.pvd").getroot().findall("./Collection/DataSet")
            assert len(frames) == 4
            last = meshio.read(work / frames[-1].get("file"))
            assert (last.point_data[field][:, 0] == numpy.load(fields / f"{field}.npy")).all()
            assert (last.cells_dict["line"] == numpy.load(fields / "segments.npy")).all()
        # Without cells, a vertex a point; several fields in one grid.
        ctl = Path(binaries) / "lockstepctl"
        fields = tree / "main" / "fields" / "out"
        subprocess.run([ctl, "field", "export", "--mesh", fields / "grid.npy", "--output", work / "points.vtu",
                        fields / "T-0001.npy", fields / "T-0004.npy"], check=True)
        points = meshio.read(work / "points.vtu")
        assert (points.cells_dict["vertex"][:, 0] == numpy.arange(len(points.points))).all()
        assert (points.point_data["T-0001"][:, 0] == numpy.load(fields / "T-0001.npy")).all()
        assert (points.point_data["T-0004"][:, 0] == numpy.load(fields / "T-0004.npy")).all()
        # Names that XML reserves characters of, in the array and the file.
        odd = work / 'p&q <"r">.npy'
        shutil.copy(fields / "T-0001.npy", odd)
        (work / "o&o").mkdir()
        subprocess.run([ctl, "field", "export", "--mesh", fields / "grid.npy", "--output", work / "o&o" / "a&b.pvd",
                        odd], check=True)
        frame = ElementTree.parse(work / "o&o" / "a&b.pvd").getroot().find("./Collection/DataSet")
        assert frame.get("file") == "a&b-1.vtu"
        grid = ElementTree.parse(work / "o&o" / "a&b-1.vtu").getroot()
        assert grid.find(".//PointData/DataArray").get("Name") == 'p&q <"r">'
        assert (meshio.read(work / "o&o" / "a&b-1.vtu").point_data['p&q <"r">'][:, 0]
                == numpy.load(fields / "T-0001.npy")).all()
        # Two fields of one cycle are no time series.
        same = subprocess.run([ctl, "field", "export", "--mesh", fields / "grid.npy", "--output", work / "same.pvd",
                               fields / "T-0001.npy", odd], capture_output=True, text=True)
        assert same.returncode == 1
        assert same.stderr == (f"lockstepctl field: {fields / 'T-0001.npy'} and {odd} are both of cycle 1: a .pvd "
                               "collection is a time series of one field file per cycle; give one of them, or write "
                               "both into one .vtu\n"), same.stderr
        assert not (work / "same.pvd").exists()
        print("heat example: VTK files read back by meshio, values equal to the fields'")
    return 0


if __name__ == "__main__":
    sys.exit(main())
