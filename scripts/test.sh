#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds, runs every test, then builds and runs
# everything again under AddressSanitizer + UndefinedBehaviorSanitizer, and again under
# ThreadSanitizer, and runs every fuzz target over its corpus and a few seconds of new inputs.
# Fails on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
bash scripts/bootstrap.sh

run_suite() { # build-dir, extra cmake arguments...
    local dir=$1
    shift
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

echo "== tests =="
run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo

echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer =="
# Full stacks at every allocation, so that leak suppressions can see a library's initialisation.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:fast_unwind_on_malloc=0:intercept_tls_get_addr=0 \
    UBSAN_OPTIONS=print_stacktrace=1 LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp:print_suppressions=0" \
    run_suite build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMORVANE_SANITIZE=address,undefined \
    -DMORVANE_BUILD_BENCH=OFF

echo "== tests under ThreadSanitizer =="
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    run_suite build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMORVANE_SANITIZE=thread \
    -DMORVANE_BUILD_BENCH=OFF

echo "== fuzz targets: their corpora and a few seconds of new inputs each =="
bash scripts/fuzz.sh 5
