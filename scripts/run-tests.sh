#!/usr/bin/env bash
# Builds and runs the whole test suite twice: in a plain build, and in a build with the
# address and undefined-behaviour sanitizers; then the timer suites (label "timer") and the
# tracked allocator's stress suite (label "memory") once more under the thread sanitizer.  Fails on any failing test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)

run_suite() {
  local name=$1 sanitize=$2
  echo "==== $name build"
  cmake -S . -B "build/$name" -DQEL_SANITIZE="$sanitize" >/dev/null
  cmake --build "build/$name" -j"$jobs"
  echo "==== $name tests"
  (cd "build/$name" && ctest -j"$jobs" --output-on-failure --timeout 300)
}

run_suite plain ""
run_suite sanitize "address,undefined"

echo "==== thread build (timer and memory stress suites)"
cmake -S . -B build/thread -DQEL_SANITIZE=thread -DQEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/thread -j"$jobs" --target timer_tests memory_stress_test
(cd build/thread && ctest -j"$jobs" -L 'timer|memory' --output-on-failure --timeout 300)
