# The memory-checking stage: runs every test of an existing plain build (scripts/test makes one
# in build/debug) under valgrind's memcheck, through `ctest -T memcheck`. Any memory error, and
# any block definitely lost at exit that tests/valgrind.supp does not name, fails the test it
# happens in. The suppressions cover only what the library deliberately never releases; memory
# still reachable at exit (one-time initialisation of libcurl, OpenSSL, c-ares and libuv, and the
# engines the tests keep) is not an error and is not listed.
#
# Programs the tests start are not run under valgrind (servers, openssl, python3), except the
# project's own retra-fetch, which the tools tests run as a program. Tests run about 20 to 50
# times slower under valgrind: the fixtures stretch their loop limits by RETRA_TEST_TIME_SCALE
# (20 unless set). valgrind's logs end up in <build>/Testing/Temporary/MemoryChecker.*.log (a
# traced retra-fetch writes into the log of the test that ran it).
#
# The soak suite (the long soak and the service's scale test) and retra-fetch's DNS outage test
# are left out (MEMCHECK_EXCLUDE, a ctest -E pattern): they run on the clock or at a scale
# (minutes of refreshes, an outage of fixed length, a hundred thousand requests) that valgrind's
# slowdown would stretch past their limits, and the soak's heap measurement reads the C
# library's allocator, which valgrind replaces.
#
#   source scripts/lib/memcheck.sh
#   memcheck_suite build/debug
#   MEMCHECK_GEN_SUPPRESSIONS=1 memcheck_suite build/debug   # print a suppression per report
#   memcheck_suite build/debug -R ClockTest                   # further arguments go to ctest
# The source tree, found when this file is sourced.
MEMCHECK_SOURCE_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

memcheck_suite() {
  local build=$1
  if [ ! -f "$build/CTestTestfile.cmake" ]; then
    echo "memcheck: $build is no configured build" >&2
    return 1
  fi
  local suppressions=$MEMCHECK_SOURCE_DIR/tests/valgrind.supp
  local valgrind
  valgrind=$(command -v valgrind) || {
    echo "memcheck: valgrind is not installed" >&2
    return 1
  }
  local options=(
    --leak-check=full
    --show-leak-kinds=definite
    --errors-for-leak-kinds=definite
    --error-exitcode=86
    --num-callers=40
    # Death tests fork and die on purpose: what their children leave behind is no finding.
    --child-silent-after-fork=yes
    --trace-children=yes
    "--trace-children-skip=/usr/*,/bin/*,/sbin/*"
  )
  [ -n "${MEMCHECK_GEN_SUPPRESSIONS:-}" ] && options+=(--gen-suppressions=all)

  echo "== memcheck over the tests of $build ==" >&2
  rm -f "$build"/Testing/Temporary/MemoryChecker.*.log
  local status=0
  RETRA_TEST_TIME_SCALE=${RETRA_TEST_TIME_SCALE:-20} ctest --test-dir "$build" -T memcheck \
    --overwrite "MemoryCheckCommand=$valgrind" \
    --overwrite "MemoryCheckCommandOptions=${options[*]}" \
    --overwrite "MemoryCheckSuppressionFile=$suppressions" \
    --output-on-failure -j "${MEMCHECK_JOBS:-2}" --timeout "${MEMCHECK_TIMEOUT:-1500}" \
    -E "${MEMCHECK_EXCLUDE:-^(SoakTest|ServiceScaleTest|RetraFetchOutageTest)\\.}" "${@:2}" || status=$?
  # valgrind writes to its own logs: show those that hold a finding.
  local log
  for log in "$build"/Testing/Temporary/MemoryChecker.*.log; do
    [ -f "$log" ] || continue
    if grep -qE 'ERROR SUMMARY: [1-9]|definitely lost: [1-9]' "$log"; then
      echo "---- $log" >&2
      cat "$log" >&2
    fi
  done
  return "$status"
}
