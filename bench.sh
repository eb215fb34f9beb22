#!/usr/bin/env bash
# Builds and runs the benchmarks; the measurements go to build/bench.json as well. Arguments go to nat-bench:
# ./bench.sh --benchmark_filter=static-add
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/tools/setup.sh"
ensure_packages "${bench_packages[@]}"
cd "$project_root"
build_preset release nat-bench

exec build/release/bench/nat-bench --benchmark_out=build/bench.json --benchmark_out_format=json "$@"
