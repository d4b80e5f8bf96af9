#!/usr/bin/env bash
# Runs every benchmark of the project side by side with the tools a user would otherwise
# use, and prints one table of medians with each contender's ratio to the fastest of its
# group; the same goes to a JSON file for comparing runs.
#
# Usage: bench/run-all.sh [REPETITIONS] [JSON_OUT]      (defaults: 3, bench-results.json)
# Trees live in $VFS_BENCH_DIR (default /tmp/vfs-bench) and are kept between runs. A group
# whose prerequisite is missing (the S3 gateway, a fixture) is skipped with a line saying
# why; a benchmark that fails is named in the table's notes, and the rest still runs.
set -euo pipefail
cd "$(dirname "$0")/.."
reps="${1:-3}"
json_out="$(realpath -m "${2:-bench-results.json}")"

./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target vfs_tool storage_iri_bench local_provider_bench eventmgr_bench \
  tree_bench stream_bench storage_events_bench archive_bench s3_provider_bench >/dev/null
build="$PWD/build/release"
vfs="$build/tools/vfs/vfs"
bench_dir="${VFS_BENCH_DIR:-/tmp/vfs-bench}"
mkdir -p "$bench_dir"
results="$(mktemp -d)"
trap 'rm -rf "$results"' EXIT
step=0

note() { # a line for the table's notes, shown as it happens too
  echo "== $*" >&2
  echo "$*" >>"$results/notes.txt"
}
note "load before: $(uptime)"

gbench() { # binary name, then its own arguments
  local name="$1"; shift
  step=$((step + 1))
  echo "== $(date +%T) $name $*" >&2
  "$build/bench/$name" --benchmark_repetitions="$reps" --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true --benchmark_format=json \
    --benchmark_out="$results/$(printf %02d $step)-gb-$name.json" --benchmark_out_format=json "$@" >/dev/null ||
    note "failed: $name $* (exit status $?)"
}

hf() { # group, warmup runs, [--prepare COMMAND], then pairs of contender name and command
  local group="$1" warmup="$2" options=()
  shift 2
  [ "$1" = --prepare ] && { options=(--prepare "$2"); shift 2; }
  while [ $# -gt 0 ]; do options+=(--command-name "$1" "$2"); shift 2; done
  step=$((step + 1))
  echo "== $(date +%T) $group" >&2
  hyperfine --style none --warmup "$warmup" --runs "$reps" \
    --export-json "$results/$(printf %02d $step)-hf-$group.json" "${options[@]}" >/dev/null ||
    note "failed: $group (exit status $?)"
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
# Extracting the 100,000-entry zip creates 100,000 files per repetition and contender, too
# many for this disk in one run; the whole-command extraction below covers it on 10,000.
gbench archive_bench --benchmark_filter='-^ExtractZip100k_'

s3_environment=""
if s3_environment="$(scripts/ceph-s3.sh start 2>"$results/ceph-s3.log")"; then
  eval "$s3_environment"
  VFS_S3_BENCH_MIB=256 gbench s3_provider_bench
else
  note "skipped: s3 groups, the gateway did not start (scripts/ceph-s3.sh start: $(tail -n 1 "$results/ceph-s3.log"))"
fi

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
if [ "$(stat -c %s "$big" 2>/dev/null)" != $((256 << 20)) ]; then
  head -c $((256 << 20)) /dev/urandom >"$big.part" && mv "$big.part" "$big"
fi
small_zip="$bench_dir/command-source.zip"
if [ ! -s "$small_zip" ]; then
  (cd "$small" && zip -qr "$small_zip.part.zip" .) && mv "$small_zip.part.zip" "$small_zip"
fi
copies="$bench_dir/command-copies-$$"  # fresh folders for every copy (see BENCHMARKS.md)
mkdir -p "$copies"

hf walk-names 1 "vfs find" "$vfs find $tree >/dev/null" "vfs find --parallel" "$vfs find --parallel $tree >/dev/null" \
  "find" "find $tree >/dev/null" "fdfind -uu" "fdfind -uu . $tree >/dev/null"
hf disk-usage 1 "vfs du" "$vfs du $tree >/dev/null" "vfs du --parallel" "$vfs du --parallel $tree >/dev/null" \
  "du -s" "du -s $tree >/dev/null"
hf read-256MiB 1 "vfs cat" "$vfs cat $big >/dev/null" "cat" "cat $big >/dev/null"
hf copy-tree-10k 0 "vfs cp -r" "$vfs cp -r $small \$(mktemp -u -p $copies)" "cp -r" "cp -r $small \$(mktemp -u -p $copies)"

# Archives: the 100,000-entry zip archive_bench made, and a zip of the 10,000-file tree.
zip_100k="$bench_dir/archive/many.zip"
if [ -s "$zip_100k" ]; then
  hf zip-list-100k 1 "vfs ls -R zip:" "$vfs ls -R 'zip:file://$zip_100k!/' >/dev/null" \
    "unzip -l" "unzip -l $zip_100k >/dev/null"
else
  note "skipped: zip-list-100k, $zip_100k is missing (archive_bench makes it)"
fi
hf zip-extract-10k 0 "vfs cp -r zip:" "$vfs cp -r 'zip:file://$small_zip!/' \$(mktemp -u -p $copies)" \
  "unzip -q" "unzip -q $small_zip -d \$(mktemp -u -p $copies)"

# Object storage on the gateway: the tool against the AWS command line and s3cmd.
if [ -n "$s3_environment" ]; then
  aws=(/usr/bin/aws --endpoint-url "$AWS_ENDPOINT_URL")
  bucket=s3://vfs-commands
  s3cmd="s3cmd --no-progress -q -c $bench_dir/s3cmd.cfg"
  host="${AWS_ENDPOINT_URL#*://}"
  printf '[default]\naccess_key = %s\nsecret_key = %s\nhost_base = %s\nhost_bucket = %s\nuse_https = False\nsignature_v2 = False\nbucket_location = %s\n' \
    "$AWS_ACCESS_KEY_ID" "$AWS_SECRET_ACCESS_KEY" "$host" "$host" "$AWS_REGION" >"$bench_dir/s3cmd.cfg"
  # The gateway keeps its data in memory: after a restart the bucket and its tree are gone.
  "${aws[@]}" s3api head-bucket --bucket "${bucket#s3://}" 2>/dev/null || "${aws[@]}" s3 mb "$bucket" >/dev/null
  if ! "$vfs" stat "$bucket/tree.complete" >/dev/null 2>&1; then
    "${aws[@]}" s3 cp --recursive --only-show-errors "$small" "$bucket/tree/"
    "$vfs" cp --policy overwrite "$big" "$bucket/download.bin"
    "$vfs" put "$bucket/tree.complete" </dev/null
  fi
  hf s3-upload-256MiB 1 "vfs cp" "$vfs cp --policy overwrite $big $bucket/upload.bin" \
    "aws s3 cp" "${aws[*]} s3 cp --only-show-errors $big $bucket/upload.bin" \
    "s3cmd put" "$s3cmd put $big $bucket/upload.bin"
  hf s3-download-256MiB 1 "vfs cp" "$vfs cp --policy overwrite $bucket/download.bin $copies/download.bin" \
    "aws s3 cp" "${aws[*]} s3 cp --only-show-errors $bucket/download.bin $copies/download.bin" \
    "s3cmd get" "$s3cmd get --force $bucket/download.bin $copies/download.bin"
  hf s3-list-10k 1 "vfs ls -R" "$vfs ls -R $bucket/tree >/dev/null" \
    "aws s3 ls --recursive" "${aws[*]} s3 ls --recursive $bucket/tree/ >/dev/null" \
    "s3cmd ls -r" "$s3cmd ls -r $bucket/tree/ >/dev/null"
fi

# Removals at the end: they delete what the copies made.
hf remove-tree-10k 0 --prepare "cp -r $small $copies/victim" "vfs rm -r" "$vfs rm -r $copies/victim" \
  "rm -rf" "rm -rf $copies/victim"
rm -rf "$copies" "$bench_dir/archive/out"
gbench tree_bench --benchmark_filter='^RemoveTree'

note "load after: $(uptime)"
python3 bench/summarize.py "$results" "$json_out"
echo "JSON: $json_out" >&2
