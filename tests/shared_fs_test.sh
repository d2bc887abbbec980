#!/usr/bin/env bash
# A run whose sub projects see the run tree through a caching network file
# system: sshfs with auto_cache, from an sshd on 127.0.0.1, which keeps a
# file's pages while its size and time stamp stay the same, as the driver's
# next request in go.dat often does. The driver and main work on the local
# path; sub1 is served by an agent and sub2 by the C solver of
# docs/protocol.md, both through the view. Every request must be served
# once, in order. Then the chain example's three solvers exchange fields
# through lockstep-exchange, main on the local path and both sub projects
# through the view, and the coupled result must equal the chain integrated
# in one process.
# Every daemon started here is stopped by its PID, also when the test fails.
#   shared_fs_test.sh PROTOCOL_DOC PREFIX CHAIN_SOLVER CHAIN_CHECK EXCHANGE_TABLE
# (lockstep installed in PREFIX)
# LOCKSTEP_SANITIZE_FLAGS: the sanitizer flags the library was built with.
set -euo pipefail
protocol=$1
prefix=$(cd "$2" && pwd)
chain_solver=$3
chain_check=$4
chain_table=$5
export PATH="$prefix/bin:$PATH:/usr/sbin:/sbin"
export LD_LIBRARY_PATH="$prefix/lib"

. "$(dirname "$0")/support/wait_until.sh"
. "$(dirname "$0")/support/doc_files.sh"
. "$(dirname "$0")/support/sshfs.sh"

unusable=$(sshfs_unusable)
[ -z "$unusable" ] || { echo "skipped: $unusable"; exit 77; }

work=$(mktemp -d)
chmod 755 "$work"
finish() {
  local status=$?
  stop_daemons
  [ "$status" -eq 0 ] || show_logs "$work"/*.log "$work"/tree/*/*.log "$work"/chain/*/*.log
  rm -rf "$work"
  exit "$status"
}
trap finish EXIT

doc_files "$protocol" '### C,' "$work/bin"
(cd "$work/bin" && PKG_CONFIG_PATH="$prefix/lib/pkgconfig" CFLAGS="${LOCKSTEP_SANITIZE_FLAGS:-}" \
  LDFLAGS="${LOCKSTEP_SANITIZE_FLAGS:-}" make >"$work/build.log" 2>&1)

# Three time steps, two cycles: 26 requests for each project.
tree=$work/tree
mkdir -p "$tree/run"
printf 'time_step=\n3\ncycle_num=\n2\nnum_subprojects=\n2\n' > "$tree/run/analysis_settings.dat"
for project in main sub1 sub2; do
  mkdir -p "$tree/$project"
  printf 'exchange.sh\n' > "$tree/$project/CalculateInteraction.dat"
  printf '#!/bin/sh\n' > "$tree/$project/exchange.sh"
  printf '#!/bin/sh\necho "$1 $2 $3" >> "$LOCKSTEP_PROJECT_DIR/requests.log"\n' > "$tree/$project/step.sh"
  chmod +x "$tree/$project/exchange.sh" "$tree/$project/step.sh"
  printf '0\n' > "$tree/$project/go2.dat"
done

start_sshd "$work"
mount_sshfs "$work" "$tree" "$work/view" auto_cache

# The run's processes are stopped with the daemons should the test fail.
lockstepctl agent --verbose --dir "$tree/main" --last-cycle 2 -- "$tree/main/step.sh" 2>"$work/main-agent.log" &
projects=($!)
lockstepctl agent --verbose --dir "$work/view/sub1" --last-cycle 2 -- "$tree/sub1/step.sh" 2>"$work/sub1-agent.log" &
projects+=($!)
"$work/bin/solver" "$work/view/sub2" 2 >"$tree/sub2/requests.log" 2>"$work/sub2-solver.log" &
projects+=($!)
(cd "$tree/run" && exec lockstep) >"$work/driver.log" 2>&1 &
driver=$!
daemons+=("${projects[@]}" "$driver")
wait_until "! kill -0 $driver" "cat '$tree'/*/requests.log | wc -l"
for pid in "$driver" "${projects[@]}"; do wait "$pid"; done

expected=""
for cycle in 1 2; do
  for step in 1 2 3; do for stage in 1 2 3 4; do expected+="$cycle $step $stage"$'\n'; done; done
  expected+="$cycle -1 5"$'\n'
done
for project in main sub1 sub2; do
  if [ "$(cat "$tree/$project/requests.log")"$'\n' != "$expected" ]; then
    echo "$project did not serve the schedule, each request once:" >&2
    diff <(printf '%s' "$expected") "$tree/$project/requests.log" >&2 || true
    exit 1
  fi
done
grep -q 'waiting by polling (fuse)' "$work/sub1-agent.log" || { echo "sub1's agent did not poll the view" >&2; exit 1; }
echo "shared file system: main locally, sub1 (agent) and sub2 (C solver) through sshfs -o auto_cache: 26 requests each, once, in order"

# The chain: 4 cycles of 3 time steps, boundary fields replaced in every
# stage with the same size, within the same second.
chain=$work/chain
mkdir -p "$chain/run"
printf 'time_step=\n3\ncycle_num=\n4\nnum_subprojects=\n2\n' > "$chain/run/analysis_settings.dat"
cp "$chain_table" "$chain/run/exchange.dat"
for project in main sub1 sub2; do
  mkdir -p "$chain/$project"
  ln -s "$prefix/bin/lockstep-exchange" "$chain/$project/exchange"
  echo exchange > "$chain/$project/CalculateInteraction.dat"
  echo 0 > "$chain/$project/go2.dat"
done
mount_sshfs "$work" "$chain" "$work/chain-view" auto_cache
solvers=()
first=0
for project in main sub1 sub2; do
  directory=$work/chain-view/$project
  [ "$project" = main ] && directory=$chain/main
  "$chain_solver" "$directory" "$first" 4 4 2>"$chain/$project/solver.log" &
  solvers+=($!)
  first=$((first + 4))
done
daemons+=("${solvers[@]}")
for project in main sub1 sub2; do wait_until "[ -f '$chain/$project/fields/out/last.npy' ]"; done
(cd "$chain/run" && exec lockstep) >"$chain/run/driver.log" 2>&1 &
driver=$!
daemons+=("$driver")
wait_until "! kill -0 $driver" "cat '$chain'/*/chain.csv | wc -l"
wait "$driver"
for pid in "${solvers[@]}"; do wait "$pid" || { echo "a chain solver failed" >&2; exit 1; }; done
"$chain_check" "$chain" 4 3 main:0:4 sub1:4:4 sub2:8:4
echo "shared file system: the chain's solvers, two through sshfs -o auto_cache, exchanged fields every stage exactly"
