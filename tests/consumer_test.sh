#!/usr/bin/env bash
# A solver from the library section of docs/protocol.md, built as a user
# builds it against an installed lockstep (CMake package, pkg-config and
# make, the Fortran module, the Python package), serves a real run of 2
# cycles of 2 time steps; what it printed must be the schedule, each
# request once.
#   consumer_test.sh DOC PREFIX LANGUAGE   (LANGUAGE: cpp, c, fortran, python)
# LOCKSTEP_SANITIZE_FLAGS: the sanitizer flags the installed library was
# built with, which the solver is then built with too.
set -euo pipefail
doc=$1
prefix=$(cd "$2" && pwd)
language=$3
. "$(dirname "$0")/support/wait_until.sh"
. "$(dirname "$0")/support/doc_files.sh"

skip() { echo "skipped: $1"; exit 77; }
case $language in
  cpp) heading='### C++' ;;
  c) heading='### C,' ;;
  fortran)
    heading='### Fortran'
    [ -f "$prefix/include/lockstep/lockstep_project.mod" ] || skip "lockstep was built without a Fortran compiler"
    ;;
  python)
    heading='### Python'
    [ -z "${LOCKSTEP_SANITIZE_FLAGS:-}" ] ||
      skip "the module is built with AddressSanitizer, whose runtime python3 does not load"
    [ -d "$prefix/lib/python3/dist-packages/lockstep" ] || skip "lockstep was built without its Python package"
    ;;
  *) echo "unknown language $language" >&2; exit 2 ;;
esac

work=$(mktemp -d)
pids=()
finish() {
  local status=$?
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  if [ "$status" -ne 0 ]; then
    for log in "$work"/*.log; do [ -f "$log" ] && { echo "== $log"; tail -n 20 "$log"; }; done
  fi
  rm -rf "$work"
  exit "$status"
}
trap finish EXIT

doc_files "$doc" "$heading" "$work/solver"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
export LD_LIBRARY_PATH="$prefix/lib"
flags=${LOCKSTEP_SANITIZE_FLAGS:-}
cd "$work/solver"
case $language in
  cpp)
    cmake -S . -B build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$flags" >"$work/build.log" 2>&1
    cmake --build build >>"$work/build.log" 2>&1
    solver=(build/solver)
    ;;
  c) CFLAGS="$flags" LDFLAGS="$flags" make >"$work/build.log" 2>&1; solver=(./solver) ;;
  fortran) FFLAGS="$flags" LDFLAGS="$flags" make >"$work/build.log" 2>&1; solver=(./solver) ;;
  python) export PYTHONPATH="$prefix/lib/python3/dist-packages"; solver=("${PYTHON:-python3}" solver.py) ;;
esac

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
