#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running the tools need, when missing.
# Usage: scripts/install-deps.sh [--arm64] [extra-package...]
#   --arm64  also the arm64 cross toolchain, qemu-user and the arm64 builds of the libraries
set -euo pipefail

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"

arm64=()
if [ "${1:-}" = "--arm64" ]; then
    shift
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        $sudo dpkg --add-architecture arm64
    fi
    arm64=(g++-aarch64-linux-gnu qemu-user android-liblog-dev:arm64 android-libcutils-dev:arm64
           android-libbase-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64)
fi

packages=(
    cmake ninja-build g++ clang libclang-rt-14-dev
    android-liblog-dev android-libcutils-dev android-libbase-dev
    libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev nlohmann-json3-dev
    "${arm64[@]}" "$@"
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
