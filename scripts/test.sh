#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds, runs every test, then builds and runs
# everything again under AddressSanitizer + UndefinedBehaviorSanitizer, and again under
# ThreadSanitizer, builds the Release tree, and runs every fuzz target over its corpus and a few
# seconds of new inputs. Every tree is a preset in CMakePresets.json, with warnings as errors.
# Fails on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
bash scripts/bootstrap.sh

build() { # preset
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" -j "$jobs"
}
run_suite() { # preset
    build "$1"
    ctest --preset "$1" -j "$jobs"
}

echo "== tests =="
run_suite dev

# The sanitizer presets keep full stacks at every allocation, so that the leak suppressions can
# see a library's initialisation.
echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer =="
run_suite asan

echo "== tests under ThreadSanitizer =="
run_suite tsan

# Distributions build with -O3 and their own flags, where GCC finds warnings it does not at -O2.
echo "== the Release build =="
build release

echo "== fuzz targets: their corpora and a few seconds of new inputs each =="
bash scripts/fuzz.sh 5
