# wait_until CONDITION [PROGRESS]: evaluates CONDITION every 0.1 s until it
# holds; fails when neither it nor the output of PROGRESS has changed for a
# minute, however slow the machine.
wait_until() {
  local progress=${2:-true} last="" seen stalled=0
  until eval "$1" >/dev/null 2>&1; do
    seen=$(eval "$progress" 2>/dev/null || true)
    if [ "$seen" != "$last" ]; then last=$seen; stalled=0; else stalled=$((stalled + 1)); fi
    if [ "$stalled" -ge 600 ]; then echo "no progress for a minute waiting for: $1" >&2; return 1; fi
    sleep 0.1
  done
}
