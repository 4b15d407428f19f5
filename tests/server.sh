# Shared by tests/e2e/run.sh and tests/browser/run.sh: a free loopback port,
# a server started in the background and waited for (bounded), stopped by
# GET /stop, and killed by its pid if it still runs when the script ends.
#
# Source it after `set -eu`. It sets the EXIT trap; a script with more to
# clean up puts the command in `server_extra_cleanup`.

server_pid=
server_extra_cleanup=:

server_cleanup() {
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  eval "$server_extra_cleanup"
}
trap server_cleanup EXIT INT TERM

# A port free on 127.0.0.1 at the moment of asking.
free_port() {
  node -e 'const s=require("net").createServer();s.listen(0,"127.0.0.1",()=>{console.log(s.address().port);s.close();});'
}

# server_start WHO LOG PATTERN TENTHS COMMAND...: runs COMMAND with its output
# in LOG and waits up to TENTHS tenths of a second for a line matching
# PATTERN; exits the script with the log shown when the server ends or
# never says it.
server_start() {
  server_who=$1 server_log=$2 server_pattern=$3 server_limit=$4
  shift 4
  "$@" >"$server_log" 2>&1 &
  server_pid=$!
  tries=0
  until grep -q "$server_pattern" "$server_log" 2>/dev/null; do
    tries=$((tries + 1))
    if [ $tries -gt "$server_limit" ] || ! kill -0 "$server_pid" 2>/dev/null; then
      echo "$server_who: the server did not come up:" >&2
      cat "$server_log" >&2
      exit 1
    fi
    sleep 0.1
  done
}

# server_stop PORT: the server stops by itself on GET /stop; wait for it
# (bounded), the trap kills it otherwise.
server_stop() {
  node -e "require('http').get('http://localhost:$1/stop', r => r.resume()).on('error', () => {})"
  tries=0
  while kill -0 "$server_pid" 2>/dev/null && [ $tries -lt 100 ]; do
    tries=$((tries + 1))
    sleep 0.1
  done
}
