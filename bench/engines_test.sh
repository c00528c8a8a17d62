#!/usr/bin/env bash
# Whether bench/engines makes the right medians, verdicts and marks of known figures.
set -euo pipefail
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# expect WHAT FOUND WANTED
expect() {
  [[ $2 == "$3" ]] || {
    printf '%s:\n%s\ninstead of\n%s\n' "$1" "$2" "$3"
    exit 1
  }
}

# two_rounds CLAMAV_WARM_1 [CLAMAV_COLD_8]: what bench/engines writes, with 1000 of 4000 warm and
# 10,000 of 15,000 cold opens a second where nothing else is asked for.
two_rounds() {
  local round openers cold
  printf 'about %s\n' 'date 2026-01-02' 'kernel 6.1' 'processors 2' 'clamav 1.4' 'rounds 2' \
    'files 2000' 'folder_files 5000' 'signatures 10000'
  for round in 1 2; do
    for openers in 1 2 8; do
      cold=10000
      ((openers < 8)) || cold=${2-10000}
      printf 'opens %s\n' "clamav cold $openers $cold 900 1500" \
        "clamav warm $openers $1 700 1200.5" "pelowatchd cold $openers 15000 500 900" \
        "pelowatchd warm $openers 4000 70 130" "responder warm $openers 7000 20.25 60"
    done
    printf 'folder %s\n' "clamscan $((round * 6))" 'clamdscan 4' 'clamdscan_again 1.5' 'pelowatchd 3'
  done
}

table() { two_rounds "$@" | awk -f engines-medians.awk | awk -f engines-table.awk; }

# verdicts ARGUMENT...: of warm opens at 1 and 8 openers, and of cold ones at 1, 2 and 8.
verdicts() { table "$@" | sed -nE 's/^- \**([^*:]*)\**: (warm|cold), ([0-9]).*/\1 \2 \3/p'; }

expect 'median of three, compared as numbers' \
  "$(printf '%s\n' 'folder a 10' 'folder b 1' 'folder a 9' 'folder a 100' |
    awk -f engines-medians.awk)" $'folder a 10.000\nfolder b 1.000'
expect 'median of two, field by field' \
  "$(printf '%s\n' 'about rounds 2' 'opens x warm 1 30 1 9' 'opens x warm 1 10 2 5' \
    'opens x warm 8 1 1 1' | awk -f engines-medians.awk)" \
  $'about rounds 2\nopens x warm 1 20.000 1.500 7.000\nopens x warm 8 1.000 1.000 1.000'

expect 'at the limits' "$(verdicts 1000)" \
  $'met warm 1\nNOT met warm 8\nmet cold 1\nmet cold 2\nmet cold 8'
expect 'just below them' "$(verdicts 1001 10001)" \
  $'NOT met warm 1\nNOT met warm 8\nmet cold 1\nmet cold 2\nNOT met cold 8'
expect 'just below that of eight openers' "$(verdicts 401)" \
  $'met warm 1\nNOT met warm 8\nmet cold 1\nmet cold 2\nmet cold 8'
expect 'all of them' "$(verdicts 400)" \
  $'met warm 1\nmet warm 8\nmet cold 1\nmet cold 2\nmet cold 8'
expect 'a row of opens' "$(table 1000 | grep '^| warm | 8 .*,000 |$')" \
  '| warm | 8 | 1,000 | 4,000 | 4.0 | 7,000 |'
expect 'a row of latencies' "$(table 1000 | grep '^| warm | 8 .*60.0 |$')" \
  '| warm | 8 | 700, 1,200 | 70.0, 130 | 20.2, 60.0 |'
expect 'a row of the folder' "$(table 1000 | grep '^| clamscan')" \
  '| clamscan, which loads the signatures first | 9.00 | 556 | 3.00 |'

two_rounds 1002 | awk -f engines-medians.awk >"$work/medians"
gnuplot -e "medians='$work/medians'" engines.gnuplot >"$work/plot"
# drawn TEXT: how often it stands in the plot.
drawn() { grep -c ">[[:space:]]*${1//./\\.}<" "$work/plot" || true; }
expect 'a whole picture' "$(grep -cx '</svg>' "$work/plot")" 1
# At each of three numbers of openers: rates cold and warm, and the latencies of each.
expect 'figures of ClamAV' \
  "$(drawn 10.0k) $(drawn 1002) $(drawn 900) $(drawn 1500) $(drawn 700) $(drawn 1200)" '3 3 6 3 3 3'
expect 'figures of pelowatchd' \
  "$(drawn 15.0k) $(drawn 4000) $(drawn 500) $(drawn 70.0) $(drawn 130)" '3 3 3 3 3'
expect 'figures of the responder' "$(drawn 7000) $(drawn 20.2) $(drawn 60.0)" '3 3 3'
expect 'seconds of the folder' \
  "$(drawn '9.00 s') $(drawn '4.00 s') $(drawn '1.50 s') $(drawn '3.00 s')" '1 1 1 1'
