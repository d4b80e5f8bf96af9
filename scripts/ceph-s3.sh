#!/usr/bin/env bash
# A single-node Ceph (one monitor, one memstore OSD, no manager) and its S3 gateway
# (radosgw) on loopback, for the s3 provider's tests and benchmarks.
#
#   ceph-s3.sh start   nothing to do when healthy; otherwise builds a fresh cluster in
#                      $VFS_CEPH_DIR. Prints `export AWS_...=` lines for the tests: eval them.
#   ceph-s3.sh stop    stops the daemons this script started (by their pid files)
#   ceph-s3.sh status  exit status 0 when the daemons run and a signed request answers
#
# Installs its Debian packages when they are missing (needs root then). Data lives in
# memory (memstore), so a start takes seconds and a stop forgets everything. The store
# holds $VFS_MEMSTORE_BYTES (6 GiB); the gateway reclaims removed data within seconds.
set -euo pipefail

DIR=${VFS_CEPH_DIR:-/tmp/vfs-ceph-s3}   # short: admin socket paths must stay below 108 bytes
RGW_PORT=${VFS_RGW_PORT:-7480}
MON_PORT=${VFS_MON_PORT:-3300}
ACCESS_KEY=${VFS_S3_ACCESS_KEY:-VFSTESTACCESSKEY0001}
SECRET_KEY=${VFS_S3_SECRET_KEY:-vfstestsecretkey000000000000000000000001}
MEMSTORE_BYTES=${VFS_MEMSTORE_BYTES:-6442450944}
ENDPOINT=http://127.0.0.1:$RGW_PORT
CONF=$DIR/ceph.conf
KEYS=$DIR/keyring
DAEMONS=(mon.a osd.0 client.rgw.gw)

say() { printf '[ceph-s3 %s] %s\n' "$(date +%T)" "$*" >&2; }
ceph_cli() { ceph -c "$CONF" --connect-timeout 10 "$@"; }
signed_get() {
  curl -fsS -m "$1" --aws-sigv4 "aws:amz:default:s3" --user "$ACCESS_KEY:$SECRET_KEY" \
    -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "${@:2}"
}
gateway_answers() { curl -fsS -m 2 "$ENDPOINT/" >/dev/null 2>&1; }
osd_up() { ceph_cli osd dump 2>/dev/null | grep -q '^osd\.0 up'; }

# The gateway answers anonymous requests even when the OSD is gone; only a signed
# listing of the buckets proves that the whole chain works.
healthy() {
  local daemon
  for daemon in "${DAEMONS[@]}"; do
    kill -0 "$(cat "$DIR/run/$daemon.pid" 2>/dev/null || echo 0)" 2>/dev/null || return 1
  done
  signed_get 5 "$ENDPOINT/" >/dev/null 2>&1
}

stop_daemons() {
  local pidfile pid
  for pidfile in "$DIR"/run/*.pid; do
    [ -e "$pidfile" ] || continue
    pid=$(cat "$pidfile" 2>/dev/null || true)
    if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
      kill "$pid" 2>/dev/null || true
      for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.2; done
      kill -0 "$pid" 2>/dev/null && kill -9 "$pid" 2>/dev/null || true
    fi
    rm -f "$pidfile"
  done
}

wait_until() { # seconds, what, command...
  local deadline=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    if [ $SECONDS -ge $deadline ]; then
      say "gave up waiting for $what"
      tail -n 20 "$DIR"/log/*.log >&2 || true
      return 1
    fi
    sleep 0.2
  done
}

install_packages() {
  local missing=() tool package
  for tool in ceph-mon:ceph-mon ceph-osd:ceph-osd radosgw:radosgw curl:curl uuidgen:uuid-runtime; do
    command -v "${tool%%:*}" >/dev/null || missing+=("${tool#*:}")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  [ "$(id -u)" = 0 ] || { say "root is needed to install ${missing[*]}"; exit 1; }
  say "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

write_config() { # fsid
  cat >"$CONF" <<EOF
[global]
fsid = $1
mon host = v2:127.0.0.1:$MON_PORT
public addr = 127.0.0.1
ms bind ipv6 = false
ms bind msgr1 = false
auth cluster required = cephx
auth service required = cephx
auth client required = cephx
auth allow insecure global id reclaim = false
keyring = $KEYS/\$name.keyring
run dir = $DIR/run
admin socket = $DIR/run/\$name.asok
pid file = $DIR/run/\$name.pid
log file = $DIR/log/\$name.log
log to stderr = false
err to stderr = true
# One OSD: pools of one replica, no failure domain, few placement groups, no space alarms.
osd pool default size = 1
osd pool default min size = 1
mon allow pool size one = true
mon warn on pool no redundancy = false
osd crush chooseleaf type = 0
osd pool default pg num = 8
osd pool default pgp num = 8
osd pool default pg autoscale mode = off
mon max pg per osd = 1000
mon data avail warn = 1
mon data avail crit = 0

[mon]
mon data = $DIR/mon/\$id
mon initial members = a
# The gateway creates its pools one by one at start; each waits for a map commit.
paxos propose interval = 0.1

[osd]
osd data = $DIR/osd/\$id
osd objectstore = memstore
memstore device bytes = $MEMSTORE_BYTES
osd memory target = 939524096

[client.rgw.gw]
rgw frontends = beast endpoint=127.0.0.1:$RGW_PORT
rgw data = $DIR/rgw
rgw enable usage log = false
# Reclaim the data of removed and replaced objects at once, not hours later: an in-memory
# store that keeps it fills up and stops every write.
rgw gc obj min wait = 0
rgw gc processor period = 2
log file = $DIR/log/rgw.log
EOF
}

print_environment() {
  echo "export AWS_ENDPOINT_URL=$ENDPOINT"
  echo "export AWS_ACCESS_KEY_ID=$ACCESS_KEY"
  echo "export AWS_SECRET_ACCESS_KEY=$SECRET_KEY"
  echo "export AWS_REGION=default"
}

refuse_foreign_ports() {
  local port
  for port in "$MON_PORT" "$RGW_PORT"; do
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      say "port $port is taken by a process this script did not start"
      exit 1
    fi
  done
}

start() {
  if healthy; then
    say "already running at $ENDPOINT"
    print_environment
    return 0
  fi
  install_packages
  stop_daemons
  refuse_foreign_ports
  rm -rf "$DIR"
  mkdir -p "$DIR"/{run,log,keyring,mon/a,osd/0,rgw}
  local fsid osd_uuid id
  fsid=$(uuidgen)
  osd_uuid=$(uuidgen)
  write_config "$fsid"

  say "monitor"
  ceph-authtool --create-keyring "$KEYS/mon.a.keyring" --gen-key -n mon. --cap mon 'allow *' >/dev/null
  ceph-authtool --create-keyring "$KEYS/client.admin.keyring" --gen-key -n client.admin \
    --cap mon 'allow *' --cap osd 'allow *' --cap mgr 'allow *' --cap mds 'allow *' >/dev/null
  ceph-authtool "$KEYS/mon.a.keyring" --import-keyring "$KEYS/client.admin.keyring" >/dev/null
  monmaptool --create --fsid "$fsid" --addv a "[v2:127.0.0.1:$MON_PORT]" "$DIR/monmap" >/dev/null
  ceph-mon -c "$CONF" -i a --mkfs --monmap "$DIR/monmap" --keyring "$KEYS/mon.a.keyring"
  ceph-mon -c "$CONF" -i a
  wait_until 60 "the monitor" ceph_cli mon stat

  say "object store daemon (memstore)"
  id=$(ceph_cli osd new "$osd_uuid")
  [ "$id" = 0 ] || { say "the new OSD got id '$id', expected 0"; exit 1; }
  # The key must be known before mkfs, which fetches its configuration from the monitor.
  ceph-authtool --create-keyring "$KEYS/osd.0.keyring" --gen-key -n osd.0 >/dev/null
  ceph_cli auth add osd.0 osd 'allow *' mon 'allow profile osd' mgr 'allow profile osd' \
    -i "$KEYS/osd.0.keyring" >/dev/null 2>&1
  ceph-osd -c "$CONF" -i 0 --mkfs --osd-uuid "$osd_uuid" 2>>"$DIR/log/osd-mkfs.log"
  ceph-osd -c "$CONF" -i 0 2>>"$DIR/log/osd-start.log"
  wait_until 60 "the OSD" osd_up

  say "gateway"
  ceph_cli auth get-or-create client.rgw.gw mon 'allow rw' osd 'allow rwx' \
    -o "$KEYS/client.rgw.gw.keyring" >/dev/null 2>&1
  radosgw -c "$CONF" -n client.rgw.gw
  wait_until 120 "the gateway at $ENDPOINT" gateway_answers

  say "test user"
  radosgw-admin -c "$CONF" user create --uid=vfs-test --display-name="vfs tests" \
    --access-key="$ACCESS_KEY" --secret-key="$SECRET_KEY" >/dev/null 2>>"$DIR/log/radosgw-admin.log"
  # The first bucket makes the gateway create its index and data pools (seconds); pay for
  # that here rather than in the first test.
  signed_get 60 -X PUT "$ENDPOINT/vfs-warmup" >/dev/null
  signed_get 60 -X DELETE "$ENDPOINT/vfs-warmup" >/dev/null
  say "ready at $ENDPOINT"
  print_environment
}

case "${1:-start}" in
  start) start ;;
  stop) stop_daemons; say "stopped" ;;
  status) healthy ;;
  *) echo "usage: $0 start|stop|status" >&2; exit 2 ;;
esac
