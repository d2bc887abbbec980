#!/bin/sh
# The AVX2 build of local.cpp may define, for the linker to see, only what
# names its own namespace or its renamed Eigen. Anything else (say a
# standard library function left out of line) the linker could take for
# another object's copy, and run AVX2 code on a processor without it.
#   wide_symbols_test.sh OBJECT
set -eu
defined=$(nm --defined-only --extern-only "$1" | cut -c 20-)
[ -n "$defined" ] || { echo "$1 defines nothing: is it the wide build?"; exit 1; }
# Mangled: 19lockstep_wide_eigen is the renamed Eigen, 4wide the namespace.
stray=$(printf '%s\n' "$defined" |
  grep -v -E '19lockstep_wide_eigen|8lockstep7mapping4wide|^DW\.ref\.__gxx_personality_v0$' || true)
if [ -n "$stray" ]; then
  printf 'the wide build of local.cpp defines what another object may define too:\n%s\n' "$stray" | c++filt
  exit 1
fi
