#!/usr/bin/env bash
# A solver and interaction program from a language section of
# docs/fields.md, built as a user builds them against an installed lockstep,
# serve a real run of the main project and one sub project, 2 cycles of 2
# time steps: in the k-th stage each solver must print k - 1, the other
# project's count of the stage before, and every request once. In a second
# run sub1's interaction program fails in one stage: sub1's solver must stop
# with the stale-field error that names that stage.
#   fields_consumer_test.sh DOC PREFIX LANGUAGE   (LANGUAGE: cpp, c, fortran, python)
# LOCKSTEP_SANITIZE_FLAGS: as for tests/support/consumer.sh.
set -euo pipefail
doc=$1
prefix=$(cd "$2" && pwd)
language=$3
. "$(dirname "$0")/support/consumer.sh"
consumer_build "$doc" "$prefix" "$language"
solver=("$(run_program solver)")
interaction=$(run_program interaction)

# A run tree whose projects' interaction program is $1; starts both solvers
# and, once they have published their starting outputs, lockstep.
start_run() {
  tree="$work/tree$2"
  mkdir -p "$tree/run"
  printf 'time_step=\n2\ncycle_num=\n2\nnum_subprojects=\n1\n' >"$tree/run/analysis_settings.dat"
  solver_pids=()
  for project in main sub1; do
    mkdir -p "$tree/$project"
    ln -s "$1" "$tree/$project/interaction"
    echo interaction >"$tree/$project/CalculateInteraction.dat"
    echo 0 >"$tree/$project/go2.dat"
    "${solver[@]}" "$tree/$project" 2 >"$work/$project$2.out" 2>"$work/$project$2.log" &
    pids+=($!)
    solver_pids+=($!)
  done
  for project in main sub1; do wait_until "[ -f '$tree/$project/fields/out/count.npy' ]"; done
  (cd "$tree/run" && exec "$prefix/bin/lockstep") >"$work/lockstep$2.log" 2>&1 &
  pids+=($!)
  lockstep_pid=$!
}

start_run "$interaction" ""
for pid in "${solver_pids[@]}"; do
  wait_until "! kill -0 $pid" "cat '$work'/*.out '$work/lockstep.log'"
  wait "$pid" || { echo "a solver failed" >&2; exit 1; }
done
wait_until "! kill -0 $lockstep_pid" "cat '$work/lockstep.log'"
wait "$lockstep_pid" || { echo "lockstep failed" >&2; exit 1; }

expected=""
stages=0
for cycle in 1 2; do
  for step in 1 2; do
    for stage in 1 2 3 4; do expected+="$cycle $step $stage $stages"$'\n'; stages=$((stages + 1)); done
  done
  expected+="$cycle -1 5"$'\n'
done
for project in main sub1; do
  if [ "$(cat "$work/$project.out")"$'\n' != "$expected" ]; then
    echo "$project's solver did not see the other project's count of the stage before, each request once:" >&2
    diff <(printf %s "$expected") "$work/$project.out" >&2 || true
    exit 1
  fi
done

# sub1's program fails in cycle 2, time step 1, stage 3.
printf '#!/bin/sh\n[ "$*" = "1 2 1 3" ] && exit 1\nexec "%s" "$@"\n' "$interaction" >"$work/failing"
chmod +x "$work/failing"
start_run "$work/failing" .failing
sub1=${solver_pids[1]}
wait_until "! kill -0 $sub1" "cat '$work'/*.failing.out"
if wait "$sub1"; then echo "sub1's solver went on with a stale input" >&2; exit 1; fi
stale='input "neighbour" of sub1 is stale: its file was written for cycle 2, time step 1, stage 2, but cycle 2, time step 1, stage 3 needs it written for cycle 2, time step 1, stage 3; the interaction program of sub1 did not write it in cycle 2, time step 1, stage 3: it failed or did not run'
grep -qF "$stale" "$work/sub1.failing.log" || { echo "sub1's solver did not name the stale input:" >&2; exit 1; }
echo "$language solver and interaction program exchanged every stage's value; a failed program stopped the solver"
