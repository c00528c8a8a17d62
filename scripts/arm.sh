# The tests of the 32-bit ARM build; sourced after presets.sh.
# shellcheck shell=bash
# shellcheck source=scripts/presets.sh disable=SC2154

readonly arm_packages=(
  cmake ninja-build g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user-static
  qemu-system-arm cpio pkg-config libcli11-dev libfmt-dev nlohmann-json3-dev googletest
  debian-archive-keyring
)
readonly machine=build/machine
# Seconds for all tests in the emulated machine, and for one of them.
readonly machine_limit=1500
readonly machine_test_limit=400

# machine_root FOLDER: what the emulated machine needs beside its own: the programs and libraries of
# the build, without debugging information, in their places.
machine_root() {
  local build=$PWD/build/armhf root=$1$PWD/build/armhf file
  mkdir -p "$root/bin" "$root/lib"
  cp -a "$build/lib/." "$root/lib/"
  for file in pelowatchd pelowatchctl deny_suffix e2e_tests $(<"$build/tests/kernel_tests"); do
    cp "$build/bin/$file" "$root/bin/"
  done
  find "$root" -type f -size +64k -exec arm-linux-gnueabihf-strip {} +
}

# The commands that the machine runs. Tests that run alone come last; the others mostly wait.
machine_commands() {
  local build=$PWD/build/armhf processors=$1
  cat <<END
export CI=true PELO_TEST_DISK=/disk
list() { "\$1" --gtest_list_tests --gtest_filter="\$2" | awk -v program="\$1" \\
  '/^[^ ]/ { suite = \$1; next } NF { print program, suite \$1 }'; }
alone=\$(cat $build/tests/e2e_alone)
long=\$(cat $build/tests/e2e_long)
cd $build/bin
{
  list $build/bin/e2e_tests "\$long"
  for program in $(tr '\n' ' ' <"$build/tests/kernel_tests"); do list $build/bin/\$program '*'; done
  list $build/bin/e2e_tests "-\$alone:\$long"
} | /machine/run-tests $((6 * processors)) $machine_test_limit
list $build/bin/e2e_tests "\$alone" | /machine/run-tests 1 $machine_test_limit
END
}

# How many lines of the machine's results begin with a word.
machine_results() { grep -c "^$1 " "$results/$2/results" || true; }

# test_in_machine NAME PROCESSORS
test_in_machine() {
  local name=$1 processors=$2 begin=$SECONDS work status=0
  work=$(mktemp -d)
  machine_root "$work/root"
  mkdir -p "$work/root$PWD/build/armhf/tests"
  cp build/armhf/tests/e2e_* "$work/root$PWD/build/armhf/tests/"
  say "$name: testing with $processors processors"
  scripts/machine/boot -c "$processors" -t $machine_limit $machine "$work/root" "$results/$name" \
    "$(machine_commands "$processors")" || status=$?
  rm -rf "$work"
  [[ -s $results/$name/results ]] || die "the emulated machine ran no test (status $status)"
  add_up "$name" "$begin" "$(machine_results passed "$name")" "$(machine_results failed "$name")" \
    "$(machine_results skipped "$name")"
  ((status == 0)) || die "the tests in the emulated machine did not come to an end"
}

print_size() {
  local stripped
  stripped=$(mktemp)
  arm-linux-gnueabihf-strip -o "$stripped" build/armhf/bin/pelowatchd
  say "armhf: pelowatchd has $(stat -c %s "$stripped") bytes, stripped"
  rm "$stripped"
}

test_arm() {
  need_packages "${arm_packages[@]}"
  mkdir -p "$results"
  build_preset armhf
  print_size
  run_ctest armhf "$(nproc)" -L unit -LE kernel
  scripts/machine/fetch "$machine"
  test_in_machine armhf-machine "${ARM_PROCESSORS:-2}"
}
