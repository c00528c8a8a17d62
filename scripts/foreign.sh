# Debian's packages for armhf, downloaded without a trace: apt works on a state of its own in $work,
# an empty folder of whoever sources this, with Debian's keys. Sourced after common.sh.
# shellcheck shell=bash disable=SC2154

readonly keyring=/usr/share/keyrings/debian-archive-keyring.gpg

# suite_source: a line for apt with the place where this machine's own suite comes from, as it was
# released: nothing that runs here comes from there.
suite_source() {
  local release address
  # shellcheck source=/dev/null
  release=$(source /etc/os-release && echo "${VERSION_CODENAME:-}")
  # shellcheck disable=SC2016  # apt's own variable
  address=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' \
    "Codename: $release" 'Component: main' | head -n 1)
  [[ $address ]] || die "apt knows no source of $release; run apt-get update"
  echo "deb [arch=armhf signed-by=$keyring] $address $release main"
}

# foreign_apt COMMAND ARGUMENT...: apt-get or apt-cache, for armhf and without this machine's state.
foreign_apt() {
  local command=$1
  shift
  "$command" -q -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User= \
    -o Dir::Etc::sourcelist="$work/sources" -o Dir::Etc::sourceparts="$work/none" \
    -o Dir::State="$work/state" -o Dir::State::status="$work/status" -o Dir::Cache="$work/cache" \
    -o Acquire::Languages=none "$@"
}

# quietly COMMAND...: its output only if it fails.
quietly() {
  "$@" >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    return 1
  }
}

# begin_foreign_apt: makes that state, in which nothing is installed, and reads the package lists.
begin_foreign_apt() {
  mkdir -p "$work"/{state/lists/partial,cache/archives/partial,none}
  : >"$work/status"
  suite_source >"$work/sources"
  quietly foreign_apt apt-get update || die "the package lists for armhf cannot be read"
}

# suppose_installed PACKAGE...: from now on apt takes them for installed, in any version.
suppose_installed() {
  local package
  for package in "$@"; do
    printf '%s\n' "Package: $package" 'Status: install ok installed' 'Architecture: armhf' \
      'Version: 99' 'Maintainer: none' 'Description: at hand' ''
  done >>"$work/status"
}
