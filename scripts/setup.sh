#!/usr/bin/env bash
# Installs what the build and the tests need, where it is missing (Debian packages).
set -euo pipefail
need=()
command -v cmake >/dev/null 2>&1 || need+=(cmake)
command -v g++ >/dev/null 2>&1 || need+=(g++)
command -v clang++ >/dev/null 2>&1 || need+=(clang)
command -v ninja >/dev/null 2>&1 || need+=(ninja-build)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev libgmock-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
# The sanitizer runtime of clang.
ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.asan-x86_64.a >/dev/null 2>&1 || need+=(libclang-rt-dev)
if [ ${#need[@]} -gt 0 ]; then
  echo "setup: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q "${need[@]}"
fi
