#!/usr/bin/env bash
# Configures build/ (release with debug info), builds everything and runs
# the whole test suite. At most two jobs: the build machines are shared.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build}"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
cmake --build "$BUILD_DIR" -j2
ctest --test-dir "$BUILD_DIR" --output-on-failure -j2
