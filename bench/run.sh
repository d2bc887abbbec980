#!/usr/bin/env bash
# Builds and runs the benchmarks, then writes their figures into
# docs/performance.md. They take several minutes; run them on an otherwise
# idle machine.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build="$repo/build/release/bench"
cmake --preset release -S "$repo" >/dev/null
cmake --build --preset release >/dev/null

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
for bench in stage_throughput turnaround bindings recorder footprint idle fields; do
  echo "== $bench"
  "$build/bench_$bench" --benchmark_out="$results/$bench.json" --benchmark_out_format=json | tee "$results/$bench.txt"
done

echo "== fields from Python"
PYTHONPATH="$repo/build/release/src/python" /usr/bin/python3 "$repo/bench/fields.py" | tee "$results/fields_python.json"

echo "== a parallel project"
PYTHONPATH="$repo/build/release/src/python" /usr/bin/python3 "$repo/bench/mpi.py" | tee "$results/mpi.json"

echo "== mapping, against SciPy"
PYTHONPATH="$repo/build/release/src/python" /usr/bin/python3 "$repo/bench/mapping.py" "$repo/build/release/src/lockstep-exchange" |
  tee "$results/mapping.json"

echo "== through a network file system"
bash "$repo/bench/shared_fs.sh" "$repo/build/release/src" "$repo/build/release/examples/chain_solver" | tee "$results/shared_fs.json"

python3 - "$results" "$repo/docs/performance.md" <<'PYTHON'
import json, sys, platform, os
results, out = sys.argv[1], sys.argv[2]
def load(name):
    with open(os.path.join(results, name + ".json")) as f:
        return json.load(f)
def verdict(ok):
    return "met" if ok else "NOT met"
throughput = load("stage_throughput")
turnaround = {b["name"]: b for b in load("turnaround")["benchmarks"]}
footprint = load("footprint")["benchmarks"][0]
context = throughput["context"]
lines = [
    "# Performance",
    "",
    "Written by `bench/run.sh` on %s (%d CPUs, %s); figures move with the machine." % (
        context["date"][:10], context["num_cpus"], platform.platform()),
    "",
    "## Stage throughput against the floor",
    "",
    "The floor program (`bench/floor.cpp`) does only what the protocol demands of a stage: the",
    "progress line, the readiness reads with their 1 ms pauses, one shell launch of a no-op program",
    "per project, and the go-file writes. Both run on the same tree, answered by the project library,",
    "alternating within one benchmark run. Target: ratio at most 1.10.",
    "",
    "| projects | driver ms/stage | floor ms/stage | ratio | target |",
    "|---:|---:|---:|---:|---|",
]
for b in throughput["benchmarks"]:
    projects = b["name"].split("projects:")[1].split("/")[0]
    lines.append("| %s | %.2f | %.2f | %.3f | %s |" % (projects, b["driver_ms_per_stage"], b["floor_ms_per_stage"],
                                                   b["ratio"], verdict(b["ratio"] <= 1.10)))
before = next(b for n, b in turnaround.items() if "poll_ceiling_ms:-1" in n)
inotify = next(b for n, b in turnaround.items() if "poll_ceiling_ms:0" in n)
polling = next(b for n, b in turnaround.items() if "poll_ceiling_ms:1/" in n or n.endswith("poll_ceiling_ms:1"))
slow = next(b for n, b in turnaround.items() if "poll_ceiling_ms:20" in n)
ratio = inotify["median_us"] / polling["median_us"]
lines += [
    "",
    "## Project library turnaround",
    "",
    "From the driver's write of a request into go.dat to go2.dat reporting done, 2,000 requests each,",
    "on a local disk. inotify is the wait on local file systems; \"before\" is that wait as it was",
    "before it slept between changes (inotify and a look every millisecond); polling is the wait on",
    "network file systems (forced here), at a ceiling of 1 ms and at the default of 20 ms. Targets:",
    "with inotify, at most half of 1 ms polling, and within 10% of before (medians).",
    "",
    "| wake-up | median µs | 99th percentile µs |",
    "|---|---:|---:|",
    "| before: inotify and a look every ms | %.0f | %.0f |" % (before["median_us"], before["p99_us"]),
    "| inotify | %.0f | %.0f |" % (inotify["median_us"], inotify["p99_us"]),
    "| polling, ceiling 1 ms | %.0f | %.0f |" % (polling["median_us"], polling["p99_us"]),
    "| polling, ceiling 20 ms | %.0f | %.0f |" % (slow["median_us"], slow["p99_us"]),
    "",
    "Ratio of the medians, inotify to 1 ms polling: %.2f (%s); inotify to before: %.2f (%s)." % (
        ratio, verdict(ratio <= 0.5), inotify["median_us"] / before["median_us"],
        verdict(inotify["median_us"] <= 1.1 * before["median_us"])),
    "",
]
bindings = {int(b["name"].split("binding:")[1].split("/")[0]): b for b in load("bindings")["benchmarks"]
            if "median_us" in b}
lines += [
    "## Turnaround per binding",
    "",
    "The same measure with the project served by a process of its own that does nothing but wait and",
    "report done, through each binding, 2,000 requests each. Target: Python's median within 1.5 times",
    "C++'s.",
    "",
    "| binding | median µs | 99th percentile µs |",
    "|---|---:|---:|",
]
for number, name in ((0, "C++ (`Endpoint`)"), (1, "C (`lockstep_project_wait`)"), (2, "Python (`lockstep.Project`)")):
    if number in bindings:
        lines.append("| %s | %.0f | %.0f |" % (name, bindings[number]["median_us"], bindings[number]["p99_us"]))
    else:
        lines.append("| %s | not measured (not built) | |" % name)
if 0 in bindings and 2 in bindings:
    python_ratio = bindings[2]["median_us"] / bindings[0]["median_us"]
    lines += ["", "Ratio of the medians, Python to C++: %.2f (%s)." % (python_ratio, verdict(python_ratio <= 1.5))]
lines.append("")
recorder = {b["name"].split("/")[0]: b for b in load("recorder")["benchmarks"]}
cost, attached = recorder["recorder_cost"], recorder["recorder_footprint"]
lines += [
    "## What recording costs",
    "",
    "`lockstep` alone and under `lockstepctl record -- lockstep`, alternating on the same tree of 11",
    "projects answered by the library (41 stages a run, 10 runs each; medians, and the median of the",
    "ratios of the pairs); then the recorder attached to a run of 101 projects, its CPU time against",
    "the run's time and its peak memory. Target: ratio at most 1.02.",
    "",
    "| figure | value |",
    "|---|---:|",
    "| run alone, s | %.3f |" % cost["plain_s"],
    "| run recorded, s | %.3f |" % cost["recorded_s"],
    "| ratio | %.3f (%s) |" % (cost["ratio"], verdict(cost["ratio"] <= 1.02)),
    "| recorder CPU, 101 projects, %% of one core | %.2f |" % attached["cpu_percent"],
    "| recorder peak resident memory, 101 projects, MB | %.1f |" % attached["peak_rss_mb"],
    "",
]
idle = load("idle")["benchmarks"]
def idle_row(agents, polled):
    b = next(b for b in idle if "agents:%d/polling:%d" % (agents, polled) in b["name"])
    opens = b["opens_per_second_per_agent"]
    return b["cpu_percent_per_agent"], ("%.1f" % opens) if opens >= 0 else "not measured (no strace)"
lines += [
    "## Idle agents",
    "",
    "Agents with nothing to do (go2.dat reports done), measured over 10 s after 2 s to settle: CPU per",
    "agent from the scheduler's accounting, and files opened per second by one of them, counted",
    "with `strace -c`. Targets: below 0.05% of a core per agent with inotify; at most 100 opens per",
    "second per agent when polling at the default ceiling.",
    "",
    "| agents | wake-up | CPU per agent, % of a core | opens per second per agent | target |",
    "|---:|---|---:|---:|---|",
]
for agents in (1, 11, 101):
    cpu, opens = idle_row(agents, 0)
    lines.append("| %d | inotify | %.4f | %s | %s |" % (agents, cpu, opens, verdict(cpu < 0.05)))
    cpu, opens = idle_row(agents, 1)
    ok = opens.startswith("not") or float(opens) <= 100
    lines.append("| %d | polling, ceiling 20 ms | %.4f | %s | %s |" % (agents, cpu, opens, verdict(ok)))
lines += [
    "",
    "## Footprint while waiting",
    "",
    "The driver waiting on a project that never answers, measured over 3 s.",
    "",
    "| figure | value | target |",
    "|---|---:|---|",
    "| CPU, %% of one core | %.2f | below 5: %s |" % (footprint["cpu_percent_of_one_core"],
                                                      verdict(footprint["cpu_percent_of_one_core"] < 5)),
    "| peak resident memory, MB | %.2f | below 5: %s |" % (footprint["peak_rss_mb"],
                                                             verdict(footprint["peak_rss_mb"] < 5)),
    "",
]
fields = {b["name"]: b for b in load("fields")["benchmarks"]}
with open(os.path.join(results, "fields_python.json")) as f:
    python_fields = json.load(f)
lines += [
    "## Fields: a put and a get",
    "",
    "An interaction program's `put` of an input and the solver's `get` of it, through the library, against",
    "the floor: the same bytes (header and values) written to a temporary file, renamed and read back with",
    "plain POSIX calls. Targets: C++ within 1.2 times the floor from 10^5 values on; Python within 1.5",
    "times C++.",
    "",
    "| doubles | floor µs | C++ µs | C++ / floor | Python µs | Python / C++ | targets |",
    "|---:|---:|---:|---:|---:|---:|---|",
]
for count in (1000, 100000, 10000000):
    floor = fields["floor_put_and_get/%d" % count]["real_time"]
    cpp = fields["put_and_get/%d" % count]["real_time"]
    python = python_fields[str(count)]
    met = (count < 100000 or cpp <= 1.2 * floor) and python <= 1.5 * cpp
    lines.append("| %d | %.0f | %.0f | %.2f | %.0f | %.2f | %s |" % (count, floor, cpp, cpp / floor, python,
                                                                      python / cpp, verdict(met)))
with open(os.path.join(results, "mpi.json")) as f:
    parallel = json.load(f)
lines += [
    "",
    "## A parallel project",
    "",
    "A stage's put of an output and get of an input, from Python on 2 and 4 ranks (`mpirun",
    "--oversubscribe` on this machine's cores), each rank giving and taking its share of the rows, against",
    "one process's put and get of the same whole field (`bench/mpi.py`, medians). Rank 0 gathers the",
    "rows, writes one file and reads it, and sends each rank its rows.",
    "",
    "| doubles | one process µs | 2 ranks µs | ratio | 4 ranks µs | ratio |",
    "|---:|---:|---:|---:|---:|---:|",
]
for count in parallel["sizes"]:
    one = parallel["serial_us"][str(count)]
    two, four = parallel["parallel_us"]["2"][str(count)], parallel["parallel_us"]["4"][str(count)]
    lines.append("| %d | %.0f | %.0f | %.2f | %.0f | %.2f |" % (count, one, two, two / one, four, four / one))
cpu = parallel["waiting_rank_cpu_percent"]
lines += [
    "",
    "While rank 0 waits for a request, each other rank sleeps between looks at the broadcast that will",
    "bring it: the most processor time any of the 3 other ranks of 4 used over 5 s of waiting was %.2f %% of"
    " a core (target: under 1 %%, %s)." % (cpu, verdict(cpu < 1.0)),
    "From rank 0's wait returning to the last rank's, after 0.2 s of waiting, over 20 requests: median",
    "%.0f µs, at most %.0f µs." % (parallel["wake_median_us"], parallel["wake_max_us"]),
]
lines += [
    "",
    "## Interaction programs: one stage",
    "",
    "Every project's interaction program launched through the shell, one after another, as the driver",
    "does in a stage: a compiled program that does nothing, `lockstep-exchange` copying one field per",
    "project, and the shell script that copied the chain's values as text before fields",
    "(`bench/exchange_text.sh`). Target: `lockstep-exchange` within 1.2 times the no-op program.",
    "",
    "| projects | no-op ms | lockstep-exchange ms | ratio | text script ms | target |",
    "|---:|---:|---:|---:|---:|---|",
]
for projects in (1, 11, 101):
    stage = lambda program: fields["interaction_stage/program:%d/projects:%d" % (program, projects)]["real_time"]
    lines.append("| %d | %.2f | %.2f | %.2f | %.2f | %s |" % (projects, stage(0), stage(1), stage(1) / stage(0),
                                                             stage(2), verdict(stage(1) <= 1.2 * stage(0))))
lines.append("")
shared = load("shared_fs")
lines += [
    "## Stage time through a network file system",
    "",
    "A run of main and two sub projects, each served by `lockstepctl agent` with a command that does",
    "nothing (`bench/shared_fs.sh`): all agents on the local path (inotify), then the sub projects'",
    "agents on an sshfs view of the run tree mounted with `auto_cache` from an sshd on 127.0.0.1",
    "(they poll, at most every 20 ms, reading the go files past the page cache). Then with fields:",
    "the chain example's C++ solvers, main's on the local path, exchanging boundary fields through",
    "`lockstep-exchange` in every stage (field reads on the view drop the cached pages first).",
    "",
]
if "skipped" in shared:
    lines.append("Not measured: %s." % shared["skipped"])
else:
    lines += [
        "| projects served by | stages | local ms per stage | sshfs ms per stage | ratio |",
        "|---|---:|---:|---:|---:|",
    ]
    for what, key in (("agents, no fields", ""), ("chain solvers, fields", "fields_")):
        local, remote = shared[key + "local_ms_per_stage"], shared[key + "sshfs_ms_per_stage"]
        lines.append("| %s | %d | %.2f | %.2f | %.2f |" % (what, shared["stages"], local, remote, remote / local))
lines.append("")
mapping = load("mapping")
lines += [
    "## Mapping",
    "",
    "`bench/mapping.py`: 20,000 Halton points in the unit cube mapped to 30,000 random points in",
    "[0.05, 0.95]^3, Franke's 3-D function as the values, side by side with SciPy in the same run on",
    "the same points (the best of three calls each); then 33,000 Halton points to 98,000 random ones",
    "with `rbf-pum` through `lockstep-exchange`, as whole processes: the first stage computes and",
    "stores the weights (the best of three, one right after another), later stages map the stored",
    "files and apply them (median of 7). One more first stage runs after three idle seconds: a",
    "virtual machine whose hypervisor takes freed memory back makes fresh pages dear then. The peak",
    "memory counts the weight files, which the first stage writes through a mapping.",
    "",
    "| figure | lockstep | target | |",
    "|---|---:|---:|---|",
    "| nearest-neighbour, setup and one application | %.1f ms | cKDTree build and query: %.1f ms | %s |" % (
        mapping["nearest_s"] * 1e3, mapping["ckdtree_s"] * 1e3, verdict(mapping["nearest_s"] <= mapping["ckdtree_s"])),
    "| rbf-pum, relative L2 error | %.2e | RBFInterpolator(neighbors=50, quintic): %.2e | %s |" % (
        mapping["pum_error"], mapping["scipy_rbf_error"], verdict(mapping["pum_error"] <= mapping["scipy_rbf_error"])),
    "| rbf-pum, largest absolute row sum | %.2f | RBFInterpolator(neighbors=50, quintic): %.2f | %s |" % (
        mapping["pum_row_sum"], mapping["scipy_row_sum"], verdict(mapping["pum_row_sum"] <= mapping["scipy_row_sum"])),
    "| rbf-pum, largest absolute row sum, 5,000 to 5,000 points on a sphere | %.2f | the same SciPy call: %.2f | %s |" % (
        mapping["pum_sphere_row_sum"], mapping["scipy_sphere_row_sum"],
        verdict(mapping["pum_sphere_row_sum"] <= mapping["scipy_sphere_row_sum"])),
    "| rbf-pum, setup | %.2f s | a tenth of that SciPy call's %.2f s: %.2f s | %s |" % (
        mapping["pum_setup_s"], mapping["scipy_rbf_s"], mapping["scipy_rbf_s"] / 10,
        verdict(mapping["pum_setup_s"] <= mapping["scipy_rbf_s"] / 10)),
    "| 33,000 to 98,000, rbf-pum setup (whole first stage) | %.2f s | 0.8 s | %s |" % (
        mapping["large_setup_s"], verdict(mapping["large_setup_s"] < 0.8)),
    "| the same, after the machine sat idle for 3 s | %.2f s | | |" % mapping["large_idle_setup_s"],
    "| 33,000 to 98,000, a stage applying stored weights | %.1f ms | 32 ms | %s |" % (
        mapping["large_stage_s"] * 1e3, verdict(mapping["large_stage_s"] < 0.032)),
    "| weights on disk | %.0f MB (%.0f values per target point) | | |" % (
        mapping["large_weights_bytes"] / 1e6, mapping["pum_values_per_row"]),
    "| peak memory of the setup | %.0f MB | | |" % (mapping["large_peak_bytes"] / 1e6),
    "| relative L2 error at 33,000 to 98,000 | %.2e | | |" % mapping["large_error"],
    "",
]
with open(out, "w") as f:
    f.write("\n".join(lines))
print("wrote", out)
PYTHON
