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

# What is shipped differs from what the sanitizers see: it is optimised, and memory comes from pools.
run_with_release() {
   local said
   said=$(python3 -B "$1" build/release/agent/nat-agent . 2>&1) || [ $? -eq 77 ] || { echo "$1: $said"; return 1; }
   echo "   $1: $(tail -n 1 <<<"$said")"
}
if [ $# -eq 0 ]; then
   echo "System scripts with the agent of the release build:"
   export -f run_with_release
   printf '%s\n' tests/system/[a-z]*.py | grep -v embedding | xargs -P 2 -I{} bash -c 'run_with_release {}'
fi

exec ctest --preset asan "$@"
