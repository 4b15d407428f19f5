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
. "$here/../server.sh"
server_extra_cleanup='rm -f "$log"'

port=$(free_port)
# The demo writes its captures into a temporary directory of its own and
# removes it when it stops. Writing and loading them takes a few seconds.
server_start "browser test" "$log" '^Viewer: ' 1200 "$build/bin/ostrand" demo --samples --port "$port"

status=0
timeout 300 node "$here/viewer.test.mjs" "http://localhost:$port" "$shots" || status=$?

# The demo cleans up when its server stops.
server_stop "$port"
echo "browser test: screenshots in $shots"
exit $status
