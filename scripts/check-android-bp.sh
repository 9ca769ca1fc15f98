#!/usr/bin/env bash
# Checks Android.bp with Soong's own tools: bpfmt must find nothing to change, and the Makefile
# that mini-soong generates from it must build libzel_common_utils.so from the sources it lists,
# linked with --no-undefined against the libraries it declares. So a library source missing from
# Android.bp, or a platform library used but not declared, fails here.
# On the host the platform stand-ins take the place of what Debian's AOSP libraries lack: the
# dmabuf heap allocator is libdmabufheap, and the property functions join libcutils.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh blueprint-tools mini-soong

if ! out="$(bpfmt -d Android.bp)" || [ -n "$out" ]; then
    echo "$out"
    echo "check-android-bp: bpfmt would change Android.bp (bpfmt -w Android.bp)" >&2
    exit 1
fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir "$work/tree" "$work/platform"
cp -r Android.bp zel_common_utils.h debug util src "$work/tree/"

android_libs="/usr/lib/$(gcc -print-multiarch)/android"
flags=(-std=c++17 -O1 -fPIC -isystem /usr/include/android -isystem "$PWD/platform/include")
# Stand-ins: libdmabufheap from the host allocator; -lcutils through a linker script that adds the
# host property functions to Debian's libcutils.
g++ "${flags[@]}" -shared -Wl,--no-undefined -o "$work/platform/libdmabufheap.so" \
    platform/host/BufferAllocator.cpp
g++ "${flags[@]}" -shared -Wl,--no-undefined -o "$work/platform/libzel_host_properties.so" \
    platform/host/properties.cpp -L"$android_libs" -lbase
echo "INPUT($android_libs/libcutils.so $work/platform/libzel_host_properties.so)" \
    >"$work/platform/libcutils.so"

cd "$work/tree"
mini-soong Android.bp Makefile
jobs="$(nproc)"
# Only the shared library: the Android test module needs the device's test harness.
make -s -j"$jobs" libzel_common_utils.so \
    CXXFLAGS="${flags[*]} -Werror" \
    LDFLAGS="-Wl,--no-undefined -Wl,--as-needed -L$work/platform -L$android_libs"
undefined="$(nm -D --undefined-only libzel_common_utils.so.* | grep -c ' U ' || true)"
echo "check-android-bp: bpfmt clean; libzel_common_utils.so built from Android.bp's sources" \
     "with --no-undefined ($undefined imported symbols)"
