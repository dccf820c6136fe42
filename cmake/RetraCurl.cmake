# Which libcurl the project builds against, as the imported target PkgConfig::CURL.
#   RETRA_CURL=bundled (default): the current release scripts/lib/curl.sh builds from Debian's
#     source archive into build/deps/curl. Debian 12's libcurl 7.88 takes time in the square of
#     a batch's size once many transfers wait in the multi handle; the bundled release does not.
#     It is installed beside libretra.so (lib/retra/), which finds it through its RUNPATH.
#   RETRA_CURL=system: the machine's own libcurl (libcurl4-openssl-dev).
set(RETRA_CURL bundled CACHE STRING "libcurl to build against: bundled or system")
set_property(CACHE RETRA_CURL PROPERTY STRINGS bundled system)
set(RETRA_CURL_PREFIX ${PROJECT_SOURCE_DIR}/build/deps/curl CACHE PATH
    "Installation prefix of the bundled libcurl")

if(RETRA_CURL STREQUAL "bundled")
  if(NOT EXISTS ${RETRA_CURL_PREFIX}/lib/pkgconfig/libcurl.pc)
    message(FATAL_ERROR "No bundled libcurl in ${RETRA_CURL_PREFIX}. Build it with "
      "`bash -c 'source scripts/lib/curl.sh && ensure_bundled_curl'` (scripts/test does), "
      "or configure with -DRETRA_CURL=system.")
  endif()
  set(ENV{PKG_CONFIG_PATH} "${RETRA_CURL_PREFIX}/lib/pkgconfig:$ENV{PKG_CONFIG_PATH}")
elseif(NOT RETRA_CURL STREQUAL "system")
  message(FATAL_ERROR "RETRA_CURL must be bundled or system, not '${RETRA_CURL}'")
endif()
# pkg_check_modules keeps its answer in the cache: look again when the choice changed.
if(NOT "${RETRA_CURL}:${RETRA_CURL_PREFIX}" STREQUAL "${RETRA_CURL_CHECKED}")
  unset(__pkg_config_checked_CURL CACHE)
  unset(pkgcfg_lib_CURL_curl CACHE)
  set(RETRA_CURL_CHECKED "${RETRA_CURL}:${RETRA_CURL_PREFIX}" CACHE INTERNAL "")
endif()
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET GLOBAL libcurl)
message(STATUS "libcurl ${CURL_VERSION} (${RETRA_CURL})")
