#!/usr/bin/env bash
# A private one-node Slurm cluster in a temporary directory runs the batch
# script of docs/cluster.md as written there: the C solver of
# docs/protocol.md, an agent and the driver, each request served once, and
# lockstepctl status, run from outside the job, names the run's state.
# Every daemon started here is stopped by its PID, also when the test fails.
#   cluster_test.sh CLUSTER_DOC PROTOCOL_DOC PREFIX   (lockstep installed in PREFIX)
# LOCKSTEP_SANITIZE_FLAGS: the sanitizer flags the library was built with.
set -euo pipefail
doc=$1
protocol=$2
prefix=$(cd "$3" && pwd)
export PATH="$prefix/bin:$PATH:/usr/sbin:/sbin"
export LD_LIBRARY_PATH="$prefix/lib"

for tool in munged mungekey slurmctld slurmd sbatch squeue sinfo; do
  if ! command -v "$tool" >/dev/null; then
    echo "skipped: $tool is not installed (apt-get install slurm-wlm munge)"
    exit 77
  fi
done

work=$(mktemp -d)
chmod 755 "$work"
daemons=()
finish() {
  local status=$?
  for pid in "${daemons[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${daemons[@]}"; do
    for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  done
  if [ "$status" -ne 0 ]; then
    for log in "$work"/*.log "$work"/case/*.out; do
      [ -f "$log" ] && { echo "== $log"; tail -n 30 "$log"; }
    done
  fi
  rm -rf "$work"
  exit "$status"
}
trap finish EXIT

. "$(dirname "$0")/support/wait_until.sh"
. "$(dirname "$0")/support/doc_files.sh"

# The solver, built as docs/protocol.md builds it.
doc_files "$protocol" '### C,' "$work/bin"
(cd "$work/bin" && PKG_CONFIG_PATH="$prefix/lib/pkgconfig" CFLAGS="${LOCKSTEP_SANITIZE_FLAGS:-}" \
  LDFLAGS="${LOCKSTEP_SANITIZE_FLAGS:-}" make >"$work/build.log" 2>&1)
PATH="$work/bin:$PATH"

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# munge, with its key, socket and state in the work directory.
mungekey --create --keyfile="$work/munge.key"
munged --foreground --force --key-file="$work/munge.key" --socket="$work/munge.socket" \
  --pid-file="$work/munged.pid" --log-file="$work/munged.log" --seed-file="$work/munged.seed" \
  >>"$work/munged.log" 2>&1 &
daemons+=($!)
watch_daemon $! "$work/munged.log"
wait_until "[ -S '$work/munge.socket' ]"

host=$(hostname -s)
mkdir -p "$work/state" "$work/spool"
export SLURM_CONF="$work/slurm.conf"
cat > "$SLURM_CONF" <<CONF
ClusterName=lockstep-test
SlurmctldHost=$host
SlurmctldPort=$(free_port)
SlurmdPort=$(free_port)
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$work/munge.socket
CredType=cred/munge
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd.pid
SlurmctldLogFile=$work/slurmctld.log
SlurmdLogFile=$work/slurmd.log
SlurmdParameters=config_overrides
ProctrackType=proctrack/pgid
TaskPlugin=task/none
SelectType=select/cons_tres
MpiDefault=none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
ReturnToService=2
NodeName=$host CPUs=8 State=UNKNOWN
PartitionName=test Nodes=$host Default=YES MaxTime=INFINITE State=UP
CONF
slurmctld -D -i -f "$SLURM_CONF" >>"$work/slurmctld.log" 2>&1 &
daemons+=($!)
watch_daemon $! "$work/slurmctld.log"
slurmd -D -f "$SLURM_CONF" >>"$work/slurmd.log" 2>&1 &
daemons+=($!)
watch_daemon $! "$work/slurmd.log"
wait_until "sinfo -h -o %T | grep -qx idle"

# The run tree of the script: the main project served by the solver, sub 1
# by the agent, ten cycles of two time steps.
case_dir="$work/case"
mkdir -p "$case_dir/run" "$case_dir/main" "$case_dir/sub1"
printf 'time_step=\n2\ncycle_num=\n10\nnum_subprojects=\n1\n' > "$case_dir/run/analysis_settings.dat"
for project in main sub1; do
  printf 'exchange.sh\n' > "$case_dir/$project/CalculateInteraction.dat"
  printf '#!/bin/sh\n' > "$case_dir/$project/exchange.sh"
  chmod +x "$case_dir/$project/exchange.sh"
  printf '0\n' > "$case_dir/$project/go2.dat"
done
printf '#!/bin/sh\necho "$1 $2 $3" >> "$LOCKSTEP_PROJECT_DIR/agent.log"\n' > "$case_dir/sub1/step.sh"
chmod +x "$case_dir/sub1/step.sh"

# The script exactly as docs/cluster.md shows it.
awk '/^<!-- batch script: tests\/cluster_test.sh runs it as written -->$/ { found = 1; next }
     found && /^```/ { if (inside) exit; inside = 1; next }
     inside { print }' "$doc" > "$work/job.sh"
[ -s "$work/job.sh" ] || { echo "no batch script found in $doc" >&2; exit 1; }

job=$(cd "$case_dir" && sbatch --parsable --export=ALL "$work/job.sh")
wait_until "[ -z \"\$(squeue -h -j $job 2>/dev/null)\" ]" "cat '$case_dir'/*/*.log 2>/dev/null | wc -l"
state=$(scontrol show job "$job" | grep -o 'JobState=[A-Z]*' || true)
[ "$state" = "JobState=COMPLETED" ] || { echo "job $job ended with $state" >&2; exit 1; }

expected=""
for cycle in $(seq 10); do
  for step in 1 2; do for stage in 1 2 3 4; do expected+="$cycle $step $stage"$'\n'; done; done
  expected+="$cycle -1 5"$'\n'
done
for log in main/solver.log sub1/agent.log; do
  if [ "$(cat "$case_dir/$log")"$'\n' != "$expected" ]; then
    echo "$log is not the schedule, each request once:" >&2
    diff <(printf '%s' "$expected") "$case_dir/$log" >&2 || true
    exit 1
  fi
done

status=$(lockstepctl status "$case_dir/run")
grep -q '^the run is complete$' <<<"$status" || { echo "status does not say the run is complete:" >&2; echo "$status" >&2; exit 1; }
echo "cluster: job $job served 2 projects x 50 requests, each once; status: the run is complete"
