#!/usr/bin/env bash
# Fails when a tracked C++ file differs from what clang-format makes of it, and says where;
# `git ls-files '*.cpp' '*.hpp' '*.h' | xargs clang-format -i` fixes them.
set -euo pipefail
cd "$(dirname "$0")/.."
if ! git ls-files -z '*.cpp' '*.hpp' '*.h' | xargs -0 -n 40 -P 2 clang-format --dry-run -Werror 2>/tmp/check-format.$$; then
  grep -E '^[^ ].*(error|warning):' /tmp/check-format.$$ | cut -d: -f1 | sort -u | sed 's/^/not formatted: /' >&2
  rm -f /tmp/check-format.$$
  exit 1
fi
rm -f /tmp/check-format.$$
echo "every C++ file is formatted"
