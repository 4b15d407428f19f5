#!/bin/sh
# The browser viewer in Debian's chromium, headless, against `ostrand demo --samples`
# on a free loopback port. Screenshots and the click-to-chart timings go to
# <build-dir>/browser-test for a person to look at.
#
# usage: tests/browser/run.sh <build-dir>
# Needs <build-dir>/bin/ostrand with the viewer built beside it, chromium,
# and node with npm (installs the driver from the lock file when missing).
set -eu

if [ $# -ne 1 ]; then
  echo "usage: $0 <build-dir>" >&2
  exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
if [ ! -x "$build/bin/ostrand" ] || [ ! -f "$build/vsk_base/viewer/index.html" ]; then
  echo "browser test: build ostrand and the viewer first (cmake --build $build --target ostrand)" >&2
  exit 2
fi
if [ ! -x /usr/bin/chromium ]; then
  echo "browser test: /usr/bin/chromium is missing; run scripts/install-deps.sh" >&2
  exit 2
fi
if [ ! -d "$here/node_modules/puppeteer-core" ]; then
  (cd "$here" && npm ci --no-audit --no-fund --loglevel=error)
fi

shots="$build/browser-test"
rm -rf "$shots"
mkdir -p "$shots"
log=$(mktemp)
demo_pid=
cleanup() {
  if [ -n "$demo_pid" ] && kill -0 "$demo_pid" 2>/dev/null; then
    kill "$demo_pid" 2>/dev/null || true
    wait "$demo_pid" 2>/dev/null || true
  fi
  rm -f "$log"
}
trap cleanup EXIT INT TERM

port=$(node -e 'const s=require("net").createServer();s.listen(0,"127.0.0.1",()=>{console.log(s.address().port);s.close();});')
# The demo writes its captures into a temporary directory of its own and
# removes it when it stops.
"$build/bin/ostrand" demo --samples --port "$port" >"$log" 2>&1 &
demo_pid=$!

# Bounded wait for the viewer's address; writing and loading the captures
# takes a few seconds.
tries=0
until grep -q '^Viewer: ' "$log" 2>/dev/null; do
  tries=$((tries + 1))
  if [ $tries -gt 1200 ] || ! kill -0 "$demo_pid" 2>/dev/null; then
    echo "browser test: the demo did not come up:" >&2
    cat "$log" >&2
    exit 1
  fi
  sleep 0.1
done

status=0
timeout 300 node "$here/viewer.test.mjs" "http://localhost:$port" "$shots" || status=$?

# The demo's server stops by itself on GET /stop, and the demo cleans up.
node -e "require('http').get('http://localhost:$port/stop', r => r.resume()).on('error', () => {})"
tries=0
while kill -0 "$demo_pid" 2>/dev/null && [ $tries -lt 100 ]; do
  tries=$((tries + 1))
  sleep 0.1
done
echo "browser test: screenshots in $shots"
exit $status
