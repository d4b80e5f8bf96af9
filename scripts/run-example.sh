#!/usr/bin/env bash
# The main job: builds and runs the quickstart example, then a short tour of the vfs tool,
# on a bare machine.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target vfs_quickstart vfs_tool
./build/release/examples/vfs_quickstart
./scripts/vfs-demo.sh ./build/release/tools/vfs/vfs
