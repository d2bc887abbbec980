#!/usr/bin/env bash
# A private two-node Slurm cluster in a temporary directory runs the batch
# scripts of docs/cluster.md as written there. Node n1 sees the run trees on
# the local disk; node n2's slurmd runs in a mount namespace of its own where
# the same path is an sshfs view (auto_cache, from an sshd on 127.0.0.1).
# The one-node script: the C solver of docs/protocol.md, an agent and the
# driver, each request served once, and lockstepctl status, run from outside
# the job, names the run's state. The two-node script: driver and main on
# n1, sub projects on n2, checked by where each step ran. Then the resumable
# script: a first job cancelled part-way, a second that resumes and
# completes the run. Last, the chain example across both nodes: its solvers
# exchange fields through lockstep-exchange in every stage, main on n1 and
# both sub projects on n2 through the view, and the coupled result must be
# the chain's integrated in one process. With HEAT_LEFT and HEAT_DIR, the
# parallel script: the heat example's left side and the driver on n1, its
# right side on 4 MPI ranks started by mpirun in the job, two on n1 and two on
# n2 through the view, every final temperature the serial solvers'.
# Every daemon started here is stopped by its PID, also when the test fails.
#   cluster_test.sh CLUSTER_DOC PROTOCOL_DOC PREFIX CHAIN_SOLVER CHAIN_CHECK EXCHANGE_TABLE [HEAT_LEFT HEAT_DIR]
# (lockstep installed in PREFIX; PYTHON: the interpreter with NumPy and mpi4py)
# LOCKSTEP_SANITIZE_FLAGS: the sanitizer flags the library was built with.
set -euo pipefail
doc=$1
protocol=$2
prefix=$(cd "$3" && pwd)
chain_solver=$4
chain_check=$5
chain_table=$6
heat_left=${7:-}
heat_dir=${8:-}
export PATH="$prefix/bin:$PATH:/usr/sbin:/sbin"
export LD_LIBRARY_PATH="$prefix/lib"

for tool in munged mungekey slurmctld slurmd sbatch squeue sinfo; do
  if ! command -v "$tool" >/dev/null; then
    echo "skipped: $tool is not installed (apt-get install slurm-wlm munge)"
    exit 77
  fi
done
. "$(dirname "$0")/support/wait_until.sh"
. "$(dirname "$0")/support/doc_files.sh"
. "$(dirname "$0")/support/sshfs.sh"
unusable=$(sshfs_unusable)
[ -z "$unusable" ] || { echo "skipped: $unusable"; exit 77; }

work=$(mktemp -d)
chmod 755 "$work"
finish() {
  local status=$?
  # A job's steps outlive slurmd: the jobs go first, while it can end them.
  if [ -n "${SLURM_CONF:-}" ] && [ -n "$(squeue -h 2>/dev/null)" ]; then
    scancel --full --signal=KILL --user="$(id -un)" 2>/dev/null || true
    for _ in $(seq 100); do [ -z "$(squeue -h 2>/dev/null)" ] && break; sleep 0.1; done
  fi
  stop_daemons
  [ "$status" -eq 0 ] || show_logs "$work"/*.log "$work"/cases/*/*.out "$work"/cases/*/*/*.log
  rm -rf "$work"
  exit "$status"
}
trap finish EXIT

# The solver, built as docs/protocol.md builds it.
doc_files "$protocol" '### C,' "$work/bin"
(cd "$work/bin" && PKG_CONFIG_PATH="$prefix/lib/pkgconfig" CFLAGS="${LOCKSTEP_SANITIZE_FLAGS:-}" \
  LDFLAGS="${LOCKSTEP_SANITIZE_FLAGS:-}" make >"$work/build.log" 2>&1)
# Started as "solver DIR ...", it notes in DIR/node where it runs and what
# file system DIR is on there.
mv "$work/bin/solver" "$work/bin/solver.bin"
printf '#!/bin/sh
echo "${SLURMD_NODENAME:-} $(findmnt -n -o FSTYPE -T "$1")" > "$1/node"
exec "$(dirname "$0")/solver.bin" "$@"
' \
  > "$work/bin/solver"
chmod +x "$work/bin/solver"
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

# The run trees, seen by n2 through sshfs at the same path.
cases=$work/cases
mkdir -p "$cases"
start_sshd "$work"
mount_sshfs "$work" "$cases" "$work/view" auto_cache

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
SlurmdSpoolDir=$work/spool/%n
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd-%n.pid
SlurmctldLogFile=$work/slurmctld.log
SlurmdLogFile=$work/slurmd-%n.log
SlurmdParameters=config_overrides
ProctrackType=proctrack/pgid
TaskPlugin=task/none
SelectType=select/cons_tres
MpiDefault=none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
ReturnToService=2
NodeName=n1 NodeHostname=$host Port=$(free_port) CPUs=8 State=UNKNOWN
NodeName=n2 NodeHostname=$host Port=$(free_port) CPUs=8 State=UNKNOWN
PartitionName=test Nodes=n1,n2 Default=YES MaxTime=INFINITE State=UP
CONF
slurmctld -D -i -f "$SLURM_CONF" >>"$work/slurmctld.log" 2>&1 &
daemons+=($!)
watch_daemon $! "$work/slurmctld.log"
slurmd -D -N n1 -f "$SLURM_CONF" >>"$work/slurmd-n1.log" 2>&1 &
daemons+=($!)
watch_daemon $! "$work/slurmd-n1.log"
# unshare execs the shell, which execs slurmd: one PID throughout. The
# mount that holds the run trees is made private in the new namespace, so
# that the view bound there stays there; unshare's own --propagation private
# acts on / and fails in a chroot, where / is no mount point.
unshare --mount --propagation unchanged sh -c \
  'mount --make-rprivate "$(findmnt -n -o TARGET -T "$2")" && mount --bind "$1" "$2" && exec slurmd -D -N n2 -f "$3"' \
  sh "$work/view" "$cases" "$SLURM_CONF" >>"$work/slurmd-n2.log" 2>&1 &
daemons+=($!)
watch_daemon $! "$work/slurmd-n2.log"
wait_until "[ \"\$(sinfo -h -N -o '%N %T' | sort | tr '\n' ' ')\" = 'n1 idle n2 idle ' ]"

# A run tree of main and SUBS sub projects (1 by default), ten cycles of
# two time steps, in $case_dir.
lay_out_case() {
  case_dir=$1
  local subs=${2:-1}
  mkdir -p "$case_dir/run"
  printf 'time_step=\n2\ncycle_num=\n10\nnum_subprojects=\n%s\n' "$subs" > "$case_dir/run/analysis_settings.dat"
  for project in main $(seq -f 'sub%g' "$subs"); do
    mkdir -p "$case_dir/$project"
    printf 'exchange.sh\n' > "$case_dir/$project/CalculateInteraction.dat"
    printf '#!/bin/sh\n' > "$case_dir/$project/exchange.sh"
    chmod +x "$case_dir/$project/exchange.sh"
    printf '0\n' > "$case_dir/$project/go2.dat"
  done
}

# The script's: the main project served by the solver, sub 1 by the agent.
lay_out_case "$cases/one"
printf '#!/bin/sh\necho "$1 $2 $3" >> "$LOCKSTEP_PROJECT_DIR/agent.log"\n' > "$case_dir/sub1/step.sh"
chmod +x "$case_dir/sub1/step.sh"

# A script exactly as docs/cluster.md shows it after its marker.
doc_script() {
  awk -v marker="<!-- $1: tests/cluster_test.sh runs it as written -->" '$0 == marker { found = 1; next }
       found && /^```/ { if (inside) exit; inside = 1; next }
       inside { print }' "$doc" > "$2"
  [ -s "$2" ] || { echo "no $1 found in $doc" >&2; exit 1; }
}
doc_script "batch script" "$work/job.sh"

# job_state JOB [PROGRESS]: waits for the job to leave the queue (PROGRESS as
# wait_until's) and prints how it ended, JobState=...
job_state() {
  wait_until "[ -z \"\$(squeue -h -j $1 2>/dev/null)\" ]" "${2:-true}" || return
  scontrol show job "$1" | grep -o 'JobState=[A-Z]*' || true
}

# exchange_projects DIR PROJECT...: each project's interaction program is
# lockstep-exchange, its go2.dat ready.
exchange_projects() {
  local dir=$1 project
  shift
  for project in "$@"; do
    mkdir -p "$dir/$project"
    ln -s "$prefix/bin/lockstep-exchange" "$dir/$project/exchange"
    echo exchange > "$dir/$project/CalculateInteraction.dat"
    echo 0 > "$dir/$project/go2.dat"
  done
}

job=$(cd "$case_dir" && sbatch --parsable --export=ALL "$work/job.sh")
state=$(job_state "$job" "cat '$case_dir'/*/*.log 2>/dev/null | wc -l")
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

# The two-node script: main served by the solver on n1, sub1 by an agent
# and sub2 by the solver on n2, through sshfs there.
doc_script "two-node batch script" "$work/two-node.sh"
lay_out_case "$cases/two" 2
for project in sub1 sub2; do
  cat > "$case_dir/$project/step.sh" <<'STEP'
#!/bin/sh
echo "$SLURMD_NODENAME $(findmnt -n -o FSTYPE -T "$LOCKSTEP_PROJECT_DIR")" > "$LOCKSTEP_PROJECT_DIR/node"
echo "$1 $2 $3" >> "$LOCKSTEP_PROJECT_DIR/agent.log"
STEP
  chmod +x "$case_dir/$project/step.sh"
done
job=$(cd "$case_dir" && sbatch --parsable --export=ALL "$work/two-node.sh")
state=$(job_state "$job" "cat '$case_dir'/*/*.log 2>/dev/null | wc -l")
[ "$state" = "JobState=COMPLETED" ] || { echo "job $job ended with $state" >&2; exit 1; }
batch_host=$(scontrol show job "$job" | grep -o 'BatchHost=[^ ]*' || true)
[ "$batch_host" = BatchHost=n1 ] || { echo "job $job's driver ran on $batch_host, not n1" >&2; exit 1; }
for check in "main/solver.log main/node n1 ext4|xfs|btrfs|tmpfs|overlay" "sub1/agent.log sub1/node n2 fuse.sshfs" \
  "sub2/solver.log sub2/node n2 fuse.sshfs"; do
  read -r log node_file node file_systems <<<"$check"
  if [ "$(cat "$case_dir/$log")"$'\n' != "$expected" ]; then
    echo "two nodes: $log is not the schedule, each request once:" >&2
    diff <(printf '%s' "$expected") "$case_dir/$log" >&2 || true
    exit 1
  fi
  where=$(cat "$case_dir/$node_file")
  grep -Eqx "$node ($file_systems)" <<<"$where" || { echo "two nodes: ${log%%/*} ran on \"$where\", not $node" >&2; exit 1; }
done
status=$(lockstepctl status "$case_dir/run")
grep -q '^the run is complete$' <<<"$status" || { echo "two nodes: status does not say the run is complete:" >&2; echo "$status" >&2; exit 1; }
echo "cluster: job $job on two nodes: driver and main on n1, sub1 and sub2 on n2 through sshfs -o auto_cache; 3 projects x 50 requests, each once"

# The resumable script: both projects served by agents whose step saves its
# state at each cycle end; the first job is cancelled once both have saved
# cycle 3, the second resumes.
doc_script "resumable batch script" "$work/resumable.sh"
lay_out_case "$cases/long"
for project in main sub1; do
  cat > "$case_dir/$project/step.sh" <<'STEP'
#!/bin/sh
sleep 0.05
echo "$1 $2 $3 ${LOCKSTEP_RESUMES_AFTER:-}" >> "$LOCKSTEP_PROJECT_DIR/agent.log"
if [ "$3" = 5 ]; then echo "$1" > "$LOCKSTEP_PROJECT_DIR/state-$1"; fi
STEP
  chmod +x "$case_dir/$project/step.sh"
done
first=$(cd "$case_dir" && sbatch --parsable --export=ALL "$work/resumable.sh")
wait_until "[ -d '$case_dir/main/checkpoints/3' ] && [ -d '$case_dir/sub1/checkpoints/3' ]" \
  "cat '$case_dir'/*/agent.log 2>/dev/null | wc -l"
scancel "$first"
state=$(job_state "$first")
[ "$state" = "JobState=CANCELLED" ] || { echo "job $first ended with $state, not cancelled" >&2; exit 1; }
second=$(cd "$case_dir" && sbatch --parsable --export=ALL "$work/resumable.sh")
state=$(job_state "$second" "cat '$case_dir'/*/agent.log 2>/dev/null | wc -l")
[ "$state" = "JobState=COMPLETED" ] || { echo "job $second ended with $state" >&2; exit 1; }

# Each project: the first job's requests, then from the cycle after the
# one resumed from (the second job's, told where it resumes from) to the
# last; the lost part of a cycle at most served twice.
after=$(sed -n 's/^resumes_after_cycle //p' "$case_dir/run/lockstep-resume.dat")
for project in main sub1; do
  log="$case_dir/$project/agent.log"
  second_part=$(grep -c " $after\$" "$log" || true)
  resumed=$(grep " $after\$" "$log" | cut -d' ' -f1-3)
  expected_rest=$(printf '%s' "$expected" | awk -v after="$after" '$1 > after')
  if [ "$resumed" != "$expected_rest" ]; then
    echo "$project: the second job did not serve cycles $((after + 1)) to 10 once each, in order:" >&2
    diff <(echo "$expected_rest") <(echo "$resumed") >&2 || true
    exit 1
  fi
  first_part=$(grep -v " $after\$" "$log" | cut -d' ' -f1-3)
  done_before=$(printf '%s' "$expected" | awk -v after="$after" '$1 <= after')
  case "$first_part"$'\n' in
    "$done_before"$'\n'*) ;;
    *) echo "$project: the first job did not serve cycles 1 to $after" >&2; exit 1 ;;
  esac
  lost=$(($(wc -l <<<"$first_part") - $(wc -l <<<"$done_before")))
  [ "$lost" -le 9 ] || { echo "$project: the first job served $lost requests after cycle $after" >&2; exit 1; }
  echo "cluster: $project resumed after cycle $after: $second_part requests in job $second, $lost served again"
done
status=$(lockstepctl status "$case_dir/run")
grep -q '^the run is complete$' <<<"$status" || { echo "status does not say the resumed run is complete:" >&2; echo "$status" >&2; exit 1; }

# The chain across both nodes: 4 cycles of 3 time steps.
mkdir -p "$cases/chain/run"
printf 'time_step=\n3\ncycle_num=\n4\nnum_subprojects=\n2\n' > "$cases/chain/run/analysis_settings.dat"
cp "$chain_table" "$cases/chain/run/exchange.dat"
exchange_projects "$cases/chain" main sub1 sub2
cat > "$work/chain.sh" <<SCRIPT
#!/bin/bash
#SBATCH --job-name=chain --nodes=2 --ntasks-per-node=3 --output=chain-%j.out
cd "$cases/chain" || exit 1
first=\$(scontrol show hostnames | sed -n 1p)
second=\$(scontrol show hostnames | sed -n 2p)
srun --nodes=1 --ntasks=1 --exact --overcommit --nodelist="\$first" "$chain_solver" main 0 4 4 2> main/solver.log &
srun --nodes=1 --ntasks=1 --exact --overcommit --nodelist="\$second" "$chain_solver" sub1 4 4 4 2> sub1/solver.log &
srun --nodes=1 --ntasks=1 --exact --overcommit --nodelist="\$second" "$chain_solver" sub2 8 4 4 2> sub2/solver.log &
# Every solver publishes its starting boundary before the first stage.
until [ -f main/fields/out/last.npy ] && [ -f sub1/fields/out/last.npy ] && [ -f sub2/fields/out/last.npy ]; do sleep 0.05; done
(cd run && lockstep) > run/driver.log
wait
SCRIPT
job=$(cd "$cases/chain" && sbatch --parsable --export=ALL "$work/chain.sh")
state=$(job_state "$job" "cat '$cases/chain'/*/chain.csv 2>/dev/null | wc -l")
[ "$state" = "JobState=COMPLETED" ] || { echo "chain job $job ended with $state" >&2; cat "$cases"/chain/*/solver.log >&2; exit 1; }
"$chain_check" "$cases/chain" 4 3 main:0:4 sub1:4:4 sub2:8:4
echo "cluster: the chain on two nodes, sub1 and sub2 through sshfs -o auto_cache on n2: fields exchanged every stage, exactly"

[ -n "$heat_left" ] || exit 0
# The heat example's right side on 4 ranks, 2 a node; its reference is the
# serial solvers' run on this machine (heat.py --ranks 1,1 runs both).
python=${PYTHON:-python3}
export PYTHONPATH="$prefix/lib/python3/dist-packages:$heat_dir"
"$python" "$heat_dir/heat.py" "$prefix/bin" "$heat_left" "$work/reference" --smallest --ranks 1,1 >"$work/reference.log"
printf '#!/bin/sh\nexec "%s" "$@"\n' "$heat_left" > "$work/bin/heat_left"
# Each rank notes where it runs and what file system the project is on there.
printf '#!/bin/sh\necho "$SLURMD_NODENAME $(findmnt -n -o FSTYPE -T "$1")" > "$1/node-$OMPI_COMM_WORLD_RANK"\nexec "%s" "%s" "$@"\n' \
  "$python" "$heat_dir/heat_right_mpi.py" > "$work/bin/heat_right_mpi"
chmod +x "$work/bin/heat_left" "$work/bin/heat_right_mpi"
doc_script "parallel batch script" "$work/parallel.sh"
read -r time_steps TIME_STEP < <("$python" -c 'import heat; steps, dt = heat.schedule(8, 8); print(steps, "%.17g" % dt)')
export TIME_STEP OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
# Both nodes are this one host under one name, so Open MPI would join ranks
# of n1 and n2 through shared memory, which fails across n2's mount
# namespace: between nodes, as on a real cluster, only TCP.
export OMPI_MCA_btl=self,tcp
mkdir -p "$cases/heat/run"
printf 'time_step=\n%s\ncycle_num=\n4\nnum_subprojects=\n1\n' "$time_steps" > "$cases/heat/run/analysis_settings.dat"
"$python" -c 'import heat; print(heat.table_words("nearest-neighbour"), end="")' > "$cases/heat/run/exchange.dat"
exchange_projects "$cases/heat" main sub1
job=$(cd "$cases/heat" && sbatch --parsable --export=ALL "$work/parallel.sh")
state=$(job_state "$job" "ls '$cases/heat'/*/fields/out 2>/dev/null | wc -l")
[ "$state" = "JobState=COMPLETED" ] ||
  { echo "parallel job $job ended with $state" >&2; cat "$cases"/heat/*/solver.log >&2; exit 1; }
"$python" - "$work/reference/nearest-neighbour-8-8" "$cases/heat" <<'PYTHON'
import sys
from pathlib import Path

import numpy

import heat

serial, parallel = Path(sys.argv[1]), Path(sys.argv[2])
nodes = [(parallel / "sub1" / f"node-{rank}").read_text().split() for rank in range(4)]
assert [node for node, _ in nodes] == ["n1", "n1", "n2", "n2"], nodes
assert nodes[2][1] == nodes[3][1] == "fuse.sshfs" and nodes[0][1] != "fuse.sshfs", nodes
difference = max(numpy.abs(heat.by_point(parallel, p) - heat.by_point(serial, p)).max() for p in ("main", "sub1"))
assert difference <= 1e-12, difference
print(f"cluster: the heat example's right side on 4 ranks over n1 and n2 (sshfs there), left side and driver on n1: "
      f"largest difference from the serial run {difference:.1e}")
PYTHON
