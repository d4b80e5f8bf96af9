#!/usr/bin/env bash
# An OpenSSH server on loopback for the sftp provider's tests, run as the current user with
# its own host key, client key, authorized_keys and known_hosts in $VFS_SSHD_DIR; the
# system's sshd, its configuration and its keys are never touched.
#
#   sshd.sh start   nothing to do when it answers; otherwise starts a fresh one. Prints
#                   `export VFS_SFTP_...=` lines for the tests: eval them.
#   sshd.sh stop    stops the server this script started (by its pid file)
#   sshd.sh status  exit status 0 when the server runs and answers
set -euo pipefail

DIR=${VFS_SSHD_DIR:-/tmp/vfs-sshd}
PORT=${VFS_SSHD_PORT:-2222}
HOST=127.0.0.1
CONF=$DIR/sshd_config
PIDFILE=$DIR/sshd.pid

say() { printf '[sshd %s] %s\n' "$(date +%T)" "$*" >&2; }

running() { kill -0 "$(cat "$PIDFILE" 2>/dev/null || echo 0)" 2>/dev/null; }

answers() {
  ssh -F /dev/null -o BatchMode=yes -o IdentitiesOnly=yes -o ConnectTimeout=3 \
    -o StrictHostKeyChecking=yes -o UserKnownHostsFile="$DIR/known_hosts" \
    -i "$DIR/client_key" -p "$PORT" "$(id -un)@$HOST" true >/dev/null 2>&1
}

healthy() { running && answers; }

stop_server() {
  local pid
  pid=$(cat "$PIDFILE" 2>/dev/null || true)
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 25); do kill -0 "$pid" 2>/dev/null || break; sleep 0.2; done
    kill -0 "$pid" 2>/dev/null && kill -9 "$pid" 2>/dev/null || true
  fi
  rm -f "$PIDFILE"
}

print_environment() {
  echo "export VFS_SFTP_HOST=$HOST"
  echo "export VFS_SFTP_PORT=$PORT"
  echo "export VFS_SFTP_USER=$(id -un)"
  echo "export VFS_SFTP_IDENTITY=$DIR/client_key"
  echo "export VFS_SFTP_KNOWN_HOSTS=$DIR/known_hosts"
  echo "export VFS_SFTP_DATA=$DIR/data"
  echo "export VFS_SFTP_PIDFILE=$PIDFILE"
}

start() {
  if healthy; then
    say "already running on $HOST:$PORT"
    print_environment
    return 0
  fi
  [ -x /usr/sbin/sshd ] || { say "no /usr/sbin/sshd: run scripts/install-deps.sh"; exit 1; }
  stop_server
  if (exec 3<>"/dev/tcp/$HOST/$PORT") 2>/dev/null; then
    say "port $PORT is taken by a process this script did not start"
    exit 1
  fi
  rm -rf "$DIR"
  mkdir -p "$DIR/data"
  chmod 700 "$DIR"
  ssh-keygen -q -t ed25519 -N '' -C vfs-test-host -f "$DIR/host_key"
  ssh-keygen -q -t ed25519 -N '' -C vfs-test-client -f "$DIR/client_key"
  cp "$DIR/client_key.pub" "$DIR/authorized_keys"
  echo "[$HOST]:$PORT $(cut -d' ' -f1,2 "$DIR/host_key.pub")" >"$DIR/known_hosts"
  cat >"$CONF" <<EOF
Port $PORT
ListenAddress $HOST
HostKey $DIR/host_key
PidFile $PIDFILE
AuthorizedKeysFile $DIR/authorized_keys
AuthenticationMethods publickey
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin prohibit-password
AllowUsers $(id -un)
UsePAM no
StrictModes no
Subsystem sftp /usr/lib/openssh/sftp-server
LogLevel ERROR
EOF
  # sshd wants an absolute path to re-execute itself, and the privilege separation folder.
  mkdir -p /run/sshd 2>/dev/null || true
  # Detached from our output, so that `eval "$(sshd.sh start)"` returns.
  /usr/sbin/sshd -D -f "$CONF" -E "$DIR/sshd.log" </dev/null >/dev/null 2>&1 &
  for _ in $(seq 50); do answers && break; sleep 0.2; done
  answers || { say "the server does not answer"; tail -n 20 "$DIR/sshd.log" >&2 || true; exit 1; }
  say "ready on $HOST:$PORT"
  print_environment
}

case "${1:-start}" in
  start) start ;;
  stop) stop_server; say "stopped" ;;
  status) healthy ;;
  *) echo "usage: $0 start|stop|status" >&2; exit 2 ;;
esac
