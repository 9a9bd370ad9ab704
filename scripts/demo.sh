#!/usr/bin/env bash
# The main job: installs what is missing, builds, makes the demo piece and renders it 25 % longer
# and three semitones higher.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target morvane Morvane

mkdir -p out/demo
input=out/demo/demo.wav
result=out/demo/demo-time125-pitch+300.wav
build/host/morvane demo "$input"
build/host/morvane render --time 125 --pitch 300 "$input" "$result"
echo "input:  $(pwd)/$input"
echo "result: $(pwd)/$result"
