#!/usr/bin/env bash
# Builds the fuzz preset (clang, libFuzzer, AddressSanitizer + UBSan) and runs every fuzz
# target for SECONDS (default 60) from a scratch copy of its seed corpus, one after the
# other, then prints executions per second and findings per target. Findings (crash,
# leak and timeout files) are kept under build/fuzz-runs/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
bash scripts/setup-deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
runs=build/fuzz-runs
mkdir -p "$runs"
printf '%-22s %12s %9s\n' target "execs/s" findings
status=0
for bin in build/fuzz/fuzz/fuzz_*; do
  name=$(basename "$bin"); name=${name#fuzz_}
  work="$runs/$name"
  rm -rf "$work"; mkdir -p "$work/corpus" "$work/findings"
  cp -r "fuzz/corpus/$name/." "$work/corpus/" 2>/dev/null || true
  log="$work/log.txt"
  "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$work/findings/" "$work/corpus" >"$log" 2>&1 || true
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  took=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  found=$(find "$work/findings" -type f | wc -l)
  printf '%-22s %12s %9s\n' "$name" "${took:-?}" "$found"
  [ "$found" = 0 ] || status=1
  : "${execs:=0}"
done
exit $status
