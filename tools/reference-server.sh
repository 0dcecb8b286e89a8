# Sourced by the demo scripts. start_reference_server PREFIX makes a scratch
# directory work=PREFIX.XXXXXX, starts tools/orvane-reference-server on a free
# loopback port with its data in $work/data, sets server (its base URL) and an
# EXIT trap that stops it and removes $work. published lists what it stores.
start_reference_server() {
  work=$(mktemp -d "$1.XXXXXX")
  trap stop_reference_server EXIT
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
  rm -rf "$work"
}

published() {
  python3 tools/orvane-reference-server --list --data-dir "$work/data"
}
