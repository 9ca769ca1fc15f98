#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running the tools need, when missing.
# Usage: scripts/install-deps.sh [extra-package...]
set -euo pipefail

packages=(
    cmake ninja-build g++ clang libclang-rt-14-dev
    android-liblog-dev android-libcutils-dev android-libbase-dev
    libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev nlohmann-json3-dev
    "$@"
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
