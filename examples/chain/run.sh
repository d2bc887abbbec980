#!/usr/bin/env bash
# The chain example: twelve masses on springs split over the main project and
# two sub projects, whose solvers are written in C++, Fortran and Python.
# Builds what it needs, lays out a fresh run tree in build/release/chain-run,
# starts one solver per project, runs lockstep under lockstepctl record,
# checks the coupled result against the chain integrated in one process, and
# prints where the run's time went. Without gfortran, or without
# python3-dev and pybind11-dev, the C++ solver stands in for that project.
#
#   run.sh [--stop-and-resume]
#
# With --stop-and-resume, everything (driver, recorder, solvers) is killed
# with SIGKILL in the middle of cycle 9, the run is resumed with
# 'lockstepctl resume' and completed by fresh solvers, and the stages of
# both parts together must be those of one run plus at most the cycle lost.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
build="$repo/build/release"
cycles=20
time_steps=5
layout=(main:0:4:C++ sub1:4:4:Fortran sub2:8:4:Python)
stop_and_resume=false
case "${1:-}" in
  --stop-and-resume) stop_and_resume=true ;;
  "") ;;
  *) echo "usage: $0 [--stop-and-resume]" >&2; exit 2 ;;
esac

# What this and the README's test command need from Debian, installed once.
"$repo/examples/build.sh" chain_example

# A project's solver in its language where that one was built, else C++.
solver_command() {
  local program="$build/examples/chain_solver_${1,,}"
  if [ "$1" != C++ ] && [ -x "$program" ]; then echo "$program"; else echo "$build/examples/chain_solver"; fi
}

tree="$build/chain-run"
rm -rf "$tree"
mkdir -p "$tree/run"
printf 'time_step=\n%d\ncycle_num=\n%d\nnum_subprojects=\n%d\n' "$time_steps" "$cycles" $((${#layout[@]} - 1)) \
  >"$tree/run/analysis_settings.dat"
cp "$here/exchange.dat" "$tree/run/"

solvers=()
languages=()
stop_solvers() { for pid in "${solvers[@]}"; do kill "$pid" 2>/dev/null || true; done; }
trap stop_solvers EXIT
blocks=()
for block in "${layout[@]}"; do
  IFS=: read -r directory first count language <<<"$block"
  blocks+=("$directory:$first:$count")
  mkdir -p "$tree/$directory"
  # The ready interaction program, through a link that CalculateInteraction.dat names.
  ln -s "$build/src/lockstep-exchange" "$tree/$directory/exchange"
  echo exchange >"$tree/$directory/CalculateInteraction.dat"
  echo 0 >"$tree/$directory/go2.dat"
  if [ "$language" != C++ ] && [ "$(solver_command "$language")" = "$build/examples/chain_solver" ]; then
    echo "$directory: no $language solver was built; the C++ one stands in"
    language=C++
  fi
  languages+=("$directory in $language")
done

# One solver per project, each in its language; a resumed run's solvers
# start from their saved state.
start_solvers() {
  solvers=()
  for block in "${layout[@]}"; do
    IFS=: read -r directory first count language <<<"$block"
    rm -f "$tree/$directory/fields/out/last.npy"
    "$(solver_command "$language")" "$tree/$directory" "$first" "$count" "$cycles" &
    solvers+=("$!")
  done
  # The first stage's exchange needs every solver's starting boundary.
  for block in "${layout[@]}"; do
    directory=${block%%:*}
    until [ -f "$tree/$directory/fields/out/last.npy" ]; do sleep 0.01; done
  done
}
start_solvers

if $stop_and_resume; then
  echo "lockstep: $cycles cycles, killed with everything else in cycle 9, then resumed"
  # The recorder and the driver in a process group of their own, killed whole.
  (cd "$tree/run" && exec setsid "$build/src/lockstepctl" record --output "$tree/chain-stopped.rec" -- "$build/src/lockstep" >/dev/null) &
  recorder=$!
  until [ "$(wc -l <"$tree/main/chain.csv")" -ge 9 ]; do sleep 0.01; done
  sleep 0.1
  kill -KILL -- "-$recorder" "${solvers[@]}"
  wait "$recorder" "${solvers[@]}" 2>/dev/null || true
  "$build/src/lockstepctl" resume "$tree/run"
  start_solvers
fi
echo "lockstep: $cycles cycles of $time_steps time steps, $(IFS=,; echo "${languages[*]}" | sed 's/,/, /g')"
# Recorded; shows the progress line of each cycle's closing time step.
(cd "$tree/run" && "$build/src/lockstepctl" record --output "$tree/chain.rec" --capture-stderr -- "$build/src/lockstep") |
  awk -v closing=$((time_steps + 1)) 'substr($0, 27, 5) + 0 == closing'
for pid in "${solvers[@]}"; do wait "$pid"; done
solvers=()

"$build/examples/chain_check" "$tree" "$cycles" "$time_steps" "${blocks[@]}"

if $stop_and_resume; then
  # Both parts' stages: one run's, plus at most the cycle that was lost.
  stages() { "$build/src/lockstepctl" report "$1" --json | python3 -c 'import json, sys; print(json.load(sys.stdin)["stages"])'; }
  ran=$(($(stages "$tree/chain-stopped.rec") + $(stages "$tree/chain.rec")))
  whole=$((cycles * (4 * time_steps + 1)))
  echo "stages run: $ran in both parts; one uninterrupted run: $whole"
  [ "$ran" -ge "$whole" ] && [ "$ran" -le $((whole + 4 * time_steps + 1)) ] ||
    { echo "the stages run are not one run's plus at most one cycle's" >&2; exit 1; }
fi

echo
"$build/src/lockstepctl" report "$tree/chain.rec" --svg "$tree/chain-timeline.svg"
echo "timeline: $tree/chain-timeline.svg"

if command -v gnuplot >/dev/null; then
  gnuplot <<GNUPLOT
set terminal pngcairo size 900,600
set output "$tree/chain.png"
set datafile separator ","
set key autotitle columnhead outside
set multiplot layout 2,1
set ylabel "energy"
set yrange [0:*]
plot "$tree/chain_total.csv" using 1:2 with linespoints
set ylabel "displacement"
set autoscale y
set xlabel "time"
plot for [i=3:14] "$tree/chain_total.csv" using 1:i with lines
unset multiplot
GNUPLOT
  echo "plot: $tree/chain.png"
fi
