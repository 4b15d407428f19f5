#!/usr/bin/env bash
# The main job: installs what is missing, builds, shows the module answering
# a short scripted exchange, then takes a capture of every kind on the
# simulated targets (their firmware runs under QEMU) as a debug host does,
# and serves them with the module's trace server on localhost:1239 until
# Ctrl-C: the browser viewer at http://localhost:1239/, the protocol under
# /tsp/api.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
jobs="${OSTRAND_JOBS:-$(nproc)}"
port="${OSTRAND_PORT:-1239}"

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# One target: `ostrand` depends on the module and the simulated tool
# libraries. Naming them apart made make walk (and list) the shared
# dependencies once per target.
cmake --build build -j"$jobs" --target ostrand

# The per-user tree goes to a temporary home, never the real one.
home="$(mktemp -d -t ostrand-demo-XXXXXX)"
trap 'rm -rf "$home"' EXIT
export USERPROFILE="$home"
ostrand=build/bin/ostrand

echo
echo "== ostrand shell: one JSON message per line in, replies and events out =="
exchange='{"command":"listCommands","id":1}
{"command":"cloudTrace.getTestString","id":2,"data":["hello from the demo"]}
{"command":"cloudTrace.getListOfUsecases","id":3,"data":["ARM_Cortex_M4_0"]}
{"command":"cloudTrace.getLiveTraceReceivers","id":4,"data":[""]}
{"command":"nope","id":5}'
while IFS= read -r line; do echo ">> $line"; done <<<"$exchange"
"$ostrand" shell <<<"$exchange" | sed 's/^/<< /'

echo
echo "== ostrand demo: captures of every kind from running firmware, served with the browser viewer =="
# Configure, arm, run, halt, data ready: MTB and power on the Cortex-M0+
# class CPU, ETB on the Cortex-M4, a TDF session on a saved run; all in a
# temporary user directory.
"$ostrand" demo --port "$port"
