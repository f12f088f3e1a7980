#!/usr/bin/env bash
# Builds the benchmarks (Release) and runs them: the timer engine against one timerfd per
# timer on an epoll thread, its idle cost and its lateness; the tracked allocator against
# its floor and the plain memory mode against malloc.  Installs Google Benchmark with
# apt-get when missing.  Prints the benchmark table, then one line per figure; each figure
# is a ratio to a peer measured in the same run, and none of them fails the script.
# Extra arguments go to both benchmarks (e.g. --benchmark_filter=idle).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
if ! dpkg-query -W -f='${Status}' libbenchmark-dev 2>/dev/null | grep -q "install ok installed"; then
  echo "installing: libbenchmark-dev"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q libbenchmark-dev
fi
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DQEL_BUILD_BENCH=ON -DQEL_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench -j"$(nproc)" --target timer_bench memory_bench
./build/bench/bench/timer_bench "$@"
./build/bench/bench/memory_bench "$@"
