#!/usr/bin/env bash
# A local folder through `vfs mount` against the same folder directly, side by side:
# fio sequential write and read of 1 GiB, and find and du over the 200,000-file tree that
# tree_bench makes. Runs alternate between the two in each repetition; the table shows
# medians and each mount figure as a ratio of the direct one.
#
# Usage: bench/mount-bench.sh [REPETITIONS]      (default 5)
# Needs /dev/fuse, fio, and $VFS_BENCH_DIR/tree (default /tmp/vfs-bench; bench/run-all.sh
# or the tree_bench binary makes it).
set -euo pipefail
cd "$(dirname "$0")/.."
reps="${1:-5}"

./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target vfs_tool >/dev/null
vfs="$PWD/build/release/tools/vfs/vfs"
bench_dir="${VFS_BENCH_DIR:-/tmp/vfs-bench}"
[ -d "$bench_dir/tree" ] || { echo "no tree in $bench_dir/tree: run bench/run-all.sh (or tree_bench) first" >&2; exit 1; }

mnt="$(mktemp -d)"
results="$(mktemp)"
cleanup() { "$vfs" umount "$mnt" 2>/dev/null || true; rmdir "$mnt"; rm -f "$results"; }
trap cleanup EXIT
# The fio file is made once and overwritten in place: deleting and creating files on this
# disk is slow for minutes afterwards.
mkdir -p "$bench_dir/mount-fio"
"$vfs" mount "$bench_dir" "$mnt"

# fio bandwidth in MiB/s of one sequential job ("write" or "read") on `directory`.
fio_mibs() {
  local kind="$1" directory="$2"
  fio --name=seq --directory="$directory" --filename=seq.bin --rw="$kind" --bs=1m --size=1g \
      --ioengine=psync --output-format=json |
    python3 -c "import json,sys; j=json.load(sys.stdin)['jobs'][0]['$1']; print(j['bw_bytes']/1048576)"
}
seconds() { local start end; start=$(date +%s%N); "$@" >/dev/null; end=$(date +%s%N); echo "$(( (end - start) / 1000000 ))e-3"; }

run_one() { # where (direct|mount), base folder
  local where="$1" base="$2"
  echo "write-MiB/s $where $(fio_mibs write "$base/mount-fio")" >>"$results"
  echo "read-MiB/s $where $(fio_mibs read "$base/mount-fio")" >>"$results"
  echo "find-s $where $(seconds find "$base/tree")" >>"$results"
  echo "du-s $where $(seconds du -s "$base/tree")" >>"$results"
}

fio_mibs write "$bench_dir/mount-fio" >/dev/null  # lays the file out once
for rep in $(seq 1 "$reps"); do
  echo "repetition $rep of $reps" >&2
  if [ $((rep % 2)) -eq 1 ]; then run_one direct "$bench_dir"; run_one mount "$mnt"
  else run_one mount "$mnt"; run_one direct "$bench_dir"; fi
done

echo "load average: $(cut -d' ' -f1-3 /proc/loadavg), $reps repetitions"
python3 - "$results" <<'PY'
import statistics, sys
values = {}
for line in open(sys.argv[1]):
    metric, where, value = line.split()
    values.setdefault(metric, {}).setdefault(where, []).append(float(value))
print("| measure | direct (median) | through vfs mount (median) | mount / direct |")
print("|---|---|---|---|")
for metric, by in values.items():
    direct, mount = statistics.median(by["direct"]), statistics.median(by["mount"])
    print(f"| {metric} | {direct:.3f} | {mount:.3f} | {mount / direct:.2f} |")
PY
