#!/usr/bin/env bash
# Fails on the first source that clang-format would change. With --fix it changes them instead.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

folders=(platform PfeNat chip agent tests bench)
# Tracked files; outside of a git checkout, whatever the folders hold.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
   list=(git ls-files -z -- "${folders[@]}")
else
   list=(find "${folders[@]}" -type f -print0)
fi
mapfile -d '' -t files < <("${list[@]}" 2>/dev/null | grep -zE '\.(h|cpp|c)$')

present=()
for file in "${files[@]}"; do
   [ ! -e "$file" ] || present+=("$file")
done
[ ${#present[@]} -gt 0 ] || { echo "check-format: no sources found" >&2; exit 1; }

if [ "${1:-}" = --fix ]; then
   exec clang-format-16 -i "${present[@]}"
fi
if ! clang-format-16 --dry-run -Werror "${present[@]}"; then
   echo "check-format: run  tools/check-format.sh --fix" >&2
   exit 1
fi
echo "check-format: ${#present[@]} files as clang-format writes them"
