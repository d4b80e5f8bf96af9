#!/usr/bin/env bash
# The main job: builds and runs the quickstart example on a bare machine.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target vfs_quickstart
./build/release/examples/vfs_quickstart
