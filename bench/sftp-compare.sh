#!/usr/bin/env bash
# The sftp provider against the tools an SSH user would otherwise use, side by side on the
# test server (scripts/sshd.sh, loopback): upload and download of 256 MiB (scp, sftp),
# recursive listing of 10,000 files (rclone lsf -R; OpenSSH's sftp has no recursive ls),
# copying a folder of 2,000 small files (scp -r, rsync -a over ssh), and find and cat
# through `vfs mount` against sshfs. Contenders alternate within each repetition; the
# table shows medians and each row's ratio to the fastest of its group.
#
# Usage: bench/sftp-compare.sh [REPETITIONS]      (default 3)
# Data is made in $VFS_BENCH_DIR/sftp (default /tmp/vfs-bench/sftp) and kept between runs.
set -euo pipefail
cd "$(dirname "$0")/.."
reps="${1:-3}"

./scripts/install-deps.sh
missing=()
for tool in rclone:rclone sshfs:sshfs rsync:rsync; do
  command -v "${tool%%:*}" >/dev/null || missing+=("${tool#*:}")
done
if [ ${#missing[@]} -gt 0 ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target vfs_tool >/dev/null
vfs="$PWD/build/release/tools/vfs/vfs"
eval "$(./scripts/sshd.sh start)"

local_dir="${VFS_BENCH_DIR:-/tmp/vfs-bench}/sftp"
remote_dir="$VFS_SFTP_DATA/bench"
work="$(mktemp -d)"
vfs_mnt="$work/vfs-mnt"
sshfs_mnt="$work/sshfs-mnt"
mkdir -p "$local_dir" "$vfs_mnt" "$sshfs_mnt" "$work/out"
results="$work/results"
cleanup() {
  "$vfs" umount "$vfs_mnt" 2>/dev/null || true
  fusermount3 -u "$sshfs_mnt" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Every contender reaches the server with the same key and known_hosts, by one alias.
ssh_opts=(-F "$work/ssh_config")
cat >"$work/ssh_config" <<EOF
Host vfs-bench
  HostName $VFS_SFTP_HOST
  Port $VFS_SFTP_PORT
  User $VFS_SFTP_USER
  IdentityFile $VFS_SFTP_IDENTITY
  IdentitiesOnly yes
  UserKnownHostsFile $VFS_SFTP_KNOWN_HOSTS
  StrictHostKeyChecking yes
  BatchMode yes
EOF
export VFS_SSH_CONFIG="$work/ssh_config"
cat >"$work/rclone.conf" <<EOF
[bench]
type = sftp
host = $VFS_SFTP_HOST
port = $VFS_SFTP_PORT
user = $VFS_SFTP_USER
key_file = $VFS_SFTP_IDENTITY
known_hosts_file = $VFS_SFTP_KNOWN_HOSTS
EOF
remote="sftp://vfs-bench$remote_dir"

[ -f "$local_dir/big.bin" ] || head -c 256M /dev/urandom >"$local_dir/big.bin"
if [ ! -d "$local_dir/small" ]; then
  mkdir -p "$local_dir/small"
  for i in $(seq 1 2000); do head -c 4096 /dev/urandom >"$local_dir/small/f$i"; done
fi
ssh "${ssh_opts[@]}" vfs-bench "rm -rf '$remote_dir' && mkdir -p '$remote_dir/listing' && cd '$remote_dir/listing' &&
  for d in \$(seq 1 100); do mkdir d\$d; (cd d\$d && touch \$(seq -f f%g 1 100)); done"
scp "${ssh_opts[@]}" -q "$local_dir/big.bin" "vfs-bench:$remote_dir/big.bin"
"$vfs" mount "$remote" "$vfs_mnt"
sshfs -F "$work/ssh_config" "vfs-bench:$remote_dir" "$sshfs_mnt"

seconds() { # runs the command quietly; its wall time in seconds
  local start end
  start=$(date +%s%N)
  "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; return 1; }
  end=$(date +%s%N)
  python3 -c "print(($end - $start) / 1e9)"
}
row() { # group, contender, command...
  local group="$1" who="$2"
  shift 2
  echo "$group $who $(seconds "$@")" >>"$results"
}
fresh() { ssh "${ssh_opts[@]}" vfs-bench "rm -rf '$remote_dir/$1'"; rm -rf "${work:?}/out/$1"; }
sftp_batch() { printf '%s\n' "$1" >"$work/batch"; sftp "${ssh_opts[@]}" -q -b "$work/batch" vfs-bench; }

upload() {
  case "$1" in
  vfs) fresh up; row upload-256MiB "vfs cp" "$vfs" cp "$local_dir/big.bin" "$remote/up" ;;
  scp) fresh up; row upload-256MiB scp scp "${ssh_opts[@]}" -q "$local_dir/big.bin" "vfs-bench:$remote_dir/up" ;;
  sftp) fresh up; row upload-256MiB sftp sftp_batch "put $local_dir/big.bin $remote_dir/up" ;;
  esac
}
download() {
  case "$1" in
  vfs) fresh down; row download-256MiB "vfs cp" "$vfs" cp "$remote/big.bin" "$work/out/down" ;;
  scp) fresh down; row download-256MiB scp scp "${ssh_opts[@]}" -q "vfs-bench:$remote_dir/big.bin" "$work/out/down" ;;
  sftp) fresh down; row download-256MiB sftp sftp_batch "get $remote_dir/big.bin $work/out/down" ;;
  esac
}
listing() {
  case "$1" in
  vfs) row list-10000 "vfs ls -R" "$vfs" ls -R "$remote/listing" ;;
  rclone) row list-10000 "rclone lsf -R" rclone --config "$work/rclone.conf" lsf -R "bench:$remote_dir/listing" ;;
  esac
}
small() {
  case "$1" in
  vfs) fresh small; row copy-2000-small "vfs cp -r" "$vfs" cp -r "$local_dir/small" "$remote/small" ;;
  scp) fresh small; row copy-2000-small "scp -r" scp "${ssh_opts[@]}" -q -r "$local_dir/small" "vfs-bench:$remote_dir/small" ;;
  rsync) fresh small; row copy-2000-small "rsync -a" rsync -a -e "ssh -F $work/ssh_config" "$local_dir/small" "vfs-bench:$remote_dir/" ;;
  esac
}
through_mount() {
  local mnt="$vfs_mnt" who="vfs mount"
  [ "$1" = sshfs ] && mnt="$sshfs_mnt" && who=sshfs
  row mount-find-10000 "$who" find "$mnt/listing"
  row mount-cat-256MiB "$who" cat "$mnt/big.bin"
}

for rep in $(seq 1 "$reps"); do
  echo "repetition $rep of $reps" >&2
  # Alternate who goes first, so that neither always meets a warm or a cold server.
  if [ $((rep % 2)) -eq 1 ]; then order=(a b c); else order=(c b a); fi
  for k in "${order[@]}"; do
    case $k in
    a) upload vfs; download vfs; listing vfs; small vfs; through_mount vfs ;;
    b) upload scp; download scp; listing rclone; small scp; through_mount sshfs ;;
    c) upload sftp; download sftp; small rsync ;;
    esac
  done
done

echo "load average: $(cut -d' ' -f1-3 /proc/loadavg), $reps repetitions"
python3 - "$results" <<'PY'
import statistics, sys
groups = {}
for line in open(sys.argv[1]):
    parts = line.split()
    group, value, who = parts[0], float(parts[-1]), " ".join(parts[1:-1])
    groups.setdefault(group, {}).setdefault(who, []).append(value)
print("| job | contender | median s | ratio to fastest |")
print("|---|---|---|---|")
for group, contenders in groups.items():
    medians = {who: statistics.median(v) for who, v in contenders.items()}
    fastest = min(medians.values())
    for who, m in medians.items():
        print(f"| {group} | {who} | {m:.3f} | {m / fastest:.2f} |")
PY
