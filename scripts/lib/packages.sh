# Installs the Debian packages a script needs and the machine lacks: one `apt-get update`, then
# one install. Nothing happens when every package is present.
ensure_packages() {
  local missing=()
  local pkg
  for pkg in "$@"; do
    if [ "$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null)" != "install ok installed" ]; then
      missing+=("$pkg")
    fi
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local sudo=()
  [ "$(id -u)" -ne 0 ] && sudo=(sudo)
  echo "Installing missing packages: ${missing[*]}" >&2
  "${sudo[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# Everything the build, the whole suite, the install check and the demo need.
RETRA_BUILD_PACKAGES=(cmake g++ ninja-build pkg-config libgtest-dev libgmock-dev libuv1-dev
  libc-ares-dev dnsmasq-base libcurl4-openssl-dev nginx-light openssl python3-httpbin
  liburiparser-dev libcli11-dev nlohmann-json3-dev make python3 valgrind libsqlite3-dev
  libmicrohttpd-dev prometheus util-linux)

# The fuzzing stage: clang, its fuzzer and sanitizer runtimes, llvm-symbolizer for stack traces.
RETRA_FUZZ_PACKAGES=(clang libclang-rt-14-dev llvm)
