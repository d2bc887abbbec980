"""A parallel project's faults, and its weights, each in a real run of mpi_run_test.py's
solvers on two or three ranks, each ending with a clear message on stderr
and the request left pending: a rank raises, a rank is killed (then the run
is resumed and completes with an uninterrupted run's result), ranks put
parts of different types or names, and an input whose parts were made for
another number of ranks. The weights of a mapping stay the same for the
same points in another partition, and are computed anew for reordered ones.

    mpi_faults_test.py LOCKSTEP LOCKSTEP_EXCHANGE LOCKSTEPCTL
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy

from mpi_run_test import CYCLES, FAULT_AT, Solvers, make_tree

PENDING = "-1000"  # go2.dat's first word while a request is pending


def start_driver(root: Path, driver: str) -> subprocess.Popen:
    return subprocess.Popen([driver], cwd=root / "run", stdout=subprocess.DEVNULL)


def stop(process: subprocess.Popen) -> None:
    if process.poll() is None:
        process.send_signal(signal.SIGKILL)
    process.wait()


def request_of(root: Path, project: str) -> str:
    return " ".join((root / project / "go.dat").read_text().split()[1:])


def failed_run(root: Path, driver: str, ranks: int, fault: str) -> str:
    """Runs the tree until sub1's job ends, which it must do with an error
    at FAULT_AT, that request pending; its stderr."""
    with Solvers(root, ranks, fault=fault) as solvers:
        assert solvers.published(root)
        lockstep = start_driver(root, driver)
        try:
            status = solvers.parallel.wait()
            errors = solvers.parallel.stderr.read()
        finally:
            stop(lockstep)
    assert status != 0, f"{fault}: the parallel job ended well"
    assert request_of(root, "sub1") == " ".join(map(str, FAULT_AT)), request_of(root, "sub1")
    assert (root / "sub1" / "go2.dat").read_text().split()[0] == PENDING, f"{fault}: reported done"
    return errors


def expect(errors: str, text: str) -> None:
    assert text in errors, f"not in stderr: {text}\n{errors}"


def the_faults(driver: str, exchange: str) -> None:
    cases = {
        "raise": "failed: RuntimeError: the solver diverged",
        "type": 'rank 1 of 2 puts "w" as int64 values of shape (0,), rank 0 as float64 values of shape (10,): '
                "the ranks' parts of a field have one type and the same extents after the first",
        "name": 'rank 1 of 2 called put("q") where rank 0 called put("w"): every rank makes the same calls of '
                "the project, in the same order",
    }
    for fault, message in cases.items():
        with tempfile.TemporaryDirectory() as work:
            root = Path(work)
            make_tree(root, exchange)
            errors = failed_run(root, driver, 2, fault)
            expect(errors, message)
            if fault == "raise":
                expect(errors, "lockstep: rank 1 of 2 serving " + str(root / "sub1"))
            print(f"{fault}: stopped with the request pending")


def parts_for_other_ranks(driver: str, exchange: str) -> None:
    """The mesh put from three ranks, then the solver restarted on two
    that do not put it again: the mapped input's parts cannot be theirs."""
    with tempfile.TemporaryDirectory() as work:
        root = Path(work)
        make_tree(root, exchange)
        with Solvers(root, 3, fault="publish") as solvers:
            assert solvers.parallel.wait() == 0, solvers.parallel.stderr.read()
            solvers.serial.kill()
        (root / "main" / "fields" / "out" / "u.npy").unlink()
        with Solvers(root, 2, fault="no-mesh") as solvers:
            assert solvers.published(root)
            lockstep = start_driver(root, driver)
            try:
                assert solvers.parallel.wait() != 0
                errors = solvers.parallel.stderr.read()
            finally:
                stop(lockstep)
        expect(errors, 'input "v" of sub1 has parts for 3 ranks (5*2,0), but this project runs on 2 ranks: '
                       "its parts are those of the mesh it is mapped onto, so put that mesh from these 2 ranks")
        assert (root / "sub1" / "go2.dat").read_text().split()[0] == PENDING
        print("parts for 3 ranks read on 2: refused, the request pending")


def final_fields(root: Path) -> list:
    return [numpy.load(root / project / "fields" / "in" / f"{name}.npy")
            for project, name in (("main", "w"), ("sub1", "v"))]


def killed_and_resumed(driver: str, exchange: str, lockstepctl: str) -> None:
    """Rank 1 killed in cycle 2: status names the project nobody serves;
    after lockstepctl resume, the same solvers complete the run with the
    values of a run never stopped."""
    with tempfile.TemporaryDirectory() as work:
        whole = Path(work)
        make_tree(whole, exchange)
        with Solvers(whole, 2) as solvers:
            assert solvers.published(whole)
            assert subprocess.run([driver], cwd=whole / "run", stdout=subprocess.DEVNULL).returncode == 0
            assert solvers.parallel.wait() == 0 and solvers.serial.wait() == 0
        expected = final_fields(whole)
    with tempfile.TemporaryDirectory() as work:
        root = Path(work)
        make_tree(root, exchange)
        with Solvers(root, 2, fault="kill") as solvers:
            assert solvers.published(root)
            lockstep = start_driver(root, driver)
            assert solvers.parallel.wait() != 0
            assert request_of(root, "sub1") == " ".join(map(str, FAULT_AT))
            assert (root / "sub1" / "go2.dat").read_text().split()[0] == PENDING
            status = subprocess.run([lockstepctl, "status", str(root / "run")], capture_output=True, text=True)
            expect(status.stdout, "no process serves it")
            stop(lockstep)
        resume = subprocess.run([lockstepctl, "resume", str(root / "run")], capture_output=True, text=True)
        assert resume.returncode == 0, resume.stdout + resume.stderr
        with Solvers(root, 2) as solvers:
            run = subprocess.run([driver], cwd=root / "run", stdout=subprocess.DEVNULL)
            assert run.returncode == 0 and solvers.parallel.wait() == 0 and solvers.serial.wait() == 0
        for got, want in zip(final_fields(root), expected):
            assert (got == want).all(), (got, want)
        print(f"killed at {FAULT_AT}, resumed after cycle {FAULT_AT[0] - 1}: the same final fields as a whole run")


def weights_follow_the_points(driver: str, exchange: str, lockstepctl: str) -> None:
    """Three runs in one tree: 2 ranks, 4 ranks with the same points in the
    same order (the weights are kept), and 2 ranks with each rank's points
    reversed (both mappings get new weights)."""
    with tempfile.TemporaryDirectory() as work:
        root = Path(work)
        make_tree(root, exchange)
        kept = []
        for ranks, fault in ((2, ""), (4, ""), (2, "reverse")):
            with Solvers(root, ranks, fault=fault) as solvers:
                assert solvers.published(root)
                assert subprocess.run([driver], cwd=root / "run", stdout=subprocess.DEVNULL).returncode == 0
                assert solvers.parallel.wait() == 0 and solvers.serial.wait() == 0
            kept.append(sorted(p.name for p in (root / "run" / "mappings").iterdir()))
            fix = subprocess.run([lockstepctl, "check", "--fix", str(root / "run")], capture_output=True, text=True)
            assert fix.returncode == 0, fix.stdout + fix.stderr
            for name in ("main", "sub1"):
                shutil.rmtree(root / name / "fields")
        assert len(kept[0]) == 2 and kept[1] == kept[0], kept
        assert len(kept[2]) == 4 and set(kept[0]) < set(kept[2]), kept
        print("weights: kept for the same points on 4 ranks, computed anew for reordered points")


def main() -> int:
    driver, exchange, lockstepctl = sys.argv[1:4]
    the_faults(driver, exchange)
    parts_for_other_ranks(driver, exchange)
    killed_and_resumed(driver, exchange, lockstepctl)
    weights_follow_the_points(driver, exchange, lockstepctl)
    return 0


if __name__ == "__main__":
    if os.environ.get("LOCKSTEP_SANITIZED") == "ON":
        print("skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load")
        sys.exit(77)
    sys.exit(main())
