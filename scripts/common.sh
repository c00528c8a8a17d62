# Shared by the scripts of this folder; sourced, not run.
# shellcheck shell=bash

say() { printf '[%4ds] %s\n' "$SECONDS" "$*"; }

die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

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
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -qq -y --no-install-recommends \
    "${missing[@]}" >/dev/null
}
