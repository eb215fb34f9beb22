#!/usr/bin/env bash
# Looks at libraries and agent with clang-tidy, as they are built, then with cppcheck; any finding fails.
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
ensure_packages "${tidy_packages[@]}"
build_preset tidy

# Headers of the system are not looked into: what they declare, cppcheck guesses.
exec cppcheck --std=c++20 --language=c++ --enable=warning,performance,portability --inline-suppr --quiet \
   --error-exitcode=1 -j "$(nproc)" -I . -I platform platform PfeNat agent
