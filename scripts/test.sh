#!/usr/bin/env bash
# Builds and runs every test twice: a normal build (g++) and an ASan+UBSan build (clang).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)

build() {  # build <dir> <compiler> <extra cmake args...>
  local dir=$1 cxx=$2
  shift 2
  cmake -S . -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

common=(-DJ480_WERROR=ON -DJ480_FAULT_INJECTION=ON)
build build/release g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo "${common[@]}"
build build/asan clang++ -DCMAKE_BUILD_TYPE=Debug -DJ480_SANITIZE=ON -DJ480_BENCH=OFF "${common[@]}"

status=0
echo "== tests: release build (g++)"
ctest --test-dir build/release -j "$jobs" --output-on-failure || status=1
echo "== tests: ASan+UBSan build (clang)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build/asan -j "$jobs" --output-on-failure || status=1
exit $status
