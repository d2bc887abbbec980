#!/usr/bin/env bash
# The heat example with its left side on 2 ranks and its right side on 3, at
# the smallest sizes, killed whole in the middle of a cycle and resumed:
# heat.py fails unless every final temperature equals the serial coupled
# run's to 1e-12.
#   heat_ranks_test.sh PYTHON HEAT_PY BIN_DIR HEAT_LEFT
set -euo pipefail
[ "${LOCKSTEP_SANITIZED:-}" != ON ] ||
  { echo "skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$1" "$2" "$3" "$4" "$work" --smallest --ranks 2,3 --stop-and-resume
