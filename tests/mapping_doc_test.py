"""The complete example of docs/mapping.md, run as written: its exchange
table and both Python solvers in a real run of lockstep; the probes read
the grid's linear temperature exactly, one degree warmer each cycle.

    mapping_doc_test.py MAPPING_DOC LOCKSTEP LOCKSTEP_EXCHANGE   (PYTHONPATH: the lockstep package)
"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path


def doc_files(doc: Path, heading: str) -> dict:
    """Every code block after a "<!-- file: NAME -->" line in the section."""
    text = doc.read_text().split(heading, 1)[1].split("\n## ", 1)[0]
    return {name: body for name, body in re.findall(r"<!-- file: (\S+) -->\n```[a-z]*\n(.*?)```", text, re.S)}


def main() -> int:
    if os.environ.get("LOCKSTEP_SANITIZED") == "ON":
        print("skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load")
        return 77
    doc, driver, exchange = Path(sys.argv[1]), sys.argv[2], sys.argv[3]
    files = doc_files(doc, "## A complete example")
    assert sorted(files) == ["cold.py", "exchange.dat", "hot.py"], sorted(files)
    with tempfile.TemporaryDirectory() as work:
        root = Path(work)
        (root / "run").mkdir()
        (root / "run" / "analysis_settings.dat").write_text("time_step=\n2\ncycle_num=\n2\nnum_subprojects=\n1\n")
        for name, body in files.items():
            (root / "run" / name).write_text(body)
        for name in ("main", "sub1"):
            (root / name).mkdir()
            (root / name / "go2.dat").write_text("0\n")
            os.symlink(exchange, root / name / "exchange")
            (root / name / "CalculateInteraction.dat").write_text("exchange\n")
        hot = subprocess.Popen([sys.executable, "hot.py", "../main"], cwd=root / "run")
        with open(root / "cold.log", "w") as log:
            cold = subprocess.Popen([sys.executable, "cold.py", "../sub1"], cwd=root / "run", stdout=log)
            for name, field in (("main", "T"), ("sub1", "probes")):
                while not (root / name / "fields" / "out" / f"{field}.npy").exists():
                    assert hot.poll() is None and cold.poll() is None, "a solver stopped before publishing"
                    os.sched_yield()
            driver_run = subprocess.run([driver], cwd=root / "run", stdout=subprocess.DEVNULL)
            assert driver_run.returncode == 0 and hot.wait() == 0 and cold.wait() == 0
        lines = (root / "cold.log").read_text().splitlines()
        assert len(lines) == 2 * (4 * 2 + 1), lines
        base = [300 + 10 * 0.1 + 5 * 0.2, 300 + 10 * 0.5 + 5 * 0.5, 300 + 10 * 0.9 + 5 * 0.35]
        warmer = []
        for line in lines:
            values = [float(v) for v in line.split()[-3:]]
            offsets = {round(v - b, 6) for v, b in zip(values, base)}
            assert len(offsets) == 1 and offsets <= {0.0, 1.0, 2.0}, line
            warmer.append(offsets.pop())
        assert warmer == sorted(warmer) and warmer[-1] == 2.0, warmer
        print("mapping doc example: " + lines[-1])
    return 0


if __name__ == "__main__":
    sys.exit(main())
