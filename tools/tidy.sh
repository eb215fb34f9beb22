#!/usr/bin/env bash
# Builds libraries and agent with clang-tidy looking at every file; any finding fails the build.
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
ensure_packages "${tidy_packages[@]}"
build_preset tidy
