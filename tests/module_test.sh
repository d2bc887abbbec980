#!/usr/bin/env bash
# The Lmod module file of an install into a prefix, in a clean environment:
# `module use` and `module load lockstep` put the programs, the manual, the
# shared library, the pkg-config file, the CMake package and the Python
# package within reach (a C solver of docs/protocol.md built with
# pkg-config and run, a C++ one built with find_package, `import
# lockstep`), and `module unload lockstep` gives back every variable as it
# was.
#   module_test.sh PROTOCOL_DOC PREFIX   (lockstep installed in PREFIX)
# LOCKSTEP_SANITIZE_FLAGS: the sanitizer flags the library was built with.
set -euo pipefail
protocol=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
prefix=$(cd "$2" && pwd)
lmod_init=/usr/share/lmod/lmod/init/bash
[ -f "$lmod_init" ] || { echo "skipped: Lmod is not installed (apt-get install lmod)"; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$(dirname "$0")/support/doc_files.sh"
doc_files "$protocol" '### C,' "$work/c"
doc_files "$protocol" '### C++' "$work/cpp"

cat >"$work/inside.sh" <<'INSIDE'
set -euo pipefail
fail() { echo "module: $*" >&2; exit 1; }
. "$lmod_init"
module use "$prefix/share/modulefiles"
variables="PATH MANPATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH PYTHONPATH LD_LIBRARY_PATH"
environment() {
  local name
  for name in $variables; do
    if [ -n "${!name+set}" ]; then echo "$name=${!name}"; else echo "$name unset"; fi
  done
}
before=$(environment)

module load lockstep
[ "$(command -v lockstepctl)" = "$prefix/bin/lockstepctl" ] || fail "lockstepctl is $(command -v lockstepctl)"
case ":$MANPATH:" in *":$prefix/share/man:"*) ;; *) fail "MANPATH is $MANPATH" ;; esac
(cd "$work/c" && CFLAGS="$flags" LDFLAGS="$flags" make >"$work/c.log" 2>&1) || fail "the C solver did not build: $(cat "$work/c.log")"
# Run, it loads the shared library and opens the project directory.
message=$("$work/c/solver" "$work/none" 1 2>&1 || true)
[ "$message" = "solver: project directory $work/none: No such file or directory" ] || fail "the C solver said: $message"
(cmake -S "$work/cpp" -B "$work/cpp/build" -DCMAKE_CXX_FLAGS="$flags" && cmake --build "$work/cpp/build") \
  >"$work/cpp.log" 2>&1 || fail "the C++ solver did not build: $(cat "$work/cpp.log")"
if [ -z "$flags" ]; then
  imported=$(python3 -c 'import lockstep; print(lockstep.__file__)')
  case $imported in "$prefix"/*) ;; *) fail "import lockstep found $imported" ;; esac
fi

module unload lockstep
after=$(environment)
[ "$after" = "$before" ] || fail "unload did not give the environment back: $(diff <(echo "$before") <(echo "$after"))"
echo "module: load put lockstep of $prefix within reach (C, C++, Python); unload gave back $variables"
INSIDE
env -i HOME="$work" PATH=/usr/local/bin:/usr/bin:/bin lmod_init="$lmod_init" prefix="$prefix" work="$work" \
  flags="${LOCKSTEP_SANITIZE_FLAGS:-}" bash "$work/inside.sh"
