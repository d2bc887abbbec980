"""A put and a get of 10^3, 10^5 and 10^7 doubles through the Python
package, as bench_fields measures them in C++; prints one JSON object with
the median microseconds of each size."""
import json
import os
import statistics
import sys
import tempfile
import time

import numpy

import lockstep

root = tempfile.mkdtemp()
for name in ("run", "main", "sub1"):
    os.mkdir(os.path.join(root, name))
with open(os.path.join(root, "run", "analysis_settings.dat"), "w") as file:
    file.write("time_step=\n1\ncycle_num=\n1\nnum_subprojects=\n1\n")
for name in ("main", "sub1"):
    with open(os.path.join(root, name, "go2.dat"), "w") as file:
        file.write(" -1000 0 0 0\n" if name == "sub1" else "0\n")
with open(os.path.join(root, "sub1", "go.dat"), "w") as file:
    file.write(" 1 1 1 1\n")
os.chdir(os.path.join(root, "run"))
project = lockstep.Project(os.path.join(root, "sub1"))
project.wait()
step = lockstep.Interaction(["1", "1", "1", "1"])
medians = {}
for count in (1000, 100000, 10000000):
    values = numpy.full(count, 1.5)
    # Earlier writes flushed and the paths warm, as for the C++ figures.
    os.sync()
    for _ in range(5):
        step.put("x", values)
        project.get("x")
    times = []
    deadline = time.monotonic() + 2
    while len(times) < 5 or (time.monotonic() < deadline and len(times) < 2000):
        start = time.perf_counter()
        step.put("x", values)
        project.get("x")
        times.append(time.perf_counter() - start)
    medians[str(count)] = statistics.median(times) * 1e6
json.dump(medians, sys.stdout)
print()
