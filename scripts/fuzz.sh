#!/usr/bin/env bash
# Builds the libFuzzer harnesses in fuzz/ with clang (AddressSanitizer + UBSan, in build/fuzz)
# and runs each for SECONDS (default 600), printing its executions per second. Fails when a
# harness finds a crash, a hang or runaway memory; the input that did it is kept in
# build/fuzz/artifacts/<harness>/ and the report in build/fuzz/logs/<harness>.log.
#   scripts/fuzz.sh [SECONDS]
# Inputs that found new code are kept in build/fuzz/corpus/<harness>/ and reused by the next
# run; the small seed corpora checked in under fuzz/corpus/ are only read.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
scripts/install-deps.sh # clang and its sanitizer and fuzzer runtimes among them
harnesses=(JsonTypedValuesFuzzer EnvelopeFuzzer ChannelFuzzer)

launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
# Only the library and the harnesses: no tests, no host, no benchmarks.
cmake -S . -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DWSB_WARNINGS_AS_ERRORS=ON -DWSB_BUILD_FUZZERS=ON -DWSB_BUILD_TESTS=OFF -DWSB_BUILD_HOST=OFF \
  -DWSB_BUILD_BENCHMARKS=OFF "${launcher[@]}" >/dev/null
cmake --build build/fuzz -j "$(nproc)" --target "${harnesses[@]}"

export ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
failed=()
for name in "${harnesses[@]}"; do
  corpus=build/fuzz/corpus/$name
  artifacts=build/fuzz/artifacts/$name
  log=build/fuzz/logs/$name.log
  rm -rf "$artifacts"
  mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
  extra=()
  [[ -f fuzz/$name.dict ]] && extra+=(-dict="fuzz/$name.dict")
  # The channel harness keeps one page for the whole run, and the endpoints keep what each
  # message leaves behind, so every input would look like a leak and be checked for one, which
  # costs more than the input. Memory that keeps growing still ends the run at the RSS limit.
  [[ $name == ChannelFuzzer ]] && extra+=(-detect_leaks=0)
  # New inputs go to the first folder (the build tree's), the seeds are only read. A single input
  # running 30 s is a hang; more than 2 GiB of memory is runaway growth.
  set +e
  "build/fuzz/bin/$name" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "${extra[@]}" \
    "$corpus" "fuzz/corpus/$name" >"$log" 2>&1
  rc=$?
  set -e
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
  printf '%-24s %10s runs %8s exec/s  peak RSS %s MB\n' "$name" "${runs:-?}" "${rate:-?}" \
    "${rss:-?}"
  if [[ $rc -ne 0 ]]; then
    failed+=("$name")
    echo "--- $name failed (exit $rc); its report, from $log:"
    # Everything but libFuzzer's progress lines: the harness's own message, then the report.
    grep -v -E '^(#[0-9]+|INFO:|Dictionary:|Loaded )' "$log" | head -80
    ls -1 "$artifacts"
  fi
done
if [[ ${#failed[@]} -ne 0 ]]; then
  echo "fuzzing found problems in: ${failed[*]} (inputs in build/fuzz/artifacts/)"
  exit 1
fi
