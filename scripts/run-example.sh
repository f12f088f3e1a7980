#!/usr/bin/env bash
# Builds the libraries and the example programs, and runs them one after the other.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/example -DQEL_BUILD_TESTS=OFF >/dev/null
cmake --build build/example -j"$(nproc)" --target first_steps timers memory_report system_stats
echo "== first_steps"
./build/example/examples/first_steps
echo "== timers"
./build/example/examples/timers
echo "== memory_report"
./build/example/examples/memory_report
echo "== system_stats"
./build/example/examples/system_stats
