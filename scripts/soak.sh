#!/usr/bin/env bash
# Runs the test suite again and again while every core is kept busy, to bring out tests that pass
# only when the machine is idle. Usage:
#   bash scripts/soak.sh [RUNS] [PRESET...]
# RUNS defaults to 5, the presets to dev asan tsan (the trees scripts/test.sh builds; each is
# built first). SOAK_TESTS, when set, is a ctest -R pattern that narrows the suite. Prints every
# test that failed at least once, with how many runs it failed in; exits 1 when any did. The
# output of each run is kept under build-soak/.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-5}
shift || true
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(dev asan tsan)
jobs=$(nproc 2>/dev/null || echo 2)
logs=build-soak
mkdir -p "$logs"

bash scripts/bootstrap.sh
for preset in "${presets[@]}"; do
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
done

# one busy loop a core, for as long as the script runs
load=()
stop_load() { for pid in "${load[@]}"; do kill "$pid" 2>/dev/null || true; done; }
trap stop_load EXIT
trap 'exit 130' INT # so that the load stops with the script
trap 'exit 143' TERM
for _ in $(seq "$jobs"); do
    (while :; do :; done) &
    load+=($!)
done

declare -A failed=()
for run in $(seq "$runs"); do
    for preset in "${presets[@]}"; do
        # where CMakePresets.json puts the tree; ctest lists a run's failures there, and leaves
        # an older list when there were none
        dir=build
        [ "$preset" = dev ] || dir=build-$preset
        list=$dir/Testing/Temporary/LastTestsFailed.log
        rm -f "$list"
        log="$logs/$preset-$run.log"
        echo "== run $run of $runs: $preset (under load on $jobs cores) =="
        ctest --preset "$preset" -j "$jobs" ${SOAK_TESTS:+-R "$SOAK_TESTS"} >"$log" 2>&1 || true
        grep -E "tests passed|No tests were found" "$log" || tail -n 1 "$log"
        [ -f "$list" ] || continue
        while IFS=: read -r _ name; do
            key="$preset: $name"
            failed[$key]=$((${failed[$key]:-0} + 1))
        done <"$list"
    done
done

echo "== tests that failed at least once in $runs runs =="
if [ ${#failed[@]} -eq 0 ]; then
    echo "none"
    exit 0
fi
for key in "${!failed[@]}"; do
    echo "${failed[$key]} of $runs  $key"
done | sort -rn
exit 1
