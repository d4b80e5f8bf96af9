#!/usr/bin/env bash
# Installs everything the build, the tests, the benchmarks and the fuzzer need on Debian 12.
# Idempotent and quiet: when every package is already there it only checks and exits.
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache pkg-config git
  libboost-dev libboost-locale-dev libboost-log-dev libboost-iostreams-dev
  libboost-date-time-dev libboost-filesystem-dev libboost-thread-dev
  libtbb-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  clang libclang-rt-dev clang-format clang-tidy
  libzip-dev zlib1g-dev libarchive-dev zip unzip libarchive-tools tar gzip bzip2 xz-utils zstd
  libcurl4-openssl-dev libxml2-dev libssl-dev
  ceph-mon ceph-osd radosgw uuid-runtime curl s3cmd
  libcli11-dev
  fd-find hyperfine python3 awscli
  fuse3 libfuse3-dev fio git
  libssh-dev openssh-server openssh-client
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
