#!/usr/bin/env bash
# The project's whole test run: installs what is missing, builds with warnings as errors,
# runs every test, the static checks and the browser client's unit tests, then the browser tests
# against the real host in headless Chromium, checks that an outside project links the installed
# package, then runs the
# concurrency tests under ThreadSanitizer and everything under AddressSanitizer + UBSan, and
# runs each fuzzing harness for a minute.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=$(nproc)
start=$(date +%s)

scripts/install-deps.sh

step() { printf '\n=== %s (%ss)\n' "$1" "$(( $(date +%s) - start ))"; }

# A compiler cache, when the machine has one, makes the three builds below share what they can
# with earlier runs.
launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

configure_and_build() { # <dir> <extra cmake args...>
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -DWSB_WARNINGS_AS_ERRORS=ON "${launcher[@]}" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

step "build (warnings as errors)"
configure_and_build build/ci -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWSB_BUILD_BENCHMARKS=ON
step "tests"
ctest --test-dir build/ci --output-on-failure -j "$jobs"
step "static checks (clang-tidy)"
scripts/tidy.sh build/ci

step "browser client build and unit tests"
npm run typecheck
npm run test:unit
npm run build
npm run build:e2e
step "browser tests"
WSBROWSER="$root/build/ci/bin/wsbrowser" npm run test:browser

step "install and consumer check"
rm -rf build/ci-install build/consumer
cmake --install build/ci --prefix "$root/build/ci-install" >/dev/null
cmake -S tests/consumer -B build/consumer -DCMAKE_PREFIX_PATH="$root/build/ci-install" >/dev/null
cmake --build build/consumer -j "$jobs"
build/consumer/consumer
build/consumer/embed
# The installed program must find the installed library by itself, from a prefix it was not
# configured for.
env -u LD_LIBRARY_PATH build/ci-install/bin/wsbrowser --help >/dev/null

step "ThreadSanitizer build"
configure_and_build build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWSB_SANITIZER=thread
step "concurrency tests under ThreadSanitizer"
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --test-dir build/tsan --output-on-failure -j "$jobs" -L concurrency

step "AddressSanitizer + UBSan build"
configure_and_build build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWSB_SANITIZER=address
step "all tests under AddressSanitizer + UBSan"
ASAN_OPTIONS="detect_leaks=1" UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1" \
  ctest --test-dir build/asan --output-on-failure -j "$jobs"

step "fuzzing, 60 s per harness (clang build in build/fuzz)"
scripts/fuzz.sh 60

step "all passed"
