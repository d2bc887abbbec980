#!/bin/sh
# The chain's interaction program. lockstep runs it from its own directory,
# before each stage, as: exchange.sh PROJECT CYCLE TIME_STEP STAGE. It copies
# the neighbours' boundary displacements into project PROJECT's directory,
# with shell builtins only, since it runs once per project per stage.
set -e
directory() { if [ "$1" -eq 0 ]; then dir=../main; else dir="../sub$1"; fi; }
last=
while read -r line; do
  if [ "$line" = "num_subprojects=" ]; then read -r last; break; fi
done <analysis_settings.dat
directory "$1"
here=$dir
if [ "$1" -gt 0 ]; then
  directory $(($1 - 1))
  read -r value <"$dir/right.out"
  echo "$value" >"$here/left.in"
fi
if [ "$1" -lt "$last" ]; then
  directory $(($1 + 1))
  read -r value <"$dir/left.out"
  echo "$value" >"$here/right.in"
fi
