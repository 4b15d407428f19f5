#!/bin/sh
# End-to-end test of the trace server with the published TypeScript client of
# the Trace Server Protocol.
#
# usage: tests/e2e/run.sh <build-dir>
# First against `ostrand serve`-style generated captures (tsp_e2e_server),
# then against the module's own server after `ostrand demo` took captures of
# every kind on the simulated targets.
# Needs <build-dir>/bin/ostrand and <build-dir>/bin/tsp_e2e_server, and node
# with npm (installs the client from the lock file when it is missing).
set -eu

if [ $# -ne 1 ]; then
  echo "usage: $0 <build-dir>" >&2
  exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
for exe in ostrand tsp_e2e_server; do
  if [ ! -x "$build/bin/$exe" ]; then
    echo "e2e: $build/bin/$exe is missing; build it first (cmake --build $build --target $exe)" >&2
    exit 2
  fi
done

if [ ! -d "$here/node_modules/tsp-typescript-client" ]; then
  (cd "$here" && npm ci --no-audit --no-fund --loglevel=error)
fi

data=$(mktemp -d)
. "$here/../server.sh"
server_extra_cleanup='rm -rf "$data"'

"$build/bin/ostrand" gen mtb --data "$data" --size 5000 --seed 7 >/dev/null
"$build/bin/ostrand" gen tdf-table --data "$data" --size 300 --seed 7 >/dev/null
tdf_dir="$data/.QX-trace/data/file-targets/file/recording/TDF"
# Power captures: state words in the v4 and the v5 layout, and none.
"$build/bin/ostrand" gen wattline --data "$data" --target sim/wl_v4 --type 7 --states v4 \
  --duration 2 --rate 2000 --seed 7 >/dev/null
"$build/bin/ostrand" gen wattline --data "$data" --target sim/wl_v5 --type 7 --states v5 \
  --duration 2 --rate 2000 --seed 8 >/dev/null
"$build/bin/ostrand" gen wattline --data "$data" --target sim/wl_plain --type 8 \
  --duration 2 --rate 2000 --seed 9 >/dev/null

port=$(free_port)
server_start e2e "$data/server.log" '^READY' 100 \
  "$build/bin/tsp_e2e_server" --port "$port" --data "$data" --etb-records 1000

status=0
node "$here/e2e.mjs" "http://localhost:$port" "$tdf_dir" wl_v4_WL++ wl_v5_WL++ wl_plain_WL || status=$?

server_stop "$port"
[ $status -eq 0 ] || exit $status

# The module's own server after captures taken as a debug host takes them:
# `ostrand demo` runs the simulated targets' firmware under QEMU, captures
# every kind through the module, and keeps the module's server up.
port=$(free_port)
server_start "e2e (module's server)" "$data/demo.log" '^Viewer: ' 1200 "$build/bin/ostrand" demo --port "$port"
# The experiments the captures make, by kind and name; the TDF capture by
# its directory, which the demo names.
demo_data=$(sed -n 's/^Captures go to //p' "$data/demo.log")
node "$here/e2e.mjs" "http://localhost:$port" - mtb:CM0P_CoreTrace etb:CM4_CoreTrace wl:CM0P_WL \
  "tdf:$demo_data/file-targets/file/CM0P-run/TDF" || status=$?
if [ $status -ne 0 ]; then
  echo "e2e: what the demo printed:" >&2
  cat "$data/demo.log" >&2
fi
server_stop "$port"
exit $status
