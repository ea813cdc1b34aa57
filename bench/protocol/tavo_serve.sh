# Sourced by the benchmark scripts: start_tavo_serve DIR starts "$tavo" serve DIR in the
# background (its log to /dev/null), waits for its base URL and sets serve_pid and base; it
# keeps the URL in "$work/serve.url".
start_tavo_serve() {
  "$tavo" serve "$1" > "$work/serve.url" 2> /dev/null &
  serve_pid=$!
  for _ in $(seq 100); do [ -s "$work/serve.url" ] && break; sleep 0.05; done
  base=$(head -1 "$work/serve.url")
  [ -n "$base" ] || { echo "tavo serve did not start"; exit 1; }
}
