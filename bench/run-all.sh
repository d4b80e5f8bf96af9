#!/usr/bin/env bash
# Runs every benchmark of the project side by side with the tools a user would otherwise
# use, and prints one table of medians with each contender's ratio to the fastest of its
# group; the same goes to a JSON file for comparing runs.
#
# Usage: bench/run-all.sh [REPETITIONS] [JSON_OUT]      (defaults: 5, bench-results.json)
# Trees live in $VFS_BENCH_DIR (default /tmp/vfs-bench) and are kept between runs.
set -euo pipefail
cd "$(dirname "$0")/.."
reps="${1:-5}"
json_out="$(realpath -m "${2:-bench-results.json}")"

./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target vfs_tool storage_iri_bench local_provider_bench eventmgr_bench \
  tree_bench stream_bench storage_events_bench >/dev/null
build="$PWD/build/release"
vfs="$build/tools/vfs/vfs"
bench_dir="${VFS_BENCH_DIR:-/tmp/vfs-bench}"
results="$(mktemp -d)"
trap 'rm -rf "$results"' EXIT

gbench() { # binary name, then its own arguments
  local name="$1"; shift
  echo "== $name $*" >&2
  "$build/bench/$name" --benchmark_repetitions="$reps" --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true --benchmark_format=json \
    --benchmark_out="$results/gb-$name-$(date +%s%N).json" --benchmark_out_format=json "$@" >/dev/null
}

# Google Benchmark binaries; the tree benchmarks in the order the disk needs (walks, copies
# into fresh folders, then removals; see tree_bench.sh).
gbench storage_iri_bench
gbench eventmgr_bench
gbench local_provider_bench
gbench stream_bench
gbench storage_events_bench
gbench tree_bench --benchmark_filter='^Walk'
gbench tree_bench --benchmark_filter='^CopyTree'

# Whole commands with hyperfine: the tool against the standard tools on the same trees.
tree="$bench_dir/tree"             # 200,000 files in 10,000 folders, made by tree_bench
small="$bench_dir/command-source"  # 10,000 files in 500 folders, for copies and removals
if [ ! -e "$small/.complete" ]; then
  rm -rf "$small"
  for d in $(seq 0 499); do
    mkdir -p "$small/d$((d / 50))/d$d"
    for f in $(seq 0 19); do head -c $((f * 50)) /dev/zero >"$small/d$((d / 50))/d$d/f$f.txt"; done
  done
  touch "$small/.complete"
fi
big="$bench_dir/command-256MiB"
[ -s "$big" ] || head -c $((256 << 20)) /dev/urandom >"$big"
copies="$bench_dir/command-copies-$$"  # fresh folders for every copy (see BENCHMARKS.md)
mkdir -p "$copies"

hf() { # group name, then commands
  local group="$1"; shift
  echo "== $group" >&2
  hyperfine --style none --warmup 1 --runs "$reps" --export-json "$results/hf-$group.json" "$@" >/dev/null
}
hf walk-names "$vfs find $tree >/dev/null" "$vfs find --parallel $tree >/dev/null" \
  "find $tree >/dev/null" "fdfind -uu . $tree >/dev/null"
hf disk-usage "$vfs du $tree >/dev/null" "$vfs du --parallel $tree >/dev/null" "du -s $tree >/dev/null"
hf read-256MiB "$vfs cat $big >/dev/null" "cat $big >/dev/null"
hf copy-tree "$vfs cp -r $small \$(mktemp -u -p $copies)" "cp -r $small \$(mktemp -u -p $copies)"
# Removals at the end: they delete what the copies made.
hf remove-tree --prepare "cp -r $small $copies/victim" "$vfs rm -r $copies/victim" "rm -rf $copies/victim"
rm -rf "$copies"
gbench tree_bench --benchmark_filter='^RemoveTree'

python3 bench/summarize.py "$results" "$json_out"
echo "JSON: $json_out" >&2
