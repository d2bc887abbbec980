"""The mapping against SciPy on the same points, and a stage of
lockstep-exchange applying stored weights, as a whole process. Prints one
JSON object.

    mapping.py EXCHANGE_BINARY   (PYTHONPATH: the lockstep package)

The points: 20,000 Halton points in the unit cube mapped to 30,000 random
points in [0.05, 0.95]^3, Franke's 3-D function as the values; 5,000 random
points on the unit sphere mapped to 5,000 others; then 33,000 Halton points
to 98,000 random ones through lockstep-exchange. The largest absolute row
sum of the weights (the Lebesgue constant: how much noise in the values
can grow) is SciPy's too: its weights for each target, the interpolant of
the unit vectors over the target's 50 neighbours.
"""
import json
import math
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy
from scipy.interpolate import RBFInterpolator
from scipy.sparse import coo_matrix
from scipy.spatial import cKDTree
from scipy.stats import qmc

import lockstep


def franke(p):
    x, y, z = 9 * p[:, 0], 9 * p[:, 1], 9 * p[:, 2]
    return (0.75 * numpy.exp(-((x - 2) ** 2 + (y - 2) ** 2 + (z - 2) ** 2) / 4)
            + 0.75 * numpy.exp(-((x + 1) ** 2) / 49 - (y + 1) / 10 - (z + 1) / 10)
            + 0.5 * numpy.exp(-((x - 7) ** 2 + (y - 3) ** 2 + (z - 5) ** 2) / 4)
            - 0.2 * numpy.exp(-(x - 4) ** 2 - (y - 7) ** 2 - (z - 5) ** 2))


def points(sources: int, targets: int):
    source = qmc.Halton(3, seed=1).random(sources)
    target = 0.05 + 0.9 * numpy.random.default_rng(2).random((targets, 3))
    return source, target


def best_of(runs: int, work):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        result = work()
        times.append(time.perf_counter() - start)
    return min(times), result


def on_sphere(count: int, seed: int):
    points = numpy.random.default_rng(seed).normal(size=(count, 3))
    return points / numpy.linalg.norm(points, axis=1)[:, None]


def scipy_largest_row_sum(source, target) -> float:
    """RBFInterpolator(neighbors=50, kernel='quintic') takes each target's
    value from its 50 nearest sources: its weights are that local
    interpolant of the unit vectors, evaluated at the target."""
    _, neighbours = cKDTree(source).query(target, k=50)
    unit = numpy.eye(50)
    return max(float(numpy.abs(RBFInterpolator(source[near], unit, kernel="quintic")(point[None])).sum())
               for near, point in zip(neighbours, target))


def largest_row_sum(weights) -> float:
    rows, columns, values, shape = weights
    return float(numpy.abs(coo_matrix((values, (rows, columns)), shape).tocsr()).sum(axis=1).max())


def relative_error(values, exact):
    return float(numpy.linalg.norm(values - exact) / numpy.linalg.norm(exact))


def against_scipy() -> dict:
    source, target = points(20000, 30000)
    values, exact = franke(source), franke(target)

    def nearest():
        rows, columns, weights, shape = lockstep.mapping_weights(source, target)
        return coo_matrix((weights, (rows, columns)), shape).tocsr() @ values

    ours_nn, mapped = best_of(3, nearest)
    scipy_nn, _ = best_of(3, lambda: cKDTree(source).query(target))

    def pum():
        return lockstep.mapping_weights(source, target, map="rbf-pum")

    ours_pum, (rows, columns, weights, shape) = best_of(3, pum)
    pum_error = relative_error(coo_matrix((weights, (rows, columns)), shape).tocsr() @ values, exact)
    scipy_pum, interpolated = best_of(3, lambda: RBFInterpolator(source, values, neighbors=50,
                                                                 kernel="quintic")(target))
    sphere, others = on_sphere(5000, 3), on_sphere(5000, 4)
    return {"nearest_s": ours_nn, "ckdtree_s": scipy_nn, "nearest_error": relative_error(mapped, exact),
            "pum_setup_s": ours_pum, "pum_error": pum_error, "pum_values_per_row": len(weights) / shape[0],
            "pum_row_sum": largest_row_sum((rows, columns, weights, shape)),
            "pum_sphere_row_sum": largest_row_sum(lockstep.mapping_weights(sphere, others, map="rbf-pum")),
            "scipy_rbf_s": scipy_pum, "scipy_rbf_error": relative_error(interpolated, exact),
            "scipy_row_sum": scipy_largest_row_sum(source, target),
            "scipy_sphere_row_sum": scipy_largest_row_sum(sphere, others)}


def exchange_process(exchange: str, run: Path):
    """Wall time and peak memory of one lockstep-exchange for sub1."""
    start = time.perf_counter()
    process = subprocess.Popen([exchange, "1", "1", "1", "1"], cwd=run)
    _, status, usage = os.wait4(process.pid, 0)
    assert status == 0, "lockstep-exchange failed"
    return time.perf_counter() - start, usage.ru_maxrss * 1024


def large_run(exchange: str) -> dict:
    source, target = points(33000, 98000)
    with tempfile.TemporaryDirectory() as work:
        root = Path(work)
        (root / "run").mkdir()
        (root / "run" / "analysis_settings.dat").write_text("time_step=\n1\ncycle_num=\n1\nnum_subprojects=\n1\n")
        (root / "run" / "exchange.dat").write_text("main T sub1 T map=rbf-pum from-mesh=xyz to-mesh=xyz\n")
        for name, mesh in (("main", source), ("sub1", target)):
            (root / name).mkdir()
            project = lockstep.Project(root / name)
            project.put("xyz", mesh)
            if name == "main":
                project.put("T", franke(source))
            project.close()
        # The first stage computes and stores the weights: the best of three.
        setup_s, peak = math.inf, 0
        for _ in range(3):
            shutil.rmtree(root / "run" / "mappings", ignore_errors=True)
            seconds, used = exchange_process(exchange, root / "run")
            setup_s, peak = min(setup_s, seconds), max(peak, used)
        # Once more after the machine sat idle: a hypervisor that takes freed
        # memory back makes touching it again cost more.
        shutil.rmtree(root / "run" / "mappings")
        time.sleep(3)
        idle_setup_s, _ = exchange_process(exchange, root / "run")
        stage_s = statistics.median(exchange_process(exchange, root / "run")[0] for _ in range(7))
        stored = sum(f.stat().st_size for f in (root / "run" / "mappings").rglob("*") if f.is_file())
        mapped = numpy.load(root / "sub1" / "fields" / "in" / "T.npy")
        return {"large_setup_s": setup_s, "large_idle_setup_s": idle_setup_s, "large_stage_s": stage_s, "large_peak_bytes": peak,
                "large_weights_bytes": stored, "large_error": relative_error(mapped, franke(target))}


if __name__ == "__main__":
    results = against_scipy()
    results.update(large_run(sys.argv[1]))
    print(json.dumps(results))
