#!/usr/bin/env bash
# docs/first-run.md run as written against lockstep installed in a prefix:
# its files written where it names them, its commands run in one shell in
# their order. Both solvers must receive exactly mapped linear fields, in
# every request of the run.
#   first_run_doc_test.sh DOC PREFIX
set -euo pipefail
doc=$1
prefix=$(cd "$2" && pwd)
. "$(dirname "$0")/support/wait_until.sh"
if [ -n "${LOCKSTEP_SANITIZE_FLAGS:-}" ]; then
  echo "skipped: the module is built with AddressSanitizer, whose runtime python3 does not load"
  exit 77
fi
[ -d "$prefix/lib/python3/dist-packages/lockstep" ] || { echo "skipped: no Python package in $prefix"; exit 77; }
work=$(mktemp -d)
script_pid=""
finish() {
  local status=$?
  [ -z "$script_pid" ] || kill -- -"$script_pid" 2>/dev/null || true
  if [ "$status" -ne 0 ]; then
    for log in "$work"/script.log "$work"/first-run/run/*.log "$work"/first-run/src/build.log; do
      [ -f "$log" ] && { echo "== $log"; tail -n 20 "$log"; }
    done
  fi
  rm -rf "$work"
  exit "$status"
}
trap finish EXIT

# Every "<!-- file: PATH -->" block to PATH, every "<!-- run -->" block
# into the script, in the page's order.
awk -v work="$work" '
  /^<!-- file: .* -->$/ { file = work "/" substr($0, 12, length($0) - 15); next }
  /^<!-- run -->$/ { file = work "/script.sh"; append = 1; next }
  file != "" && /^```/ {
    if (writing) { writing = 0; close(target); file = "" } else { writing = 1; target = file;
      if (target != work "/script.sh") system("mkdir -p \"$(dirname \"" target "\")\"") }
    next }
  writing { print >> target }' "$doc"
[ -f "$work/script.sh" ] || { echo "no commands found in $doc" >&2; exit 1; }

# The page's python3 is the one the package was built for (PYTHON).
python_directory=$(dirname "$(command -v "${PYTHON:-python3}")")
export PATH="$prefix/bin:$python_directory:$PATH" CMAKE_PREFIX_PATH="$prefix" LD_LIBRARY_PATH="$prefix/lib"
export PYTHONPATH="$prefix/lib/python3/dist-packages"
# In a process group of its own, so that whatever it leaves running goes.
(cd "$work" && exec setsid bash -euo pipefail script.sh) >"$work/script.log" 2>&1 &
script_pid=$!
run="$work/first-run/run"
wait_until "! kill -0 $script_pid" "cat '$run'/*.log 2>/dev/null | wc -c"
wait "$script_pid" || { echo "the page's commands failed" >&2; exit 1; }
script_pid=""

# sub1: T - 2x at the probes, equal at every probe, one more per stage
# main advanced; 2 cycles of 2 time steps: 18 requests, 16 stages.
python3 - "$run/cold.log" "$run/hot.log" <<'CHECK'
import sys
cold = [line.split() for line in open(sys.argv[1])]
assert len(cold) == 18, cold
offsets = []
for line in cold:
    values = [float(v) for v in line[3:]]
    assert len(values) == 4 and max(values) - min(values) < 1e-12, line
    offsets.append(values[0])
assert all(abs(o - round(o)) < 1e-12 for o in offsets) and offsets == sorted(offsets) and offsets[-1] == 15, offsets
hot = [line.split() for line in open(sys.argv[2])]
assert len(hot) == 18 and all(float(line[-1]) < 1e-12 for line in hot), hot
print("first run: sub1's temperatures exact, reaching 2 x + 15; main's flux within", max(float(l[-1]) for l in hot))
CHECK
# The three checks: before the solvers, with them (no warning), after the run.
python3 - "$work/script.log" <<'CHECK'
import sys
reports = open(sys.argv[1]).read().split("run tree: ")[1:]
assert len(reports) == 3 and all("\nready: 2 projects, no problems\n" in r for r in reports), reports
assert "warning" not in reports[1] and "\nmappings:\n  exchange.dat:2: linear, main x (11 points) to sub1 probes" in reports[1]
CHECK
# Step 7 left the tree ready for the next run.
[ "$(cat "$work/first-run/main/go2.dat" "$work/first-run/sub1/go2.dat")" = $'0\n0' ]
[ ! -e "$work/first-run/main/fields/in" ] && [ ! -e "$work/first-run/sub1/fields/in" ]
