#!/usr/bin/env bash
# A parallel solver of docs/parallel.md, built as a user builds it against
# an installed lockstep, serves sub1 on 1, 2 and 4 ranks in a real run with
# a serial Python solver (tests/mpi_run_test.py): every value each rank
# reads must be one process's mapping.
#   mpi_consumer_test.sh DOC PREFIX LANGUAGE   (LANGUAGE: cpp, c, fortran, python)
set -euo pipefail
doc=$1
prefix=$(cd "$2" && pwd)
language=$3
tests=$(cd "$(dirname "$0")" && pwd)
[ -f "$prefix/include/lockstep/lockstep_mpi.h" ] || { echo "skipped: lockstep was built without MPI"; exit 77; }
[ -z "${LOCKSTEP_SANITIZE_FLAGS:-}" ] ||
  { echo "skipped: the serial solver is Python, whose module this build makes with AddressSanitizer"; exit 77; }
if [ "$language" = fortran ] && [ ! -f "$prefix/include/lockstep/lockstep_mpi.mod" ]; then
  echo "skipped: lockstep was built without MPI's Fortran module"
  exit 77
fi
. "$tests/support/consumer.sh"
consumer_build "$doc" "$prefix" "$language"
solver=$(run_program solver)
export PYTHONPATH="$prefix/lib/python3/dist-packages:$tests"
for ranks in 1 2 4; do
  "${PYTHON:-python3}" "$tests/mpi_run_test.py" "$prefix/bin/lockstep" "$prefix/bin/lockstep-exchange" "$ranks" "$solver"
done
