# Shared by the scripts of this folder; sourced, not run.
# shellcheck shell=bash

say() { printf '[%4ds] %s\n' "$SECONDS" "$*"; }

die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# need_program NAME PACKAGE
need_program() { command -v "$1" >/dev/null || die "$1 is missing: install the Debian package $2"; }

# need_packages NAME...: installs those that are missing.
need_packages() {
  local missing=() name
  for name in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed ||
      missing+=("$name")
  done
  ((${#missing[@]})) || return 0
  [[ $EUID -eq 0 ]] || die "needs root to install: ${missing[*]}"
  say "installing ${missing[*]}"
  { apt-get update -qq &&
    DEBIAN_FRONTEND=noninteractive apt-get install -qq -y --no-install-recommends \
      "${missing[@]}" >/dev/null; } ||
    die "cannot install: ${missing[*]} (made for Debian 12)"
}

# unpack_tool PACKAGE PROGRAM: puts one program of a package into build/tools, where it stays. For
# packages that are not to be installed, because they would start a service.
unpack_tool() {
  local package=$1 program=$2 work
  [[ ! -x build/tools/${program##*/} ]] || return 0
  say "unpacking ${program##*/} of $package"
  mkdir -p build/tools
  work=$(mktemp -d)
  if download_package "$package" "$work" && dpkg-deb -x "$work"/*.deb "$work/root"; then
    # In one step, so that what is there is whole.
    cp "$work/root/$program" build/tools/new && mv build/tools/new "build/tools/${program##*/}"
  else
    say "cannot get $package; tests that need ${program##*/} will be skipped"
  fi
  rm -rf "$work"
}

# download_package NAME FOLDER: the package lists may be missing or old.
download_package() (
  cd "$2" || exit
  apt-get -o APT::Sandbox::User=root -qq download "$1" 2>/dev/null ||
    { apt-get update -qq && apt-get -o APT::Sandbox::User=root -qq download "$1"; }
)

# Pauses without opening a file: even sleep would have to be opened, and answered by the daemon.
exec {idle}<> <(:)
pause() { read -r -t "$1" -u "$idle" || true; }

# watches MOUNT: whether the daemon holds opens there. Of the texts in its status area only the last
# one names what is marked already; those before it say what is included and excluded.
watches() { grep -qaxF -- "$1" < <(tail -c 10240 /dev/shm/fsfilter 2>/dev/null); }

# write_schedule FOLDER FILE: a commands file with one scan of the folder, due in this minute. A job
# whose minute was over when its file was read waits for another day, so none is written in the last
# seconds of one.
write_schedule() {
  local days=(SUN MON TUE WED THU FRI SAT) weekday time second
  read -r weekday time second < <(clock)
  while ((10#$second > 50)); do
    pause 0.5
    read -r weekday time second < <(clock)
  done
  printf '%s\n' scan "start $time" "day ${days[weekday]}" 'repeat NO' "folder $1" \
    'action REPORT' 'recursive yes' >"$2"
}

# clock: weekday, time of day and second.
clock() { printf '%(%w %H:%M %S)T\n' -1; }
