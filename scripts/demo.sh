#!/usr/bin/env bash
# The main job: installs what is missing, builds, shows the module answering
# a short scripted exchange, then makes a sample data tree in a temporary user
# directory and serves it to trace viewers on localhost:1239 until Ctrl-C.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
jobs="${OSTRAND_JOBS:-$(nproc)}"
port="${OSTRAND_PORT:-1239}"

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" --target ostrand Ostrand

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
echo "== sample captures in $home =="
# MTB, TDF, placeholder and Wattline captures of every kind, where a live
# session leaves them, so the server's scan finds them all.
"$ostrand" gen all --data "$home" --tree live --size 200000 >/dev/null
"$ostrand" gen wattline --data "$home" --target sim/long_capture --duration 60 --rate 100000 >/dev/null
find "$home/.QX-trace/data/live-targets" -name metadata -printf '  %h\n' | sed "s|$home/.QX-trace/data/live-targets/||" | sort

echo
echo "== trace server =="
echo "A trace viewer opens http://localhost:$port/tsp/api (try: curl http://localhost:$port/tsp/api/experiments)."
"$ostrand" serve --data "$home" --port "$port"
