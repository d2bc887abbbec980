#!/usr/bin/env bash
# The heat example: u_t = u_xx + u_yy + f on [0, 2] x [0, 1], split at x = 1
# into two projects with grids of their own, the left side's solver in
# Fortran, the right side's in Python, their interface values mapped by
# lockstep-exchange. Builds what it needs, then heat.py runs and checks it
# in build/release/heat-run: the coupled run against one process, the
# convergence table of each mapping method, the VTK files of the temperatures
# (heat-left.pvd, heat-right.pvd, interface-*.pvd), and heat.png, the
# temperature over both sides.
#
#   run.sh [--smallest] [--table FILE]
#   run.sh [--smallest] --ranks L,R | --ranks all
#
# --smallest runs the two coarsest sizes only (seconds, as CI does); the
# whole table takes a few minutes. --ranks runs the parallel solvers instead,
# the left side on L ranks (Fortran over the MPI module) and the right side
# on R (mpi4py), and checks their final temperatures against the serial
# solvers' (--ranks all: every L and R from 1 to 4, with the table).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
build="$repo/build/release"

"$repo/examples/build.sh" heat_example
if [ ! -x "$build/examples/heat_left" ] || [ ! -d "$build/src/python/lockstep" ]; then
  echo "the heat example needs gfortran, and python3-dev with pybind11-dev, for its two solvers" >&2
  exit 1
fi

if [[ " $* " == *" --ranks "* ]] && [ ! -x "$build/examples/heat_left_mpi" ]; then
  echo "the parallel heat example needs MPI (libopenmpi-dev, python3-mpi4py) with its Fortran module" >&2
  exit 1
fi

work="$build/heat-run"
rm -rf "$work"
PYTHONPATH="$build/src/python" /usr/bin/python3 "$here/heat.py" "$build/src" "$build/examples/heat_left" "$work" "$@"
[[ " $* " != *" --ranks "* ]] || exit 0
echo "ParaView: $work/heat-left.pvd, $work/heat-right.pvd, $work/interface-left.pvd, $work/interface-right.pvd"

if command -v gnuplot >/dev/null; then
  gnuplot <<GNUPLOT
set terminal pngcairo size 900,480
set output "$work/heat.png"
set title "u at t = 0.05: left 8 x 8 grid (Fortran), right 20 x 20 grid (Python), mapped linearly at x = 1"
set view map
set size ratio -1
set xrange [0:2]
set yrange [0:1]
set xlabel "x"
set ylabel "y"
set cblabel "u"
set arrow from 1,0 to 1,1 nohead front lc rgb "white" dt 2
splot "$work/heat-left.dat" using 1:2:3 with pm3d notitle, "$work/heat-right.dat" using 1:2:3 with pm3d notitle
GNUPLOT
  echo "plot: $work/heat.png"
fi
