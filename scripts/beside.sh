# Running stages beside one another, each in a process group of its own, so that all of it ends with
# the script, whatever ends that; sourced after presets.sh.
# shellcheck shell=bash
# shellcheck source=scripts/presets.sh disable=SC2154

declare -A beside=() # process groups, by the name of what they run

# run_beside NAME NICENESS COMMAND...: in the background, at a lower priority.
run_beside() {
  local name=$1 niceness=$2
  shift 2
  # Without job control, what runs in the background would ignore interrupts.
  set -m
  (
    set +m
    exec {lock}<&-
    ((niceness == 0)) || renice -n "$niceness" "$BASHPID" >/dev/null
    "$@"
  ) </dev/null &
  set +m
  beside[$name]=$!
}

# run_now NAME NICENESS COMMAND...: waits for it. A signal would not end what runs in the foreground.
run_now() {
  local name=$1 status=0
  run_beside "$@"
  wait "${beside[$name]}" || status=$?
  unset "beside[$name]"
  return "$status"
}

# finish NAME...: waits for what runs beside.
finish() {
  local name
  for name in "$@"; do
    wait "${beside[$name]}" || add_failure "$name failed"
    unset "beside[$name]"
  done
}

end_beside() {
  local group
  for group in "${beside[@]}"; do
    kill -- "-$group" 2>/dev/null || true
  done
  wait
}
trap end_beside EXIT
