# The tests of the 32-bit ARM build; sourced after presets.sh.
# shellcheck shell=bash
# shellcheck source=scripts/presets.sh disable=SC2154

readonly arm_packages=(
  cmake ninja-build g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user-static
  qemu-system-arm cpio pkg-config libcli11-dev libfmt-dev nlohmann-json3-dev googletest
  bzip2 xz-utils debian-archive-keyring ccache
)
readonly machine=build/machine
readonly arm_build=$PWD/build/armhf
readonly arm_libraries=$PWD/build/armhf-libraries/usr/lib/arm-linux-gnueabihf
# Seconds for all tests in the emulated machine, and for one of them.
readonly machine_limit=1800
readonly machine_test_limit=400

# machine_root FOLDER: what the emulated machine needs beside its own: the programs and libraries of
# the build, without debugging information, in their places; and what the ClamAV engine needs.
machine_root() {
  local root=$1$arm_build file
  mkdir -p "$root/bin" "$root/lib" "$1/lib"
  cp "$arm_libraries"/*.so.* "$1/lib/"
  cp -a "$arm_build/lib/." "$root/lib/"
  cp -a "$arm_build/share" "$root/"
  for file in pelowatchd pelowatchctl deny_suffix e2e_tests $(<"$arm_build/tests/kernel_tests"); do
    cp "$arm_build/bin/$file" "$root/bin/"
  done
  find "$root" -type f -size +64k -exec arm-linux-gnueabihf-strip {} +
}

# list_tests PROGRAM FILTER: a line with the program and the name of each test.
list_tests() {
  qemu-arm-static -E LD_LIBRARY_PATH="$arm_libraries" -L /usr/arm-linux-gnueabihf \
    "$arm_build/bin/$1" --gtest_list_tests --gtest_filter="$2" |
    awk -v program="$arm_build/bin/$1" '/^[^ ]/ { suite = $1; next } NF { print program, suite $1 }'
}

# list_kernel_tests FILTER: those unit tests that user-mode emulation cannot run.
list_kernel_tests() {
  local program
  for program in $(<"$arm_build/tests/kernel_tests"); do
    list_tests "$program" "$1"
  done
}

# filter_of NAME: a filter that stands beside the list of tests.
filter_of() { cat "$arm_build/tests/$1"; }

# machine_lists FOLDER ESSENTIAL: the tests of the machine's two passes, with all its processors and
# with one. Those that wait long come first, those that run alone are apart.
machine_lists() {
  local folder=$1 unit='*' all='*'
  if [[ $2 ]]; then
    unit=$(filter_of kernel_essential)
    all=$(filter_of e2e_essential)
  fi
  list_tests e2e_tests "$(filter_of e2e_alone)" >"$folder/alone"
  list_tests e2e_tests "$(filter_of e2e_long)" >"$folder/long"
  list_tests e2e_tests "$all" >"$folder/all"
  list_tests e2e_tests "$(filter_of e2e_one_processor)" >"$folder/one"
  {
    grep -Fxf "$folder/long" "$folder/all" || true
    list_kernel_tests "$unit"
    grep -Fxvf <(cat "$folder/alone" "$folder/long") "$folder/all"
  } >"$folder/all.beside"
  grep -Fxf "$folder/alone" "$folder/all" >"$folder/all.alone" || true
  grep -Fxvf "$folder/alone" "$folder/one" >"$folder/one.beside"
  grep -Fxf "$folder/alone" "$folder/one" >"$folder/one.alone" || true
}

# What the machine runs. Tests that run alone come last in each pass; the others mostly wait.
machine_commands() {
  cat <<END
export PELO_TEST_DISK=/disk
cd $arm_build/bin
run() {
  /machine/run-tests /out/\$1 \$((6 * \$(nproc))) $machine_test_limit </lists/\$1.beside
  /machine/run-tests /out/\$1 1 $machine_test_limit </lists/\$1.alone
}
run all
for processor in /sys/devices/system/cpu/cpu[1-9]*/online; do echo 0 >\$processor; done
[ "\$(nproc)" = 1 ] || exit 1
run one
END
}

# count_results WORD FILE: how many lines begin with it.
count_results() { grep -c "^$1 " "$2" || true; }

# add_up_machine NAME FOLDER: the outcome of one pass.
add_up_machine() {
  local file=$results/armhf-machine/$2
  [[ -s $file/results ]] || die "the emulated machine ran none of the tests of $1"
  add_up "$1" $((SECONDS - $(<"$file/seconds"))) "$(count_results passed "$file/results")" \
    "$(count_results failed "$file/results")" "$(count_results skipped "$file/results")"
  take_figures "$1" "$file/figures"
}

# test_in_machine PROCESSORS ESSENTIAL
test_in_machine() {
  local processors=$1 work status=0
  work=$(mktemp -d)
  mkdir -p "$work/lists"
  machine_root "$work"
  machine_lists "$work/lists" "$2"
  say "armhf-machine: testing with $processors processors, then with one"
  rm -rf "$results/armhf-machine"
  scripts/machine/boot -c "$processors" -t $machine_limit $machine "$work" \
    "$results/armhf-machine" "$(machine_commands)" || status=$?
  rm -rf "$work"
  add_up_machine "armhf-$processors-cpus" all
  add_up_machine armhf-1-cpu one
  ((status == 0)) ||
    die "the tests in the emulated machine did not come to an end (status $status)"
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
