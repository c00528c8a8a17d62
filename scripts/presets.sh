# Building and testing one preset, and adding up what the tests gave; sourced after common.sh. What
# came out is kept in files, so that stages can run beside one another.
# shellcheck shell=bash

readonly results=build/test-results

# Two runs would take each other's results and builds away.
begin_results() {
  mkdir -p build
  exec {lock}<build
  flock -n "$lock" || die "other tests are running in this checkout"
  rm -rf "$results"
  mkdir -p "$results"
  touch "$results"/{counts,summary,figures}
}

# add_summary TEXT: shown now and at the end, as figures are.
add_summary() { say "$1" | tee -a "$results/summary"; }
add_figure() { echo "figure: $1" | tee -a "$results/figures"; }

# add_failure TEXT: what went wrong although no test has said so.
add_failure() {
  echo '0 1 0' >>"$results/counts"
  add_summary "$1"
}

# add_up NAME BEGIN PASSED FAILED SKIPPED: the outcome of some tests that began at second BEGIN.
add_up() {
  echo "$3 $4 $5" >>"$results/counts"
  add_summary "$(printf '%-14s %5d tests, %d failed, %d skipped, %4d s' \
    "$1" $(($3 + $4 + $5)) "$4" "$5" $((SECONDS - $2)))"
}

# take_figures NAME FILE: what tests printed after "figure:", also those that passed.
take_figures() {
  local text
  while read -r text; do
    add_figure "$1: $text"
  done < <(sed -n 's/^.*\bfigure: *//p' "$2" 2>/dev/null)
}

# attribute NAME FILE: a number from the head of a JUnit file.
attribute() { grep -m1 -oE "\\b$1=\"[0-9]+\"" "$2" | grep -oE '[0-9]+'; }

# add_up_junit NAME BEGIN FILE STATUS: ctest fails for tests whose program is missing too, but writes
# that they were skipped.
add_up_junit() {
  local tests bad missed
  [[ -s $3 ]] || {
    add_failure "$1: no test has run (ctest: $4)"
    return
  }
  tests=$(attribute tests "$3")
  bad=$(attribute failures "$3")
  missed=$(($(attribute skipped "$3") + $(attribute disabled "$3")))
  add_up "$1" "$2" $((tests - bad - missed)) "$bad" "$missed"
  (($4 == 0 || bad > 0)) || add_failure "$1: ctest ended with status $4"
}

# What was compiled before, in whatever checkout, is not compiled again.
use_compiler_cache() {
  export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
  export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1 CCACHE_IGNOREOPTIONS="$PWD/build/*"
  export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
  export CCACHE_PCH_EXTSUM=1
}

build_preset() {
  local preset=$1 begin=$SECONDS
  use_compiler_cache
  say "$preset: building"
  cmake --preset "$preset" >"$results/$preset-configure.log" ||
    { tail -40 "$results/$preset-configure.log"; die "$preset cannot be configured"; }
  cmake --build --preset "$preset" >"$results/$preset-build.log" ||
    { tail -40 "$results/$preset-build.log"; die "$preset does not build"; }
  add_summary "$(printf '%-14s built, %44d s' "$preset" $((SECONDS - begin)))"
}

# show_failures LOG: what ctest says of tests that failed, or else how it ended.
show_failures() {
  local text
  text=$(grep -E -A60 '\*\*\*(Failed|Timeout|Exception|Not Run)' "$1") || text=$(tail -n 40 "$1")
  tail -n 200 <<<"$text"
}

# test_preset PRESET JOBS [OPTION...]: the tests of a preset that was built.
test_preset() {
  local preset=$1 jobs=$2 begin=$SECONDS file=$PWD/$results/$1.xml status=0
  shift 2
  say "$preset: testing"
  ctest --test-dir "build/$preset" --parallel "$jobs" --output-on-failure --no-tests=error \
    --output-junit "$file" "$@" >"$results/$preset.log" 2>&1 || status=$?
  ((status == 0)) || show_failures "$results/$preset.log"
  grep -E '\*\*\*(Skipped|Not Run)' "$results/$preset.log" || true
  add_up_junit "$preset" "$begin" "$file" "$status"
  take_figures "$preset" "$file"
}

# conclude: prints all outcomes. Fails where a test did, and in CI where one was skipped.
conclude() {
  local passed failed skipped
  read -r passed failed skipped < <(awk '{ passed += $1; failed += $2; skipped += $3 }
    END { printf "%d %d %d\n", passed, failed, skipped }' "$results/counts")
  printf '\n'
  cat "$results/summary" "$results/figures"
  printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
  ((failed == 0)) || exit 1
  if [[ ${CI:-} && $skipped -ne 0 ]]; then
    die "a skipped test is a failure here"
  fi
}
