# Debian's packages for armhf, downloaded without a trace: apt works on a state of its own in $work,
# an empty folder of whoever sources this, with Debian's keys. What was made of them is put in place
# as a whole, with a copy of the scripts that made it. Sourced after common.sh.
# shellcheck shell=bash disable=SC2154

readonly keyring=/usr/share/keyrings/debian-archive-keyring.gpg

# The scripts that decide what is made.
recipe() { cat "$0" "${BASH_SOURCE[0]}"; }

# made_by_this FOLDER: whether these scripts, as they are now, have made it.
made_by_this() { recipe | cmp -s - "$1/made-by"; }

# make_work FOLDER: sets $work, on the file system of the folder that is to be made. For apt the path
# must be absolute.
make_work() {
  [[ ! -e $1 || -e $1/made-by ]] || die "$1 is not of this script's making; remove it"
  mkdir -p "$(dirname "$1")"
  work=$(mktemp -d "$(realpath "$1")-XXXXXX")
  trap 'rm -rf "$work"' EXIT
}

# put_in_place FOLDER: what is in $work/new, in one step, so that what is there is whole.
put_in_place() {
  recipe >"$work/new/made-by"
  chmod 755 "$work/new"
  rm -rf "$1"
  mv -T "$work/new" "$1"
}

# suite_address RELEASE: where apt gets it from, if it has read that.
suite_address() {
  local addresses
  # shellcheck disable=SC2016  # apt's own variable
  addresses=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' \
    "Codename: $1" 'Component: main')
  echo "${addresses%%$'\n'*}"
}

# suite_source: a line for apt with the place where this machine's own suite comes from, as it was
# released: nothing that runs here comes from there.
suite_source() {
  local release address
  # shellcheck source=/dev/null
  release=$(source /etc/os-release && echo "${VERSION_CODENAME:-}")
  address=$(suite_address "$release")
  if [[ ! $address ]]; then
    quietly apt-get update || true
    address=$(suite_address "$release")
  fi
  [[ $address ]] || die "apt knows no source of $release"
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
  need_program arm-linux-gnueabihf-readelf binutils-arm-linux-gnueabihf
  [[ -e $keyring ]] || die "the Debian package debian-archive-keyring is missing"
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
