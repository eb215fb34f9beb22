#!/usr/bin/env bash
# Builds and runs the benchmarks: one line per case, and the same as JSON in build/bench.json. Takes a few minutes.
# Arguments go to nat-bench:  ./bench.sh --benchmark_filter=static-add
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/tools/setup.sh"
ensure_packages "${bench_packages[@]}" python3
cd "$project_root"
build_preset release nat-bench

configuration=build/bench-configuration.json
python3 -B examples/generate.py 30000 >"$configuration"
exec build/release/bench/nat-bench --configuration="$configuration" \
   --benchmark_out=build/bench.json --benchmark_out_format=json "$@"
