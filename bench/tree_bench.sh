#!/usr/bin/env bash
# Runs tree_bench's three groups in the order the disk needs: walks, then copies into fresh
# folders, then removal of those copies. Prints medians. Usage: tree_bench.sh BUILD_DIR [REPS]
set -euo pipefail
bench="$1/bench/tree_bench"
reps="${2:-5}"
common=(--benchmark_repetitions="$reps" --benchmark_enable_random_interleaving=true
        --benchmark_report_aggregates_only=true)
"$bench" --benchmark_filter='^Walk' "${common[@]}"
# Two copies per repetition and contender, and a removal for each of them.
"$bench" --benchmark_filter='^CopyTree' "${common[@]}"
"$bench" --benchmark_filter='^RemoveTree' --benchmark_repetitions=$((reps * 2 / 3)) \
  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true
