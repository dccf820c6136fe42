# The libcurl the project builds against by default: a current upstream release, taken as its
# upstream tarball from Debian's source archive and built once into build/deps/curl-<version>,
# which build/deps/curl points at. Debian 12's own libcurl 7.88 spends time per finished
# transfer in proportion to the transfers still waiting in the multi handle, so large batches
# take time in the square of their size; the release named here is linear.
#
# The tarball comes through apt with a private sources list and lists directory under
# build/deps/apt (the machine's apt configuration and caches stay untouched), from the Debian
# archive the machine's own apt sources already use, checked against the archive's signed index.
#
#   source scripts/lib/curl.sh
#   ensure_bundled_curl          # builds it when build/deps/curl is missing or another version
#
# CMake finds it as build/deps/curl (RETRA_CURL=bundled, the default); RETRA_CURL=system builds
# against the system's libcurl instead.

# The one place that names the version: the Debian source version and the upstream version.
RETRA_CURL_DEBIAN_VERSION=8.21.0-2~bpo13+1
RETRA_CURL_VERSION=8.21.0
RETRA_CURL_SUITE=trixie-backports

# What building it needs from Debian.
RETRA_CURL_PACKAGES=(libssl-dev libnghttp2-dev zlib1g-dev make dpkg-dev)

RETRA_CURL_SOURCE_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

# The Debian archive the machine's apt sources name (not the security archive).
debian_archive_uri() {
  local uri
  uri=$(apt-cache policy 2>/dev/null | awk '
    / [0-9]+ https?:\/\// { candidate = $2; next }
    /release / && /o=Debian,/ && /l=Debian,/ && candidate != "" { print candidate; exit }')
  if [ -z "$uri" ]; then
    uri=$(cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
        /etc/apt/sources.list.d/*.sources 2>/dev/null |
      grep -oE 'https?://[^ ]+/debian/?( |$)' | grep -v security | head -n 1 | tr -d ' ')
  fi
  [ -n "$uri" ] || { echo "curl: no Debian archive in the machine's apt sources" >&2; return 1; }
  echo "${uri%/}"
}

ensure_bundled_curl() {
  local deps=$RETRA_CURL_SOURCE_DIR/build/deps
  local prefix=$deps/curl-$RETRA_CURL_VERSION
  if [ -f "$prefix/.complete" ]; then
    ln -sfn "curl-$RETRA_CURL_VERSION" "$deps/curl"
    return 0
  fi
  echo "== libcurl $RETRA_CURL_VERSION from Debian's source archive into $prefix ==" >&2
  local apt=$deps/apt
  rm -rf "$apt" "$prefix"
  mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial" "$apt/src"
  local archive
  archive=$(debian_archive_uri)
  echo "deb-src $archive $RETRA_CURL_SUITE main" >"$apt/sources.list"
  local options=(-o "Dir::Etc::sourcelist=$apt/sources.list" -o Dir::Etc::sourceparts=-
    -o "Dir::State::Lists=$apt/lists" -o "Dir::Cache=$apt/cache" -o APT::Sandbox::User=root)
  local sudo=()
  [ "$(id -u)" -ne 0 ] && sudo=(sudo)
  "${sudo[@]}" apt-get "${options[@]}" update -qq
  (cd "$apt/src" && "${sudo[@]}" apt-get "${options[@]}" source --download-only --tar-only \
    "curl=$RETRA_CURL_DEBIAN_VERSION" >/dev/null)
  local tarball=$apt/src/curl_$RETRA_CURL_VERSION.orig.tar.gz
  [ -f "$tarball" ] || { echo "curl: $tarball did not arrive" >&2; return 1; }

  local work=$deps/curl-build
  rm -rf "$work"
  mkdir -p "$work"
  tar -xzf "$tarball" -C "$work" --strip-components=1
  # Only what the library uses: HTTP(S) and the protocols its mask allows that need nothing
  # more, over OpenSSL, with HTTP/2 and compressed bodies.
  (cd "$work" && ./configure --prefix="$prefix" --enable-shared --disable-static \
    --with-openssl --with-nghttp2 --with-zlib --without-libpsl --without-brotli --without-zstd \
    --without-libidn2 --without-librtmp --without-libssh2 --without-libssh --disable-ldap \
    --disable-ldaps --disable-rtsp --disable-dict --disable-telnet --disable-tftp --disable-pop3 \
    --disable-imap --disable-smb --disable-smtp --disable-gopher --disable-mqtt --disable-manual \
    --disable-docs --disable-ntlm --disable-websockets >"$work/configure.log" 2>&1 ||
    { tail -n 30 "$work/configure.log" >&2; return 1; })
  make -C "$work/lib" -j "$(nproc)" -s >"$work/make.log" 2>&1 || { tail -n 30 "$work/make.log" >&2; return 1; }
  make -C "$work" -s install-pkgconfigDATA install-binSCRIPTS >/dev/null
  make -C "$work/lib" -s install >/dev/null
  make -C "$work/include" -s install >/dev/null
  rm -rf "$work"
  touch "$prefix/.complete"
  ln -sfn "curl-$RETRA_CURL_VERSION" "$deps/curl"
}
