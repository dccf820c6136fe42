# The fuzzing stage: builds the libFuzzer targets of tests/fuzz with clang in build/fuzz and runs
# each for RETRA_FUZZ_SECONDS seconds (default 60 on CI, where CI=true, otherwise 10) over a
# working copy of its seed corpus, so that the corpus in the tree never grows. Any crash, failed
# property, leak, sanitizer report or time-out fails the stage; the input that caused it is kept
# under build/fuzz/run/<target>/ with the target's output.
#
# Seed files named *.hex hold a binary input as hexadecimal text; the working copy holds their
# bytes. Sourced by scripts/test; expects scripts/lib/packages.sh to be sourced.
#
#   source scripts/lib/packages.sh
#   source scripts/lib/fuzz.sh
#   RETRA_FUZZ_SECONDS=30 fuzz_targets

fuzz_targets() {
  local build=build/fuzz
  local seconds=${RETRA_FUZZ_SECONDS:-$([ "${CI:-}" = true ] && echo 60 || echo 10)}
  if declare -F ensure_packages >/dev/null; then
    ensure_packages "${RETRA_FUZZ_PACKAGES[@]}"
  fi

  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_FLAGS=-O1 -DCMAKE_CXX_FLAGS=-O1 -DRETRA_FUZZ=ON >/dev/null
  cmake --build "$build" -j "$(nproc)" --target retra_fuzz

  local failed=()
  local source name
  for source in tests/fuzz/*_fuzz.cpp; do
    name=$(basename "$source" .cpp)
    fuzz_one "$build" "$name" "$seconds" || failed+=("$name")
  done
  if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzzing failed: ${failed[*]} (inputs and output under $build/run/)" >&2
    return 1
  fi
}

# Runs one target for $3 seconds in $1/run/<target>: corpus/ (the working copy), artifacts/ (what
# made it fail) and output.log.
fuzz_one() {
  local build=$1 name=$2 seconds=$3
  local target=${name%_fuzz}
  local run=$build/run/$target
  rm -rf "$run"
  mkdir -p "$run/corpus" "$run/artifacts"
  local seed
  for seed in tests/fuzz/corpus/"$target"/*; do
    [ -f "$seed" ] || continue
    case $seed in
      *.hex)
        python3 -c 'import sys; sys.stdout.buffer.write(bytes.fromhex(open(sys.argv[1]).read()))' \
          "$seed" >"$run/corpus/$(basename "$seed" .hex)"
        ;;
      *) cp "$seed" "$run/corpus/" ;;
    esac
  done

  echo "== fuzzing $target for ${seconds}s ==" >&2
  local status=0
  # Leaks are checked after every input; an input that runs 30 seconds counts as a hang.
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:symbolize=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$build/tests/fuzz/$name" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$run/artifacts/" "$run/corpus" \
    >"$run/output.log" 2>&1 || status=$?
  if [ "$status" -ne 0 ] || grep -qE 'ERROR: (Address|Leak|Undefined)Sanitizer|runtime error:' \
      "$run/output.log"; then
    echo "$target: failed (exit $status); the last of $run/output.log:" >&2
    tail -n 40 "$run/output.log" >&2
    ls "$run/artifacts" >&2
    return 1
  fi
  grep -E '^stat::number_of_executed_units|^#[0-9]+.*DONE' "$run/output.log" | tail -n 2 >&2
}
