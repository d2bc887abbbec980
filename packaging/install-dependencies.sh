#!/usr/bin/env bash
# Installs the Debian packages of packaging/debian-packages.txt that this
# machine lacks: the quick start's by default, CI's too with --ci. Says
# nothing when every one is there. With LOCKSTEP_NO_INSTALL=1, or without
# apt-get, it installs nothing: it lists what is missing, with the command
# that would install it, and fails.
set -euo pipefail
list="$(cd "$(dirname "$0")" && pwd)/debian-packages.txt"
sections='quick start'
[ "${1:-}" = --ci ] && sections='quick start|ci'

# "package reason" for every package of the chosen sections.
wanted=$(awk -v sections="^($sections)\$" '
  /^\[.*\]$/ { section = substr($0, 2, length($0) - 2); next }
  /^#/ || NF == 0 { next }
  section ~ sections { print $1, $2 }' "$list")

if ! command -v dpkg-query >/dev/null; then
  echo "not a Debian system: cannot check for the packages lockstep needs; make sure these (or their equivalents) are installed:"
  awk '{ printf "  %-20s %s\n", $1, $2 }' <<<"$wanted"
  exit 0
fi

missing=()
reasons=()
while read -r package reason; do
  if [ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null)" != "ii " ]; then
    missing+=("$package")
    reasons+=("$reason")
  fi
done <<<"$wanted"
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo "
list_missing() {
  for i in "${!missing[@]}"; do printf '  %-20s %s\n' "${missing[$i]}" "${reasons[$i]}"; done
}
command_line="${sudo}apt-get install --no-install-recommends ${missing[*]}"
if [ "${LOCKSTEP_NO_INSTALL:-}" = 1 ] || ! command -v apt-get >/dev/null || { [ -n "$sudo" ] && ! command -v sudo >/dev/null; }; then
  why="LOCKSTEP_NO_INSTALL=1 is set"
  command -v apt-get >/dev/null || why="apt-get is not available"
  [ "${LOCKSTEP_NO_INSTALL:-}" = 1 ] || [ -z "$sudo" ] || command -v sudo >/dev/null || why="not root and sudo is not available"
  echo "lockstep needs these Debian packages, which are not installed ($why, so nothing was installed):" >&2
  list_missing >&2
  echo "install them with:" >&2
  echo "  $command_line" >&2
  exit 1
fi

echo "installing the ${#missing[@]} Debian packages that lockstep needs and this machine lacks (package, what for):"
list_missing
${sudo}apt-get update -qq
${sudo}env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "installed: ${missing[*]}"
