#!/usr/bin/env bash
# Everything that must hold before a change lands: format and structure, a complete API reference, both compilers without
# a warning, and all tests under the sanitizers. Arguments go to ctest:  ./test.sh -R NatId
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/tools/setup.sh"
ensure_packages "${test_packages[@]}"
cd "$project_root"

tools/check-format.sh
for check in tests/structure/[a-z]*.py; do
   python3 -B "$check" "$project_root"
done
tools/api-reference.sh

build_preset asan
build_preset release

exec ctest --preset asan "$@"
