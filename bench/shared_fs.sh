#!/usr/bin/env bash
# The stage time of a run of main and two sub projects, each served by an
# agent whose command does nothing: once with every agent on the local path
# (inotify), once with the sub projects' agents on an sshfs view of the run
# tree (auto_cache, from an sshd on 127.0.0.1; they poll). Then the same
# with fields: the chain example's solvers, exchanging through
# lockstep-exchange in every stage. Prints one JSON object; {"skipped":
# "why"} where sshfs or root is missing.
#   shared_fs.sh BIN_DIR CHAIN_SOLVER   (BIN_DIR: where lockstep, lockstepctl and lockstep-exchange are)
set -euo pipefail
bin=$(cd "$1" && pwd)
chain_solver=$2
table="$(cd "$(dirname "$0")/.." && pwd)/examples/chain/exchange.dat"
support="$(cd "$(dirname "$0")/.." && pwd)/tests/support"
. "$support/wait_until.sh"
. "$support/sshfs.sh"

unusable=$(sshfs_unusable)
[ -z "$unusable" ] || { echo "{\"skipped\": \"$unusable\"}"; exit 0; }

work=$(mktemp -d)
chmod 755 "$work"
finish() {
  stop_daemons
  rm -rf "$work"
}
trap finish EXIT

cycles=4
time_steps=5
stages=$((cycles * (time_steps * 4 + 1)))
start_sshd "$work"
mkdir -p "$work/tree"
mount_sshfs "$work" "$work/tree" "$work/view" auto_cache

# ms_of_driver TREE PIDS...: runs the driver in TREE/run, waits for it and
# for PIDS (the projects' processes), and prints its time per stage.
ms_of_driver() {
  local tree=$1 start end
  shift
  start=$(date +%s%N)
  (cd "$tree/run" && exec "$bin/lockstep" >/dev/null) &
  local driver=$!
  daemons+=("$driver")
  wait_until "! kill -0 $driver" "cat '$tree'/*/go.dat"
  end=$(date +%s%N)
  wait "$driver" "$@"
  awk -v ns=$((end - start)) -v stages="$stages" 'BEGIN { printf "%.2f", ns / 1e6 / stages }'
}

# ms_per_stage SUB_ROOT: the driver's time per stage with the sub projects'
# agents serving SUB_ROOT/subN.
ms_per_stage() {
  local sub_root=$1 tree=$work/tree project
  rm -rf "${tree:?}"/*
  mkdir -p "$tree/run"
  printf 'time_step=\n%s\ncycle_num=\n%s\nnum_subprojects=\n2\n' "$time_steps" "$cycles" >"$tree/run/analysis_settings.dat"
  for project in main sub1 sub2; do
    mkdir -p "$tree/$project"
    printf 'interaction.sh\n' >"$tree/$project/CalculateInteraction.dat"
    printf '#!/bin/sh\n' >"$tree/$project/interaction.sh"
    chmod +x "$tree/$project/interaction.sh"
    printf '0\n' >"$tree/$project/go2.dat"
  done
  local agents=()
  "$bin/lockstepctl" agent --dir "$tree/main" --last-cycle "$cycles" -- true 2>/dev/null &
  agents+=($!)
  for project in sub1 sub2; do
    "$bin/lockstepctl" agent --dir "$sub_root/$project" --last-cycle "$cycles" -- true 2>/dev/null &
    agents+=($!)
  done
  daemons+=("${agents[@]}")
  ms_of_driver "$tree" "${agents[@]}"
}

# chain_ms_per_stage SUB_ROOT: the same with the chain's solvers, main's on
# the local path and the sub projects' on SUB_ROOT/subN.
chain_ms_per_stage() {
  local sub_root=$1 tree=$work/tree project first=0
  rm -rf "${tree:?}"/*
  mkdir -p "$tree/run"
  printf 'time_step=\n%s\ncycle_num=\n%s\nnum_subprojects=\n2\n' "$time_steps" "$cycles" >"$tree/run/analysis_settings.dat"
  cp "$table" "$tree/run/exchange.dat"
  local solvers=()
  for project in main sub1 sub2; do
    mkdir -p "$tree/$project"
    ln -s "$bin/lockstep-exchange" "$tree/$project/exchange"
    echo exchange >"$tree/$project/CalculateInteraction.dat"
    echo 0 >"$tree/$project/go2.dat"
    local directory=$sub_root/$project
    [ "$project" = main ] && directory=$tree/main
    "$chain_solver" "$directory" "$first" 4 "$cycles" 2>/dev/null &
    solvers+=($!)
    first=$((first + 4))
  done
  daemons+=("${solvers[@]}")
  for project in main sub1 sub2; do wait_until "[ -f '$tree/$project/fields/out/last.npy' ]"; done
  ms_of_driver "$tree" "${solvers[@]}"
}

local_ms=$(ms_per_stage "$work/tree")
sshfs_ms=$(ms_per_stage "$work/view")
chain_local_ms=$(chain_ms_per_stage "$work/tree")
chain_sshfs_ms=$(chain_ms_per_stage "$work/view")
printf '{"stages": %d, "local_ms_per_stage": %s, "sshfs_ms_per_stage": %s, "fields_local_ms_per_stage": %s, "fields_sshfs_ms_per_stage": %s}\n' \
  "$stages" "$local_ms" "$sshfs_ms" "$chain_local_ms" "$chain_sshfs_ms"
