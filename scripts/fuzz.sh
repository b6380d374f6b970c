#!/usr/bin/env bash
# Runs every fuzz target for SECONDS over its seed corpus; a crash stops that
# target (its report in fuzz-<target>.log, the input as <target>-crash-* in
# the build folder) and the script exits non-zero after the others ran.
# Usage: scripts/fuzz.sh FUZZ_BIN_DIR [SECONDS] [TARGET...]
set -euo pipefail
bin=$1
seconds=${2:-30}
shift $(( $# > 1 ? 2 : 1 ))
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(option_file frame_name find recording)
here=$(cd "$(dirname "$0")/.." && pwd)
failed=()
for t in "${targets[@]}"; do
  mkdir -p "$bin/corpus-$t"
  echo "fuzz_$t: ${seconds}s"
  if ! (cd "$bin" && "./fuzz_$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=3072 \
          -artifact_prefix="$t-" -print_final_stats=1 "corpus-$t" "$here/fuzz/corpus/$t" \
          >"fuzz-$t.log" 2>&1); then
    failed+=("$t")
  fi
  grep -E "^(==[0-9]+==ERROR|SUMMARY|stat::number_of_executed_units|stat::average_exec_per_sec|Done)" \
    "$bin/fuzz-$t.log" || true
done
if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzz: failed: ${failed[*]} (reports in $bin/fuzz-<target>.log)"
  exit 1
fi
