#!/usr/bin/env bash
# The main job: installs what is missing, builds, and shows the module
# answering a short scripted exchange through `ostrand shell`.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
jobs="${OSTRAND_JOBS:-$(nproc)}"

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" --target ostrand Ostrand

# The module's per-user tree goes to a temporary home, never the real one.
home="$(mktemp -d -t ostrand-demo-XXXXXX)"
trap 'rm -rf "$home"' EXIT
export USERPROFILE="$home"

echo
echo "== ostrand shell: one JSON message per line in, replies and events out =="
exchange='{"command":"listCommands","id":1}
{"command":"cloudTrace.getTestString","id":2,"data":["hello from the demo"]}
{"command":"cloudTrace.getListOfUsecases","id":3,"data":["ARM_Cortex_M4_0"]}
{"command":"cloudTrace.getLiveTraceReceivers","id":4,"data":[""]}
{"command":"cloudTrace.enableMTB","id":5,"data":["cpu"]}
{"command":"nope","id":6}'
while IFS= read -r line; do echo ">> $line"; done <<<"$exchange"
echo
build/bin/ostrand shell <<<"$exchange" | sed 's/^/<< /'
