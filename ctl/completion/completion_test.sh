#!/usr/bin/env bash
# completion_test.sh PELOWATCHCTL: whether the completion offers what the program's help names.
set -euo pipefail
readonly program=$1
# shellcheck source=ctl/completion/pelowatchctl
source "${BASH_SOURCE[0]%/*}/pelowatchctl"

# completed WORD...: what is offered for the last word.
completed() {
  COMP_WORDS=(pelowatchctl "$@")
  COMP_CWORD=$#
  _pelowatchctl
  printf '%s\n' "${COMPREPLY[@]}" | sort
}

# options [COMMAND]: the options that help names, each in all its forms.
options() { "$program" "$@" --help | grep -oE '^  --?[a-z][a-z,-]*' | tr -d ' ' | tr ',' '\n'; }

commands() {
  "$program" --help | awk '/^Subcommands:/ { list = 1; next } /^$/ { list = 0 } list { print $1 }'
}

# expect WHAT OFFERED NAMED
expect() {
  [[ $2 == "$3" ]] || {
    printf '%s: offered\n%s\nbut help names\n%s\n' "$1" "$2" "$3"
    exit 1
  }
}

[[ $(commands | wc -l) -gt 5 ]]
expect 'the first word' "$(completed '')" "$({ commands; options; } | sort)"
for command in $(commands); do
  expect "$command" "$(completed "$command" '')" "$(options "$command" | sort)"
done
expect 'a beginning' "$(completed st)" "$(printf '%s\n' status stop)"
expect 'a folder' "$(completed selftest --folder /us)" /usr
expect 'a file' "$(completed metrics --output /etc/passw | head -n 1)" /etc/passwd
expect 'a file after =' "$(completed metrics --output = /etc/passw | head -n 1)" /etc/passwd
expect 'any folder after =' "$(cd / && completed selftest --folder = | grep -x etc)" etc
expect 'a number after =' "$(completed stop --timeout = '')" ''
expect 'a number' "$(completed stop --timeout '')" ''
