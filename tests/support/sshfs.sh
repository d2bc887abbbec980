# A network file system on this one machine: an sshd that listens on
# 127.0.0.1 only, with host and user keys made in the caller's work
# directory, and sshfs views of local directories through it.
# wait_until.sh comes first. Daemons started here, and any the caller adds
# to `daemons`, are stopped by stop_daemons, which the caller's exit trap
# calls; the views in `mounts` are detached first.
daemons=()
mounts=()

# sshfs_unusable: why sshd and sshfs cannot be used here, if they cannot.
sshfs_unusable() {
  local tool
  for tool in /usr/sbin/sshd ssh-keygen sshfs fusermount3; do
    command -v "$tool" >/dev/null || { echo "$tool is missing (apt-get install openssh-server openssh-client sshfs)"; return; }
  done
  [ -c /dev/fuse ] || { echo "/dev/fuse is missing"; return; }
  [ "$(id -u)" -eq 0 ] || echo "mounting sshfs and starting sshd here needs root"
}

# stop_daemons: every view detached, every daemon stopped by its PID,
# with SIGKILL after 10 s.
stop_daemons() {
  local view pid
  for view in "${mounts[@]}"; do umount -l "$view" 2>/dev/null || true; done
  for pid in "${daemons[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${daemons[@]}"; do
    for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  done
}

# show_logs FILE...: the end of each that exists.
show_logs() {
  local log
  for log in "$@"; do
    [ -f "$log" ] && { echo "== $log"; tail -n 30 "$log"; }
  done
  return 0
}

# start_sshd WORK: sets sshd_port.
start_sshd() {
  local work=$1
  ssh-keygen -q -t ed25519 -N '' -f "$work/host_key"
  ssh-keygen -q -t ed25519 -N '' -f "$work/user_key"
  cp "$work/user_key.pub" "$work/authorized_keys"
  chmod 600 "$work/authorized_keys"
  sshd_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  printf '[127.0.0.1]:%s %s\n' "$sshd_port" "$(cut -d' ' -f1-2 "$work/host_key.pub")" > "$work/known_hosts"
  cat > "$work/sshd_config" <<CONF
ListenAddress 127.0.0.1
Port $sshd_port
HostKey $work/host_key
PidFile $work/sshd.pid
AuthorizedKeysFile $work/authorized_keys
PubkeyAuthentication yes
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin prohibit-password
AllowUsers $(id -un)
StrictModes no
UsePAM no
Subsystem sftp internal-sftp
CONF
  # sshd's own privilege-separation directory, which its package makes at boot.
  mkdir -p /run/sshd
  /usr/sbin/sshd -D -e -f "$work/sshd_config" >>"$work/sshd.log" 2>&1 &
  daemons+=($!)
  watch_daemon $! "$work/sshd.log"
  wait_until "grep -q 'Server listening' '$work/sshd.log'"
}

# mount_sshfs WORK DIRECTORY VIEW OPTIONS: DIRECTORY, seen through sshfs at
# VIEW, mounted with the sshfs options OPTIONS ("auto_cache", ...).
mount_sshfs() {
  local work=$1 directory=$2 view=$3 options=$4
  mkdir -p "$view"
  sshfs -f "$(id -un)@127.0.0.1:$directory" "$view" \
    -o "port=$sshd_port,IdentityFile=$work/user_key,UserKnownHostsFile=$work/known_hosts" \
    -o "StrictHostKeyChecking=yes,BatchMode=yes,IdentitiesOnly=yes,$options" >>"$work/sshfs.log" 2>&1 &
  daemons+=($!)
  mounts+=("$view")
  watch_daemon $! "$work/sshfs.log"
  wait_until "findmnt -M '$view'"
}
