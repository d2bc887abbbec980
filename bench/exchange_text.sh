#!/bin/sh
# The chain example's interaction program before fields: copies the neighbours'
# boundary displacements as text files, with shell builtins only. The stage
# benchmark compares lockstep-exchange with it.
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
