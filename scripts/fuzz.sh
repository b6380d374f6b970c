#!/usr/bin/env bash
# Runs every fuzz target for SECONDS over its seed corpus; a crash stops the
# run with the target's report and leaves the input as crash-* in the build
# folder. Usage: scripts/fuzz.sh FUZZ_BIN_DIR [SECONDS] [TARGET...]
set -euo pipefail
bin=$1
seconds=${2:-30}
shift $(( $# > 1 ? 2 : 1 ))
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(option_file frame_name find recording)
here=$(cd "$(dirname "$0")/.." && pwd)
for t in "${targets[@]}"; do
  work="$bin/corpus-$t"
  mkdir -p "$work"
  echo "fuzz_$t: ${seconds}s"
  (cd "$bin" && "./fuzz_$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=3072 \
     -print_final_stats=1 "corpus-$t" "$here/fuzz/corpus/$t" 2>&1 | tail -n 12)
done
