#!/usr/bin/env bash
# Installs the Debian 12 packages the build, tests and benchmarks need.
# Idempotent: packages already present are skipped, and apt-get runs only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang libclang-rt-14-dev
  libssl-dev openssl
  libxxhash-dev xxhash
  libisal-dev
  nlohmann-json3-dev
  libcli11-dev
  libutf8proc-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libgmp-dev
  time bc
  libprotobuf-dev protobuf-compiler
  libxml2-dev libxml2-utils
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
