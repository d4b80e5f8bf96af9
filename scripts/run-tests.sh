#!/usr/bin/env bash
# Every test: release, ASan+UBSan, TSan (the concurrent tests), and a short fuzzing run
# over the committed corpus. Installs what it needs on a bare machine.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh

step() { printf '\n== %s ==\n' "$*"; }

step "formatting"
./scripts/check-format.sh

step "S3 gateway for the s3 tests (single-node Ceph on loopback)"
eval "$(./scripts/ceph-s3.sh start)"

step "SSH server for the sftp tests (OpenSSH on loopback)"
eval "$(./scripts/sshd.sh start)"

step "release build and tests"
cmake --preset release >/dev/null
cmake --build --preset release
ctest --preset release

step "install, then build and run an application against the installed package"
./scripts/check-install.sh

step "ASan + UBSan build and tests"
cmake --preset asan >/dev/null
cmake --build --preset asan
ctest --preset asan

step "TSan build and concurrent tests"
cmake --preset tsan >/dev/null
cmake --build --preset tsan --target concurrency_tests
ctest --preset tsan

step "fuzzing StorageIRI for ${VFS_FUZZ_SECONDS:-30} s"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target fuzz_storage_iri
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
# New inputs go to the scratch folder; the committed corpus is only read.
./build/fuzz/fuzz/fuzz_storage_iri "$scratch" fuzz/corpus/storage_iri \
  -max_total_time="${VFS_FUZZ_SECONDS:-30}" -max_len=256 -print_final_stats=1 2>&1 | tail -n 3

step "all tests passed"
