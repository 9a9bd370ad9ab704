#!/usr/bin/env bash
# Runs each libFuzzer target (bank loader, setChunk, the variable-I/O call, the host's audio-file
# reader) for a bounded time (default 60 s each) with AddressSanitizer and
# UndefinedBehaviorSanitizer, starting from the corpora in tests/fuzz/corpus. Not part of the
# test command. Usage: bash scripts/fuzz.sh [seconds-per-target]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

bash scripts/bootstrap.sh
CXX=clang++-14 cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DMORVANE_FUZZ=ON -DMORVANE_SANITIZE=address,undefined -DMORVANE_BUILD_TESTS=OFF \
    -DMORVANE_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j "$(nproc 2>/dev/null || echo 2)" --target FuzzBankLoader FuzzSetChunk FuzzVariableIo FuzzAudioFile

run() { # target corpus
    local work="build-fuzz/corpus-$2"
    mkdir -p "$work"
    echo "== $1 for ${seconds} s =="
    "build-fuzz/tests/fuzz/$1" -max_total_time="$seconds" -max_len=8192 -print_final_stats=1 \
        "$work" "tests/fuzz/corpus/$2"
}
run FuzzBankLoader bank
run FuzzSetChunk chunk
run FuzzVariableIo varIo
run FuzzAudioFile audio
