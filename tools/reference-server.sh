# Sourced by the demo scripts: start_reference_server WORKDIR starts
# tools/orvane-reference-server on a free loopback port with its data in
# WORKDIR/data, and sets server_pid and server (its base URL). The caller's
# EXIT trap stops it with stop_reference_server.
start_reference_server() {
  local work=$1
  python3 tools/orvane-reference-server --port 0 --port-file "$work/port" --data-dir "$work/data" --quiet &
  server_pid=$!
  for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.1; done
  [ -s "$work/port" ] || { echo "the reference server did not start" >&2; return 1; }
  server="http://127.0.0.1:$(cat "$work/port")"
  # Loopback never goes through a proxy, whatever the environment says.
  export no_proxy="127.0.0.1,localhost${no_proxy:+,$no_proxy}"
}

stop_reference_server() {
  if [ -n "${server_pid:-}" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
}
