# What the consumer tests share: the programs of a language section of a
# document, built as a user builds them against lockstep installed in a
# prefix, in a work directory removed at the end.
#   consumer_build DOC PREFIX LANGUAGE   (LANGUAGE: cpp, c, fortran, python)
# Sets `work`, `programs` (where they were built) and `run_program`, the
# command that runs a program of the section by name; exits 77 (skipped)
# when the prefix lacks the language. Processes whose PIDs the caller adds
# to `pids` are killed at the end; on failure the work directory's logs are
# shown. LOCKSTEP_SANITIZE_FLAGS: the sanitizer flags the installed library
# was built with, which the programs are then built with too.
. "$(dirname "${BASH_SOURCE[0]}")/wait_until.sh"
. "$(dirname "${BASH_SOURCE[0]}")/doc_files.sh"

pids=()
consumer_finish() {
  local status=$?
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  if [ "$status" -ne 0 ]; then
    for log in "$work"/*.log "$work"/*.out; do [ -f "$log" ] && { echo "== $log"; tail -n 20 "$log"; }; done
  fi
  rm -rf "$work"
  exit "$status"
}

consumer_build() {
  local doc=$1 prefix=$2 language=$3 heading flags=${LOCKSTEP_SANITIZE_FLAGS:-}
  case $language in
    cpp) heading='### C++' ;;
    c) heading='### C,' ;;
    fortran)
      heading='### Fortran'
      [ -f "$prefix/include/lockstep/lockstep_project.mod" ] ||
        { echo "skipped: lockstep was built without a Fortran compiler"; exit 77; }
      ;;
    python)
      heading='### Python'
      [ -z "$flags" ] ||
        { echo "skipped: the module is built with AddressSanitizer, whose runtime python3 does not load"; exit 77; }
      [ -d "$prefix/lib/python3/dist-packages/lockstep" ] ||
        { echo "skipped: lockstep was built without its Python package"; exit 77; }
      ;;
    *) echo "unknown language $language" >&2; exit 2 ;;
  esac
  work=$(mktemp -d)
  trap consumer_finish EXIT
  programs="$work/programs"
  doc_files "$doc" "$heading" "$programs"
  export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
  export LD_LIBRARY_PATH="$prefix/lib"
  case $language in
    cpp)
      (cd "$programs" && cmake -S . -B build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$flags" &&
        cmake --build build) >"$work/build.log" 2>&1
      run_program() { echo "$programs/build/$1"; }
      ;;
    c | fortran)
      (cd "$programs" && CFLAGS="$flags" FFLAGS="$flags" LDFLAGS="$flags" make) >"$work/build.log" 2>&1
      run_program() { echo "$programs/$1"; }
      ;;
    python)
      export PYTHONPATH="$prefix/lib/python3/dist-packages"
      # A program lockstep or a test can start by its path.
      run_program() {
        [ -x "$programs/$1" ] ||
          printf '#!/bin/sh\nexec %s %s "$@"\n' "${PYTHON:-python3}" "$programs/$1.py" >"$programs/$1"
        chmod +x "$programs/$1"
        echo "$programs/$1"
      }
      ;;
  esac
}
