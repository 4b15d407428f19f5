#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite:
#   1. the normal build (warnings are errors) with every test, the end-to-end
#      test with the published protocol client, the browser viewer in a
#      headless chromium, a short benchmark run, a short load test, and a few
#      seconds of each fuzz target (build-fuzz/),
#   2. the threaded tests under ThreadSanitizer,
#   3. every test under AddressSanitizer and UndefinedBehaviorSanitizer.
# Build trees: build/, build-fuzz/, build-tsan/, build-asan/ beside this script's repo.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
jobs="${OSTRAND_JOBS:-$(nproc)}"

bash scripts/install-deps.sh

# Whatever a test forgets, nothing is written into a real home.
USERPROFILE="$(mktemp -d -t ostrand-test-home-XXXXXX)"
export USERPROFILE
trap 'rm -rf "$USERPROFILE"' EXIT

step() { printf '\n== %s == (%s)\n' "$*" "$(date +%T)"; }

configure() {  # dir, extra cmake options...
  local dir="$1"; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTRAND_WERROR=ON "$@" >/dev/null
}

step "build"
configure build
cmake --build build -j"$jobs"

step "tests"
(cd build && ctest -j"$jobs" --output-on-failure --timeout 300)

step "end-to-end: the published protocol client against the trace server"
bash tests/e2e/run.sh build

step "browser viewer: headless chromium against ostrand demo (screenshots in build/browser-test)"
sh tests/browser/run.sh build

step "benchmarks (short smoke run; the figures are in docs and the closing notes)"
for b in build/bin/bench_* build/bin/*_bench; do
  [[ -x "$b" ]] || continue
  echo "-- $(basename "$b")"
  "$b" --benchmark_min_time=0.01 --benchmark_color=false 2>&1 | grep -vE '^(Run on|CPU Caches|  L[123]|Load Average|\*\*\*WARNING)'
done

step "load test: 8 clients against ostrand serve (short; the full run is tests/load/load_test.py)"
python3 tests/load/load_test.py --ostrand build/bin/ostrand --clients 8 --requests 300 --size 5000

step "fuzz targets, a few seconds each (long runs: scripts/fuzz.sh SECONDS)"
OSTRAND_JOBS="$jobs" bash scripts/fuzz.sh --smoke

step "threaded tests under ThreadSanitizer"
configure build-tsan -DOSTRAND_TSAN=ON -DOSTRAND_BENCH=OFF
cmake --build build-tsan -j"$jobs" --target tsan_tests
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp"
while read -r t; do
  [[ -n "$t" ]] || continue
  echo "-- $t"
  build-tsan/bin/"$t" --gtest_brief=1
done < build-tsan/tsan_tests.txt

step "all tests under AddressSanitizer and UndefinedBehaviorSanitizer"
# gcc's flow analysis under the sanitizers warns falsely inside library
# headers; the normal build above is the one that holds warnings to zero.
configure build-asan -DOSTRAND_SANITIZE=ON -DOSTRAND_BENCH=OFF -DOSTRAND_WERROR=OFF
cmake --build build-asan -j"$jobs"
# Leaks are checked too, also across the tests that unload the module;
# scripts/lsan.supp names only leaks of libraries we use, each with its reason.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
# print_suppressions=0: the programs the transcript tests run must not add a
# summary of matched suppressions to the standard error they compare.
export LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
(cd build-asan && ctest -j"$jobs" --output-on-failure --timeout 600)

step "done"
