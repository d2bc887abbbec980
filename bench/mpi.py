"""A parallel project's costs, on this machine's cores (oversubscribed):
a stage's partitioned put and get at 2 and 4 ranks against one process's
put and get of the same whole field; the processor time of a rank waiting
for a request; and the time from rank 0's wait returning to the last
rank's. Prints one JSON object.

    mpi.py                      (PYTHONPATH: the lockstep package)
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy

SIZES = (1000, 100000, 10000000)
REQUESTS = [(1, step, stage) for step in (1, 2, 3, 4, 5) for stage in (1, 2, 3, 4)]


def mpirun(ranks: int, *arguments) -> subprocess.Popen:
    environment = dict(os.environ, OMPI_ALLOW_RUN_AS_ROOT="1", OMPI_ALLOW_RUN_AS_ROOT_CONFIRM="1")
    return subprocess.Popen(["mpirun", "--oversubscribe", "-n", str(ranks), sys.executable, __file__, *arguments],
                            env=environment, stdout=subprocess.PIPE, text=True)


def tree(root: Path, request=(1, 1, 1)) -> Path:
    project = root / "sub1"
    project.mkdir(parents=True)
    (project / "go2.dat").write_text(" -1000 0 0 0\n")
    (project / "go.dat").write_text(" 1 %d %d %d\n" % request)
    return project


def as_input(project: Path, name: str) -> None:
    """The output `name` again as this project's input, parts and all: its
    stamp's role changed in place (the header keeps its length)."""
    data = (project / "fields" / "out" / f"{name}.npy").read_bytes()
    (project / "fields" / "in").mkdir(exist_ok=True)
    (project / "fields" / "in" / f"{name}.npy").write_bytes(data.replace(b"role=output", b"role=input ", 1))


def timed(step, rounds_for_size: int) -> float:
    """The median seconds of `step`, after two warm-up rounds."""
    for _ in range(2):
        step()
    times = []
    for _ in range(rounds_for_size):
        start = time.perf_counter()
        step()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def rounds(count: int) -> int:
    return 7 if count >= 10000000 else 50


def transfer(directory: Path) -> None:
    """Under mpirun: each size's put of this rank's rows and get of them
    back; rank 0 prints the medians in microseconds."""
    from mpi4py import MPI

    import lockstep.mpi

    world = MPI.COMM_WORLD
    medians = {}
    with lockstep.mpi.Project(directory, world) as project:
        project.wait()
        for count in SIZES:
            mine = numpy.full(count // world.size + (world.rank < count % world.size), 1.5)
            project.put("x", mine)
            if world.rank == 0:
                as_input(directory, "x")
            world.Barrier()

            def step():
                world.Barrier()
                project.put("x", mine)
                project.get("x")
            medians[str(count)] = timed(step, rounds(count)) * 1e6
    if world.rank == 0:
        print(json.dumps(medians))


def serial_transfer(directory: Path) -> dict:
    import lockstep

    medians = {}
    with lockstep.Project(directory) as project:
        project.wait()
        for count in SIZES:
            whole = numpy.full(count, 1.5)
            project.put("x", whole)
            as_input(directory, "x")

            def step():
                project.put("x", whole)
                project.get("x")
            medians[str(count)] = timed(step, rounds(count)) * 1e6
    return medians


def serve(directory: Path) -> None:
    """Under mpirun: each rank notes its process and, for every request,
    when its wait returned."""
    from mpi4py import MPI

    import lockstep.mpi

    world = MPI.COMM_WORLD
    (directory / f"pid.{world.rank}").write_text(str(os.getpid()))
    returned = []
    with lockstep.mpi.Project(directory, world) as project:
        for _ in REQUESTS:
            project.wait()
            returned.append(time.clock_gettime(time.CLOCK_MONOTONIC))
            project.done()
    everyone = world.gather(returned)
    if world.rank == 0:
        print(json.dumps([max(times[k] for times in everyone) - everyone[0][k] for k in range(len(REQUESTS))]))


def cpu_seconds(pid: int) -> float:
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def waiting_and_waking(root: Path, ranks: int) -> tuple:
    """Four ranks wait 5 s for a first request: the processor time of each
    rank but 0 in that span. Then 20 requests, each after 0.2 s of
    waiting: the time from rank 0's wait returning to the last rank's."""
    project = root / "sub1"
    project.mkdir()
    (project / "go2.dat").write_text(" -1000 0 0 0\n")
    (project / "go.dat").write_text(" -1000 0 0 0\n")
    job = mpirun(ranks, "--serve", str(project))
    while len(list(project.glob("pid.*"))) < ranks:
        time.sleep(0.05)
    time.sleep(1)
    others = [int((project / f"pid.{rank}").read_text()) for rank in range(1, ranks)]
    before = [cpu_seconds(pid) for pid in others]
    span = 5.0
    time.sleep(span)
    used = [(cpu_seconds(pid) - start) / span * 100 for pid, start in zip(others, before)]
    for request in REQUESTS:
        (project / "go.dat").write_text(" 1 %d %d %d\n" % request)
        while (project / "go2.dat").read_text().split()[0] == "-1000":
            time.sleep(0.001)
        time.sleep(0.2)
        (project / "go2.dat").write_text(" -1000 0 0 0\n")
    wakes = json.loads(job.communicate()[0])
    return max(used), statistics.median(wakes) * 1e6, max(wakes) * 1e6


def main() -> None:
    results = {"sizes": list(SIZES), "parallel_us": {}}
    with tempfile.TemporaryDirectory() as work:
        results["serial_us"] = serial_transfer(tree(Path(work) / "serial"))
    for ranks in (2, 4):
        with tempfile.TemporaryDirectory() as work:
            job = mpirun(ranks, "--transfer", str(tree(Path(work))))
            results["parallel_us"][str(ranks)] = json.loads(job.communicate()[0])
    with tempfile.TemporaryDirectory() as work:
        cpu, wake_median, wake_max = waiting_and_waking(Path(work), 4)
    results.update(waiting_rank_cpu_percent=cpu, wake_median_us=wake_median, wake_max_us=wake_max)
    print(json.dumps(results))


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "--transfer":
        transfer(Path(sys.argv[2]))
    elif len(sys.argv) == 3 and sys.argv[1] == "--serve":
        serve(Path(sys.argv[2]))
    else:
        main()
