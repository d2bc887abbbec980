"""A real run that maps in every stage: main's solver in C++ and sub1's in
Python publish meshes that do not match, lockstep-exchange maps main's "u"
onto sub1's mesh and sub1's "w" onto main's, and main re-meshes at the end
of cycle 1 with as many points elsewhere. Every value each solver reads
must be the nearest point's value on the other's mesh as it stood when
that value was written, also after the re-mesh.

    mapping_run_test.py LOCKSTEP LOCKSTEP_EXCHANGE MESH_SOLVER   (PYTHONPATH: the lockstep package)
"""
import os
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy

CYCLES, TIME_STEPS = 3, 2
# Nearest points differ before and after main's re-mesh, without ties.
Y = numpy.array([0.1, 0.44, 0.8, 0.97])


def sub1_solver(directory: Path) -> None:
    import lockstep  # here: in a sanitized build the test is skipped before any import of the module

    project = lockstep.Project(directory)
    served = 0
    with open(directory / "mesh.log", "w") as log:
        def publish(when):
            w = Y * 3 + served
            project.put("y", Y)
            project.put("w", w)
            log.write(f"put {when} {' '.join(map(repr, Y))} | {' '.join(map(repr, w))}\n")
        publish("0 0 0")
        for request in project.requests(CYCLES):
            when = f"{request.cycle} {request.time_step} {request.stage}"
            log.write(f"get {when} {' '.join(map(repr, project.get('v')))}\n")
            served += 1
            publish(when)


def read_log(path: Path):
    puts, gets = [], []
    for line in path.read_text().splitlines():
        kind, cycle, time_step, stage, rest = line.split(" ", 4)
        if kind == "put":
            mesh, values = rest.split(" | ")
            puts.append((numpy.array(mesh.split(), float), numpy.array(values.split(), float)))
        else:
            gets.append(((int(cycle), int(time_step), int(stage)), numpy.array(rest.split(), float)))
    return puts, gets


def expect_mapped(reader: str, gets, writer_puts, meshes) -> int:
    """Each value read is the nearest writer point's value, from the
    writer's put while serving the request before (a cycle-end request
    reads what the last stage did); meshes[k] is the reader's mesh at its
    k-th request."""
    checked = 0
    previous = None
    for k, (request, values) in enumerate(gets):
        if request[1] == -1:
            assert (values == previous).all(), f"{reader} at cycle end {request}: {values} != {previous}"
            continue
        source_mesh, source_values = writer_puts[k]
        nearest = numpy.abs(meshes[k][:, None] - source_mesh[None, :]).argmin(axis=1)
        expected = source_values[nearest]
        assert (values == expected).all(), f"{reader} at {request}: read {values}, expected {expected}"
        previous = values
        checked += 1
    return checked


def main() -> int:
    driver, exchange, mesh_solver = sys.argv[1:4]
    with tempfile.TemporaryDirectory() as work:
        root = Path(work)
        (root / "run").mkdir()
        (root / "run" / "analysis_settings.dat").write_text(
            f"time_step=\n{TIME_STEPS}\ncycle_num=\n{CYCLES}\nnum_subprojects=\n1\n")
        (root / "run" / "exchange.dat").write_text(
            "main u sub1 v map=nearest-neighbour from-mesh=x to-mesh=y\n"
            "sub1 w main w map=nearest-neighbour from-mesh=y to-mesh=x\n")
        for name in ("main", "sub1"):
            (root / name).mkdir()
            (root / name / "go2.dat").write_text("0\n")
            os.symlink(exchange, root / name / "exchange")
            (root / name / "CalculateInteraction.dat").write_text("exchange\n")
        main_solver = subprocess.Popen([mesh_solver, str(root / "main"), str(CYCLES), "1"])
        sub1 = subprocess.Popen([sys.executable, __file__, "--sub1", str(root / "sub1")])
        for name, field in (("main", "u"), ("sub1", "w")):
            while not (root / name / "fields" / "out" / f"{field}.npy").exists():
                if main_solver.poll() is not None or sub1.poll() is not None:
                    print("a solver stopped before publishing", file=sys.stderr)
                    return 1
                os.sched_yield()
        run = subprocess.run([driver], cwd=root / "run", stdout=subprocess.DEVNULL)
        if run.returncode != 0 or main_solver.wait() != 0 or sub1.wait() != 0:
            print("the run failed", file=sys.stderr)
            return 1
        main_puts, main_gets = read_log(root / "main" / "mesh.log")
        sub1_puts, sub1_gets = read_log(root / "sub1" / "mesh.log")
        assert len(main_gets) == len(sub1_gets) == CYCLES * (4 * TIME_STEPS + 1)
        assert not (main_puts[0][0] == main_puts[-1][0]).all(), "main did not re-mesh"
        # main's mesh as it stood when it read each value.
        main_meshes = [main_puts[k][0] for k in range(len(main_gets))]
        checked = expect_mapped("sub1", sub1_gets, main_puts, [Y] * len(sub1_gets))
        checked_main = expect_mapped("main", main_gets, sub1_puts, main_meshes)
        weights = sorted(p.name for p in (root / "run" / "mappings").iterdir())
        print(f"mapping run: {checked} + {checked_main} mapped reads exact, main re-meshed after cycle 1; "
              f"{len(weights)} sets of weights kept")
        assert len(weights) == 4, weights
    return 0


if __name__ == "__main__":
    if os.environ.get("LOCKSTEP_SANITIZED") == "ON":
        print("skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load")
        sys.exit(77)
    if len(sys.argv) == 3 and sys.argv[1] == "--sub1":
        sub1_solver(Path(sys.argv[2]))
        sys.exit(0)
    sys.exit(main())
