#!/usr/bin/env bash
# Builds the fuzz targets of fuzz/ into build-fuzz/ (clang, libFuzzer,
# AddressSanitizer and UndefinedBehaviorSanitizer) and runs each of them.
#
#   scripts/fuzz.sh [SECONDS]    each target for SECONDS (default 60)
#   scripts/fuzz.sh --runs N     each target for N executions
#   scripts/fuzz.sh --smoke      each target for a few seconds (scripts/test.sh)
#
# FUZZ_TARGETS="fuzz_metadata fuzz_wldata" picks targets. The seeds in
# fuzz/corpus/<target> are read, never written; new inputs go to
# build-fuzz/corpus/<target>, crashes to build-fuzz/crashes/<target>-*.
# Exit code 1 when any target found a crash, a leak or a time-out.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
jobs="${OSTRAND_JOBS:-2}"

limit=(-max_total_time=60)
case "${1:-}" in
  --smoke) limit=(-max_total_time=5) ;;
  --runs) limit=(-runs="${2:?--runs needs a number}") ;;
  --help | -h) sed -n '2,13p' "$0"; exit 0 ;;
  "") ;;
  *) [[ "$1" =~ ^[0-9]+$ ]] || { echo "fuzz.sh: SECONDS, --runs N or --smoke, not '$1'" >&2; exit 2; }
     limit=(-max_total_time="$1") ;;
esac

targets=(${FUZZ_TARGETS:-fuzz_translator fuzz_tsp_request fuzz_metadata fuzz_wldata fuzz_tdf_header
  fuzz_mtb_decode})

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DOSTRAND_FUZZ=ON -DOSTRAND_TESTS=OFF -DOSTRAND_BENCH=OFF \
  "${launcher[@]}" >/dev/null
cmake --build build-fuzz -j"$jobs" --target "${targets[@]}"

# Commands of the translator target may write into a user directory.
USERPROFILE="$(mktemp -d -t ostrand-fuzz-home-XXXXXX)"
export USERPROFILE
trap 'rm -rf "$USERPROFILE"' EXIT
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

failed=0
mkdir -p build-fuzz/crashes
for t in "${targets[@]}"; do
  corpus="build-fuzz/corpus/$t"
  mkdir -p "$corpus"
  echo "-- $t ${limit[*]}"
  if ! build-fuzz/bin/"$t" "${limit[@]}" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
      -print_final_stats=1 -artifact_prefix="build-fuzz/crashes/$t-" \
      "$corpus" "fuzz/corpus/$t" 2>build-fuzz/"$t".log; then
    failed=1
    echo "   FAILED: see build-fuzz/$t.log and build-fuzz/crashes/" >&2
    tail -30 build-fuzz/"$t".log >&2
  fi
  grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' build-fuzz/"$t".log | sed 's/^/   /' || true
done
exit "$failed"
