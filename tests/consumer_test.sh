#!/usr/bin/env bash
# A solver from the library section of docs/protocol.md, built as a user
# builds it against an installed lockstep (CMake package, pkg-config and
# make, the Fortran module, the Python package), serves a real run of 2
# cycles of 2 time steps; what it printed must be the schedule, each
# request once.
#   consumer_test.sh DOC PREFIX LANGUAGE   (LANGUAGE: cpp, c, fortran, python)
# LOCKSTEP_SANITIZE_FLAGS: as for tests/support/consumer.sh.
set -euo pipefail
doc=$1
prefix=$(cd "$2" && pwd)
language=$3
. "$(dirname "$0")/support/consumer.sh"
consumer_build "$doc" "$prefix" "$language"
solver=("$(run_program solver)")

tree="$work/tree"
mkdir -p "$tree/run" "$tree/main"
printf 'time_step=\n2\ncycle_num=\n2\nnum_subprojects=\n0\n' >"$tree/run/analysis_settings.dat"
printf '#!/bin/sh\n' >"$tree/main/exchange.sh"
chmod +x "$tree/main/exchange.sh"
echo exchange.sh >"$tree/main/CalculateInteraction.dat"
echo 0 >"$tree/main/go2.dat"

"${solver[@]}" "$tree/main" 2 >"$work/solver.out" 2>"$work/solver.log" &
pids+=($!)
solver_pid=$!
(cd "$tree/run" && exec "$prefix/bin/lockstep") >"$work/lockstep.log" 2>&1 &
pids+=($!)
lockstep_pid=$!
wait_until "! kill -0 $solver_pid" "cat '$work/solver.out' '$work/lockstep.log'"
wait "$solver_pid" || { echo "the solver failed" >&2; exit 1; }
wait_until "! kill -0 $lockstep_pid" "cat '$work/lockstep.log'"
wait "$lockstep_pid" || { echo "lockstep failed" >&2; exit 1; }

expected=""
for cycle in 1 2; do
  for step in 1 2; do for stage in 1 2 3 4; do expected+="$cycle $step $stage"$'\n'; done; done
  expected+="$cycle -1 5"$'\n'
done
if [ "$(cat "$work/solver.out")"$'\n' != "$expected" ]; then
  echo "the solver's requests are not the schedule, each once:" >&2
  diff <(printf %s "$expected") "$work/solver.out" >&2 || true
  exit 1
fi
echo "$language solver served the schedule"
