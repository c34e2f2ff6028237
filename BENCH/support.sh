# Shared by the scripts beside it: a throw-away folder with key, certificate and bodies of 4096
# bytes, servers on free ports of loopback, and medians. Everything goes at the end of the script.
build=build/bin
[ -x "$build/test_http2_client" ] || { echo "build first: ./run-tests" >&2; exit 1; }
PATH=$PATH:/usr/sbin
folder=$(mktemp -d)
servers=()
clean_up() {
  for server in "${servers[@]}"; do
    kill "$server" 2>/dev/null || true
  done
  rm -rf "$folder"
}
trap clean_up EXIT

openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost \
  -keyout "$folder/key.pem" -out "$folder/cert.pem" 2>/dev/null
mkdir -p "$folder/www/test"
head -c 4096 /dev/zero | tr '\0' x >"$folder/www/test/test"
head -c 4096 /dev/zero >"$folder/body"

# Waits until something listens on the port $1.
wait_for_port() {
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return
    sleep 0.1
  done
  echo "no server on port $1" >&2
  exit 1
}

# Starts nghttpd over TLS, which answers every request with a body of 4096 bytes; sets port.
start_nghttpd() {
  port=$((20000 + RANDOM % 10000))
  nghttpd -d "$folder/www" "$port" "$folder/key.pem" "$folder/cert.pem" >/dev/null &
  servers+=($!)
  wait_for_port "$port"
}

# Starts the sample server over TLS, which echoes; sets port.
start_sample_server() {
  "$build/test_http2_server" -p 0 -k "$folder/key.pem" -r "$folder/cert.pem" >"$folder/server" &
  servers+=($!)
  port=
  while [ -z "$port" ]; do
    sleep 0.1
    port=$(sed -n 's/^listening on port \([0-9]*\)$/\1/p' "$folder/server")
  done
}

# Runs a command with its output in $folder/out and prints its processor seconds.
TIMEFORMAT='%U %S'
measure() {
  { time "$@" >"$folder/out" 2>&1 </dev/null; } 2>"$folder/time"
  awk '{ print $1 + $2 }' "$folder/time"
}

# Requests per second that h2load printed into $folder/out.
h2load_rate() {
  sed -n 's/^finished in .*, \([0-9.]*\) req\/s.*/\1/p' "$folder/out"
}

median() {
  sort -n | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
