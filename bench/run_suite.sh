#!/usr/bin/env bash
# Runs qz_bench once per thread count (1, then every CPU; the Halide pool is
# sized once per process) and prints one table of speed by volume size.
# Arguments go to qz_bench, e.g. --benchmark_filter=all or
# --benchmark_repetitions=3 --benchmark_enable_random_interleaving=true.
#   bench/run_suite.sh [qz_bench arguments]
# BUILD (default build-bench) and OUT (default a temporary folder, kept and
# named at the end) may be set in the environment.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${BUILD:-$here/../build-bench}
out=${OUT:-$(mktemp -d /tmp/qz_bench.XXXXXX)}
mkdir -p "$out"
all=$(nproc)
for t in $(printf '%s\n' 1 "$all" | sort -nu); do
  echo "qz_bench: $t thread(s), load $(cut -d' ' -f1-3 /proc/loadavg)" >&2
  HL_NUM_THREADS=$t "$build/bench/qz_bench" --benchmark_out="$out/threads$t.json" \
    --benchmark_out_format=json "$@" >&2
done
/usr/bin/python3 "$here/size_table.py" "$out"/threads*.json
echo "qz_bench: reports in $out" >&2
