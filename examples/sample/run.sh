#!/usr/bin/env bash
# Builds lockstep and drives a copy of the sample tree: a main project and two
# sub projects, each played by a stand-in solver that answers every request at
# once and logs what it was asked.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)

cmake --preset release -S "$repo" >/dev/null
cmake --build --preset release --target lockstep fake_project >/dev/null

tree=$(mktemp -d)
players=()
cleanup() {
  for pid in "${players[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$tree"
}
trap cleanup EXIT
cp -r "$here"/run "$here"/main "$here"/sub1 "$here"/sub2 "$tree"/

# Two cycles of two time steps: 2 x (4 x 2 + 1) requests per project.
requests=18
for project in main sub1 sub2; do
  echo 0 >"$tree/$project/go2.dat"
  "$repo/build/release/tests/fake_project" "$tree/$project" "$tree/$project/requests.log" "$requests" &
  players+=("$!")
done

(cd "$tree/run" && "$repo/build/release/src/lockstep")
for pid in "${players[@]}"; do wait "$pid"; done
players=()

echo
echo "Programs launched (first 6 of $(wc -l <"$tree/run/couple.log")):"
head -n 6 "$tree/run/couple.log"
echo
echo "Requests seen by sub2 (go.dat, last 3 of $(wc -l <"$tree/sub2/requests.log")):"
tail -n 3 "$tree/sub2/requests.log"
