#!/usr/bin/env bash
# Builds nat-agent and shows it at work: the branch office, programmed twice with one store, so that the second run
# shows the NAT ids of the first. With arguments, they go to nat-agent instead:  ./run.sh CONFIG --format json
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/tools/setup.sh"
ensure_packages "${run_packages[@]}"
(build_preset release nat-agent)
agent=$project_root/build/release/agent/nat-agent

if [ $# -gt 0 ]; then
   exec "$agent" "$@"
fi

cd "$project_root"
state=build/run-state
rm -rf "$state"
mkdir -p "$state"
echo "== The branch office, with an empty store of NAT ids =="
"$agent" examples/branch-office.json --state "$state"
echo
echo "== The same again: every NAT id comes back from the store =="
exec "$agent" examples/branch-office.json --state "$state"
