#!/usr/bin/env bash
# Builds the consumer program with pkg-config instead of CMake, then runs it.
#   PKG_CONFIG_PATH=<prefix>/lib/pkgconfig examples/consumer/pkgconfig-build.sh [OUT_DIR]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
out="${1:-$(mktemp -d)}"
mkdir -p "$out"

packages=(zorvane-rewards-kit zorvane-rewards-kit-testing)
pkg-config --exists --print-errors "${packages[@]}"
libdir="$(pkg-config --variable=libdir zorvane-rewards-kit)"
# A static install hands its private dependencies (libcurl, simdjson) to the link.
static=()
[ -e "$libdir/libZorvaneCoreKit.so" ] || static=(--static)
# shellcheck disable=SC2046 # pkg-config prints words meant to be split
c++ -std=c++20 -Wall -Wextra -Wpedantic -o "$out/rewards_consumer" \
  "$here/main.cpp" "$here/rewards_screen.cpp" \
  $(pkg-config "${static[@]}" --cflags --libs "${packages[@]}")

# An installed prefix is not on the loader's path: point it there for the run.
LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$out/rewards_consumer"
