#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
# Idempotent and quiet when everything is already there.
set -euo pipefail

packages=(
  make cmake g++ pkg-config
  clang libclang-rt-14-dev
  libcurl4-openssl-dev libssl-dev zlib1g-dev libdeflate-dev
  libplist-dev nlohmann-json3-dev libcpp-httplib-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  curl ca-certificates
  doxygen dpkg-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq >/dev/null
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
