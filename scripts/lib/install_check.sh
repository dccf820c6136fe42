# The install check of scripts/test: installs the build in $1 into a temporary prefix, builds
# examples/fetch-one and examples/remote-fetch against that installation twice each (through the
# CMake package and through pkg-config), and runs them and the installed retra-fetch against a
# small local server, remote-fetch through the installed retrad on a temporary socket.
# Sourced by scripts/test after the suites; expects scripts/lib/loopback.sh to be sourced.

install_check() {
  local build=$1
  local work
  work=$(mktemp -d "${TMPDIR:-/tmp}/retra-install.XXXXXX")
  INSTALL_CHECK_WORK=$work
  INSTALL_CHECK_SERVER=""
  INSTALL_CHECK_SERVICE=""
  trap install_check_cleanup EXIT

  local prefix=$work/prefix
  cmake --install "$build" --prefix "$prefix" >"$work/install.log"
  local libdir
  libdir=$(dirname "$(find "$prefix" -name 'libretra.so.1' -print -quit)")
  for file in "$libdir/libretra.so.1.0.0" "$libdir/cmake/Retra/RetraConfig.cmake" \
      "$libdir/pkgconfig/retra.pc" "$prefix/include/Retra/engine/Root.h" \
      "$prefix/include/Retra/orb/Orb/Entity.h" "$prefix/bin/retra-fetch" "$prefix/bin/retra-ctl" \
      "$prefix/lib/systemd/user/retrad.socket" "$prefix/lib/systemd/system/retrad.service" \
      "$libdir/libretra-remote.so.1.0.0" "$libdir/pkgconfig/retra-remote.pc" \
      "$prefix/include/Retra/remote/RemoteRoot.h" "$prefix/bin/retrad"; do
    [ -e "$file" ] || { echo "install check: $file is missing" >&2; return 1; }
  done

  # The examples, through the CMake package and through pkg-config; neither sees the sources.
  local example
  for example in fetch-one remote-fetch; do
    cmake -S "examples/$example" -B "$work/with-cmake/$example" -G Ninja \
      -DCMAKE_PREFIX_PATH="$prefix" >>"$work/cmake.log"
    cmake --build "$work/with-cmake/$example" >>"$work/cmake.log"
    mkdir -p "$work/with-pkg-config"
    PKG_CONFIG_PATH=$libdir/pkgconfig make -s -C "examples/$example" \
      BUILD="$work/with-pkg-config" >>"$work/make.log"
  done

  # A tiny server with one file.
  mkdir "$work/site"
  printf 'installed Retra works\n' >"$work/site/hello.txt"
  local port
  port=$(free_port)
  python3 -m http.server "$port" --bind 127.0.0.1 --directory "$work/site" \
    >"$work/server.log" 2>&1 &
  INSTALL_CHECK_SERVER=$!
  await_port "$port"
  local url=http://127.0.0.1:$port/hello.txt

  local program output
  for program in "$work/with-cmake/fetch-one/fetch-one" "$work/with-pkg-config/fetch-one"; do
    output=$("$program" "$url" 2>&1) || true
    echo "$output" | sed "s|^|  ${program#"$work"/}: |" >&2
    case $output in
      "status 200, 22 bytes, errNone"*) ;;
      *) echo "install check: $program printed something else" >&2; return 1 ;;
    esac
  done
  # A build on the bundled libcurl carries it in lib/retra/, and every program loads that one.
  if [ -e "$libdir/retra/libcurl.so.4" ]; then
    for program in "$work/with-cmake/fetch-one/fetch-one" "$work/with-pkg-config/fetch-one" \
        "$work/with-cmake/remote-fetch/remote-fetch" "$work/with-pkg-config/remote-fetch" \
        "$prefix/bin/retra-fetch" "$prefix/bin/retrad"; do
      local loaded
      loaded=$(ldd "$program" | awk '$1 == "libcurl.so.4" { print $3 }')
      [ "$(realpath "$loaded")" = "$(realpath "$libdir/retra/libcurl.so.4")" ] || {
        echo "install check: $program does not load the installed libcurl:" >&2
        ldd "$program" | grep libcurl >&2
        return 1
      }
    done
    echo "  every program loads $libdir/retra/libcurl.so.4" >&2
  fi
  output=$("$prefix/bin/retra-fetch" -s -m 10 "$url" 2>&1) || true
  [ "$output" = "installed Retra works" ] || {
    echo "install check: the installed retra-fetch printed '$output'" >&2
    return 1
  }
  echo "  installed retra-fetch: $output" >&2

  # The installed service on a socket of its own, and both remote-fetch builds through it.
  local socket=$work/retrad/retrad.sock
  mkdir "$work/retrad"
  "$prefix/bin/retrad" --socket "$socket" --state "$work/retrad/requests.db" \
    >"$work/retrad/retrad.log" 2>&1 &
  INSTALL_CHECK_SERVICE=$!
  await_unix_socket "$socket" || { cat "$work/retrad/retrad.log" >&2; return 1; }
  for program in "$work/with-cmake/remote-fetch/remote-fetch" \
      "$work/with-pkg-config/remote-fetch"; do
    output=$(RETRA_SOCKET=$socket "$program" "$url" 2>&1) || true
    echo "$output" | sed "s|^|  ${program#"$work"/}: |" >&2
    case $output in
      "status 200, 22 bytes, errNone"*) ;;
      *) echo "install check: $program printed something else" >&2; return 1 ;;
    esac
  done
  install_check_cleanup
}

# Stops the service and the server and removes the temporary tree, also when a step above failed.
install_check_cleanup() {
  if [ -n "${INSTALL_CHECK_SERVICE:-}" ]; then
    kill "$INSTALL_CHECK_SERVICE" 2>/dev/null || true
    wait "$INSTALL_CHECK_SERVICE" 2>/dev/null || true
    INSTALL_CHECK_SERVICE=""
  fi
  if [ -n "${INSTALL_CHECK_SERVER:-}" ]; then
    kill "$INSTALL_CHECK_SERVER" 2>/dev/null || true
    wait "$INSTALL_CHECK_SERVER" 2>/dev/null || true
    INSTALL_CHECK_SERVER=""
  fi
  if [ -n "${INSTALL_CHECK_WORK:-}" ]; then rm -rf "$INSTALL_CHECK_WORK"; fi
  INSTALL_CHECK_WORK=""
}
