# wait_until CONDITION [PROGRESS]: evaluates CONDITION every 0.1 s until it
# holds; fails when neither it nor the output of PROGRESS has changed for a
# minute of the clock, however slow the machine, and at once when a daemon
# given to watch_daemon has exited.
watched_daemons=()
# watch_daemon PID LOG: a daemon this script started, and where it logs.
watch_daemon() { watched_daemons+=("$1:$2"); }
wait_until() {
  local progress=${2:-true} last="" seen since=$SECONDS daemon
  until eval "$1" >/dev/null 2>&1; do
    for daemon in "${watched_daemons[@]}"; do
      if ! kill -0 "${daemon%%:*}" 2>/dev/null; then
        echo "waiting for: $1: the daemon with PID ${daemon%%:*} has exited; the end of ${daemon#*:}:" >&2
        tail -n 30 "${daemon#*:}" >&2
        return 1
      fi
    done
    seen=$(eval "$progress" 2>/dev/null || true)
    if [ "$seen" != "$last" ]; then last=$seen; since=$SECONDS; fi
    if [ $((SECONDS - since)) -ge 60 ]; then echo "no progress for a minute waiting for: $1" >&2; return 1; fi
    sleep 0.1
  done
}
