# Helpers for scripts that start servers on the loopback interface.

# Prints a TCP port that is free on 127.0.0.1 right now.
free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Waits until something accepts connections on 127.0.0.1:$1, at most $2 seconds (default 10).
await_port() {
  local port=$1 limit=${2:-10} waited=0
  until (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do
    sleep 0.1
    waited=$((waited + 1))
    if [ "$waited" -ge $((limit * 10)) ]; then
      echo "nothing listens on 127.0.0.1:$port after ${limit}s" >&2
      return 1
    fi
  done
}

# Waits until something accepts connections on the Unix socket $1, at most $2 seconds
# (default 10).
await_unix_socket() {
  local path=$1 limit=${2:-10}
  python3 - "$path" "$limit" <<'PY'
import socket, sys, time
path, deadline = sys.argv[1], time.monotonic() + float(sys.argv[2])
while True:
    try:
        socket.socket(socket.AF_UNIX).connect(path)
        break
    except OSError:
        if time.monotonic() > deadline:
            sys.exit("nothing listens on %s after %ss" % (path, sys.argv[2]))
        time.sleep(0.1)
PY
}
