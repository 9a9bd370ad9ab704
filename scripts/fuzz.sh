#!/usr/bin/env bash
# Builds every libFuzzer target (bank loader, setChunk, the variable-I/O call, the host's
# audio-file reader) with clang, AddressSanitizer and UndefinedBehaviorSanitizer, and runs each
# over its corpus in tests/fuzz/corpus and then on new inputs for a bounded time. The test command
# runs it for a few seconds a target so the targets cannot rot; long runs are by hand.
# Usage: bash scripts/fuzz.sh [seconds-per-target] [target...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(FuzzBankLoader FuzzSetChunk FuzzVariableIo FuzzAudioFile)

bash scripts/bootstrap.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc 2>/dev/null || echo 2)" --target "${targets[@]}"

export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp:print_suppressions=0"
corpus_of() {
    case $1 in
    FuzzBankLoader) echo bank ;;
    FuzzSetChunk) echo chunk ;;
    FuzzVariableIo) echo varIo ;;
    FuzzAudioFile) echo audio ;;
    esac
}
for target in "${targets[@]}"; do
    corpus=$(corpus_of "$target")
    work="build-fuzz/corpus-$corpus" # new finds go here; the committed corpus is only read
    mkdir -p "$work"
    echo "== $target: its corpus, then ${seconds} s of new inputs =="
    log="build-fuzz/$target.log"
    status=0
    "build-fuzz/tests/fuzz/$target" -max_total_time="$seconds" -max_len=8192 -print_final_stats=1 \
        -artifact_prefix="build-fuzz/$target-" "$work" "tests/fuzz/corpus/$corpus" >"$log" 2>&1 ||
        status=$?
    grep -E '^(INFO: seed corpus|#[0-9]+[[:space:]]+(INITED|DONE)|stat::number_of_executed)' "$log" || true
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        echo "fuzz: $target failed (exit $status); the input is in build-fuzz/, the log in $log" >&2
        exit 1
    fi
done
