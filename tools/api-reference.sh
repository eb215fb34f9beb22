#!/usr/bin/env bash
# Writes the API reference to build/api-reference/html. Fails where a public declaration is not described.
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
ensure_packages doxygen
cd "$project_root"
rm -rf build/api-reference
mkdir -p build/api-reference
doxygen docs/Doxyfile
echo "api-reference: build/api-reference/html/index.html"
