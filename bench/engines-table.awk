# The medians that bench/engines-medians.awk writes as Markdown: what was measured, and which expectations
# were met.

$1 == "about" { about[$2] = $3 }
$1 == "opens" {
  rate[$2, $3, $4] = $5
  p50[$2, $3, $4] = $6
  p99[$2, $3, $4] = $7
}
$1 == "folder" { seconds[$2] = $3 }

# 1234567 as 1,234,567
function grouped(number,    text, result) {
  text = sprintf("%.0f", number)
  while (length(text) > 3) {
    result = "," substr(text, length(text) - 2) result
    text = substr(text, 1, length(text) - 3)
  }
  return text result
}

function microseconds(number) { return number < 100 ? sprintf("%.1f", number) : grouped(number) }

function latency(key) {
  return key in p50 ? microseconds(p50[key]) ", " microseconds(p99[key]) : "–"
}

function ratio(state, openers) {
  return rate["pelowatchd", state, openers] / rate["clamav", state, openers]
}

function print_opens(    s, o, state, openers) {
  print "| files | openers | clamonacc, clamd | pelowatchd | ratio | least responder |"
  print "|---|---:|---:|---:|---:|---:|"
  for (s = 1; s <= 2; ++s) {
    for (o = 1; o <= 3; ++o) {
      state = states[s]
      openers = counts[o]
      printf "| %s | %d | %s | %s | %.1f | %s |\n", state, openers,
        grouped(rate["clamav", state, openers]), grouped(rate["pelowatchd", state, openers]),
        ratio(state, openers),
        (("responder", state, openers) in rate ? grouped(rate["responder", state, openers]) : "–")
    }
  }
}

function print_latencies(    s, o) {
  print "| files | openers | clamonacc, clamd | pelowatchd | least responder |"
  print "|---|---:|---:|---:|---:|"
  for (s = 1; s <= 2; ++s) {
    for (o = 1; o <= 3; ++o) {
      printf "| %s | %d | %s | %s | %s |\n", states[s], counts[o],
        latency("clamav" SUBSEP states[s] SUBSEP counts[o]),
        latency("pelowatchd" SUBSEP states[s] SUBSEP counts[o]),
        latency("responder" SUBSEP states[s] SUBSEP counts[o])
    }
  }
}

function print_folder_line(text, scanner) {
  printf "| %s | %.2f | %s | %.2f |\n", text, seconds[scanner],
    grouped(about["folder_files"] / seconds[scanner]), seconds[scanner] / seconds["pelowatchd"]
}

function print_folder() {
  print "| scanner | seconds | files a second | seconds, as a multiple of the scheduled scan's |"
  print "|---|---:|---:|---:|"
  print_folder_line("clamscan, which loads the signatures first", "clamscan")
  print_folder_line("clamdscan --multiscan, content clamd has not seen", "clamdscan")
  print_folder_line("clamdscan --multiscan, content clamd remembers", "clamdscan_again")
  print_folder_line("pelowatchd, scheduled scan, on one thread", "pelowatchd")
}

function expect(state, openers, least) {
  printf "- %s: %s, %d opener%s: %.1f times ClamAV's opens a second, expected at least %s\n",
    (ratio(state, openers) >= least + 0 ? "met" : "**NOT met**"), state, openers,
    (openers == 1 ? "" : "s"), ratio(state, openers), least
}

END {
  split("cold warm", states)
  split("1 2 8", counts)
  print "# pelowatchd beside ClamAV's own programs\n"
  printf "%s, Linux %s, %d processors, ClamAV %s; medians of %d round%s of `bench/engines`.\n",
    about["date"], about["kernel"], about["processors"], about["clamav"], about["rounds"],
    (about["rounds"] == 1 ? "" : "s")
  print "Machines differ: the ratios are the message.\n"
  printf "Both use libclamav with the same %s signatures, and their own defaults; pelowatchd has `Loglevel\n",
    grouped(about["signatures"])
  print "1` and a cache that holds all the files. These have 16 KB, every second one text, and lie on a"
  print "tmpfs, as do the folders that both unpack in."
  printf "Cold: %s files are opened once each, none of which the scanner has seen before; warm: the\n",
    grouped(about["files"])
  print "same again and again. The least responder scans nothing: it shows what the kernel alone takes.\n"
  print "![the same as a plot](engines.svg)\n"
  print "## Opens a second, all openers together\n"
  print_opens()
  print "\n## 50 % and 99 % of the opens take at most so many microseconds\n"
  print_latencies()
  printf "\n## A folder of %s files\n\n", grouped(about["folder_files"])
  print_folder()
  print "\n## Expectations\n"
  expect("warm", 1, "4")
  expect("warm", 8, "10")
  for (o = 1; o <= 3; ++o) {
    expect("cold", counts[o], "1.5")
  }
  printf "\nFor scale: at one opener the least responder has %.1f times ClamAV's warm opens a second.\n",
    rate["responder", "warm", 1] / rate["clamav", "warm", 1]
}
