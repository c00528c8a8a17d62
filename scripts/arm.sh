# The tests of the 32-bit ARM build; sourced after presets.sh.
# shellcheck shell=bash
# shellcheck source=scripts/presets.sh disable=SC2154

readonly arm_packages=(
  cmake ninja-build g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user-static
  qemu-system-arm cpio pkg-config libcli11-dev libfmt-dev nlohmann-json3-dev googletest
  bzip2 xz-utils debian-archive-keyring ccache gnuplot-nox
)
readonly machine=build/machine
readonly arm_build=$PWD/build/armhf
readonly arm_libraries=$PWD/build/armhf-libraries/usr/lib/arm-linux-gnueabihf
# Seconds for all tests in the emulated machine, for its essential ones, and for one test.
readonly machine_limit=5400
readonly machine_limit_essential=900
readonly machine_test_limit=400

# machine_root FOLDER LISTS: what the emulated machine needs beside its own: the programs and libraries of
# the build, without debugging information, in their places; and what the ClamAV engine needs.
machine_root() {
  local root=$1$arm_build file
  mkdir -p "$root/bin" "$root/lib" "$1/lib"
  cp "$arm_libraries"/*.so.* "$1/lib/"
  cp -a "$arm_build/lib/." "$root/lib/"
  cp -a "$arm_build/share" "$root/"
  cp "$arm_build"/bin/{pelowatchd,pelowatchctl,deny_suffix} "$root/bin/"
  cut -d ' ' -f 1 "$2/all" | sort -u | xargs cp -t "$root/bin"
  find "$root/bin" "$root/lib" -type f -size +64k -exec arm-linux-gnueabihf-strip {} +
}

# list_tests LABELS: a line with the program and the name of each test whose labels match.
list_tests() {
  ctest --test-dir "$arm_build" --show-only --verbose --label-regex "$1" |
    sed -En 's|^.*Test command:.*[ "](/[^ "]+)"? "--gtest_filter=([^"]+)".*$|\1 \2|p'
}

# machine_lists FOLDER ESSENTIAL PASS...: for each pass (several or one: processors) the tests that
# run beside others, those that wait long first, and those that run alone. What user-mode emulation
# cannot run is the end-to-end tests and the unit tests that need a kernel.
machine_lists() {
  local folder=$1 essential=$2 pass
  shift 2
  list_tests 'e2e|kernel' >"$folder/all"
  list_tests alone >"$folder/alone"
  list_tests long >"$folder/long"
  cp "$folder/all" "$folder/several"
  cp "$folder/all" "$folder/one"
  if [[ $essential ]]; then
    list_tests essential >"$folder/several"
    list_tests one-processor >"$folder/one"
  fi
  for pass in "$@"; do
    grep -Fxf "$folder/$pass" "$folder/all" | grep -Fxf "$folder/alone" >"$folder/$pass.alone" || true
    cat "$folder/long" "$folder/all" | awk '!seen[$0]++' |
      grep -Fxf "$folder/$pass" | grep -Fxvf "$folder/alone" >"$folder/$pass.beside"
  done
}

# name_left_out FOLDER: says which tests are in no pass.
name_left_out() {
  local file=$results/armhf-not-run count
  grep -Fxvf <(cat "$1"/*.beside "$1"/*.alone) "$1/all" | cut -d ' ' -f 2 >"$file" || true
  count=$(wc -l <"$file")
  ((count == 0)) || add_summary "armhf: $count tests are left to scripts/test-arm: $file"
}

# What the machine runs. Tests that run alone come last in each pass; the others mostly wait.
machine_commands() {
  cat <<END
export PELO_TEST_DISK=/disk
cd $arm_build/bin || exit
status=0
run() {
  /machine/run-tests /out/\$1 \$((6 * \$(nproc))) $machine_test_limit </lists/\$1.beside || status=1
  /machine/run-tests /out/\$1 1 $machine_test_limit </lists/\$1.alone || status=1
}
[ ! -e /lists/several.beside ] || run several
for processor in /sys/devices/system/cpu/cpu[1-9]*/online; do
  [ ! -e \$processor ] || echo 0 >\$processor
done
[ "\$(nproc)" = 1 ] || exit 1
run one
exit \$status
END
}

# count_results WORD FILE: how many lines begin with it.
count_results() { grep -c "^$1 " "$2" || true; }

# missing_tests LISTS RESULTS: the names that are in the lists and have no result.
missing_tests() {
  comm -23 <(cut -d ' ' -f 2 "$1.beside" "$1.alone" | sort) <(cut -d ' ' -f 3 "$2" | sort)
}

# add_up_machine NAME LISTS FOLDER: the outcome of one pass. A test without a result has failed: the
# machine's xargs forgets those that wait when something has killed what it started.
add_up_machine() {
  local name=$1 folder=$3 missing=()
  mkdir -p "$folder"
  touch "$folder"/{results,figures}
  mapfile -t missing < <(missing_tests "$2" "$folder/results")
  ((${#missing[@]} == 0)) || printf 'FAILED %s (did not run)\n' "${missing[@]}"
  add_up "$name" $((SECONDS - $(cat "$folder/seconds" 2>/dev/null || echo 0))) \
    "$(count_results passed "$folder/results")" \
    $(($(count_results failed "$folder/results") + ${#missing[@]})) \
    "$(count_results skipped "$folder/results")"
  take_figures "$name" "$folder/figures"
}

# test_in_machine PROCESSORS ESSENTIAL
test_in_machine() {
  local processors=$1 passes=(one) limit=$machine_limit status=0
  local root=$results/armhf-root lists=$results/armhf-lists out=$results/armhf-machine
  ((processors == 1)) || passes=(several one)
  [[ ! $2 ]] || limit=$machine_limit_essential
  mkdir -p "$lists" "$root"
  machine_lists "$lists" "$2" "${passes[@]}"
  name_left_out "$lists"
  machine_root "$root" "$lists"
  cp -r "$lists" "$root/lists"
  say "armhf-machine: testing with ${passes[*]/several/$processors processors, then with} processor"
  scripts/machine/boot -c "$processors" -t "$limit" $machine "$root" "$out" \
    "$(machine_commands)" || status=$?
  rm -rf "$root"
  ((processors == 1)) ||
    add_up_machine "armhf-$processors-cpus" "$lists/several" "$out/several"
  add_up_machine armhf-1-cpu "$lists/one" "$out/one"
  ((status == 0)) || add_failure "armhf: the emulated machine ended with status $status"
}

measure_size() {
  local stripped
  stripped=$(mktemp)
  arm-linux-gnueabihf-strip -o "$stripped" "$arm_build/bin/pelowatchd"
  add_figure "armhf: pelowatchd has $(stat -c %s "$stripped") bytes, stripped"
  rm "$stripped"
}

# prepare_arm: builds, and fetches the emulated machine.
prepare_arm() {
  need_packages "${arm_packages[@]}"
  scripts/armhf-libraries
  build_preset armhf
  measure_size
  scripts/machine/fetch "$machine"
}

# test_arm [essential]: the unit tests, and all tests in the emulated machine or its choice of them.
test_arm() {
  # Some wait for seconds.
  test_preset armhf $((2 * $(nproc))) -L unit -LE kernel
  test_in_machine "${ARM_PROCESSORS:-2}" "${1:-}"
}
