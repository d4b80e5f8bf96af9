#!/usr/bin/env bash
# Installs the release build into a temporary prefix, then builds and runs a tiny
# out-of-tree application against it with find_package(vfs).
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install build/release --prefix "$work/prefix" >/dev/null
cmake -S tests/consumer -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer"
