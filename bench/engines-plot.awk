# The medians of bench/engines as an SVG. It brings its own background, and follows the reader's
# choice of a dark one where the viewer tells it.

function log10(number) { return log(number) / log(10) }

# Three digits that count.
function short(number) {
  if (number >= 99950) return sprintf("%.0fk", number / 1000)
  if (number >= 9995) return sprintf("%.1fk", number / 1000)
  if (number >= 99.95) return sprintf("%.0f", number)
  return sprintf(number >= 9.995 ? "%.1f" : "%.2f", number)
}

function text(x, y, class, words) {
  printf "<text x=\"%.1f\" y=\"%.1f\" class=\"%s\">%s</text>\n", x, y, class, words
}

function line(x1, y1, x2, y2, class) {
  printf "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" class=\"%s\"/>\n",
    x1, y1, x2, y2, class
}

# A shape for each system, so that colour is not needed to tell them apart.
function marker(x, y, who) {
  if (who == "clamav") {
    printf "<rect x=\"%.1f\" y=\"%.1f\" width=\"9\" height=\"9\" class=\"%s\"/>\n", x - 4.5, y - 4.5,
      who
  } else if (who == "pelowatchd") {
    printf "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"5\" class=\"%s\"/>\n", x, y, who
  } else {
    printf "<path d=\"M%.1f %.1fl6 6-6 6-6-6z\" class=\"%s\"/>\n", x, y - 6, who
  }
}

# panel(left, top, title, unit, from, to): a frame from 10^from to 10^to with its decades, which the
# next calls of up() and across() belong to.
function panel(left, top, title, unit, from, to,    exponent, o) {
  panel_left = left
  panel_top = top
  low = from
  high = to
  text(left, top - 12, "heading", title)
  line(left, top + panel_height, left + panel_width, top + panel_height, "grid")
  for (exponent = floor_of(from) + 1; exponent <= to; ++exponent) {
    line(left, up(10 ^ exponent), left + panel_width, up(10 ^ exponent), "grid")
    text(left - 8, up(10 ^ exponent) + 4, "tick end", grouped(10 ^ exponent))
  }
  for (o = 1; o <= 3; ++o) {
    text(across(o), top + panel_height + 18, "tick middle", counts[o])
  }
  text(left + panel_width / 2, top + panel_height + 36, "tick middle", "openers")
  printf "<text transform=\"translate(%.1f %.1f) rotate(-90)\" class=\"tick middle\">%s</text>\n",
    left - 58, top + panel_height / 2, unit
}

# 1000 as 1,000
function grouped(number) {
  return number < 1000 ? sprintf("%d", number) : grouped(number / 1000) sprintf(",%03d", number % 1000)
}

function up(number) {
  return panel_top + panel_height * (1 - (log10(number) - low) / (high - low))
}

function across(o) { return panel_left + panel_width * (o - 0.5) / 3 }

# draw_rates STATE: a marker and its value for each system and number of openers.
function draw_rates(state,    s, o, x, y, key) {
  for (o = 1; o <= 3; ++o) {
    for (s = 1; s <= system_count; ++s) {
      key = systems[s] SUBSEP state SUBSEP counts[o]
      if (key in rate) {
        x = across(o) + shift(s)
        y = up(rate[key])
        marker(x, y, systems[s])
        text(x, y - 10, "value middle", short(rate[key]))
      }
    }
    key = state SUBSEP counts[o]
    text(across(o), panel_top + panel_height - 8, "ratio middle",
      sprintf("× %.1f", rate["pelowatchd", key] / rate["clamav", key]))
  }
}

# The systems of one number of openers stand beside one another.
function shift(s) { return (s - 2) * 32 }

# draw_latencies STATE: from the median, a marker, to the 99th percentile, a bar.
function draw_latencies(state,    s, o, x, key) {
  for (o = 1; o <= 3; ++o) {
    for (s = 1; s <= system_count; ++s) {
      key = systems[s] SUBSEP state SUBSEP counts[o]
      if (key in p50) {
        x = across(o) + shift(s)
        line(x, up(p50[key]), x, up(p99[key]), "span " systems[s])
        line(x - 6, up(p99[key]), x + 6, up(p99[key]), "span " systems[s])
        marker(x, up(p50[key]), systems[s])
        text(x, up(p50[key]) + 19, "value middle", short(p50[key]))
        text(x, up(p99[key]) - 6, "value middle", short(p99[key]))
      }
    }
  }
}

function draw_folder(top,    b, y, width, longest, step, tick) {
  text(left, top - 12, "heading", "A folder of " grouped(about["folder_files"]) " files of 16 KB")
  for (b = 1; b <= bar_count; ++b) {
    longest = seconds[bars[b]] > longest ? seconds[bars[b]] : longest
  }
  step = tick_step(longest)
  for (tick = 0; tick <= longest + step && tick <= 10 * step; tick += step) {
    width = folder_width * tick / (longest + step)
    line(folder_left + width, top, folder_left + width, top + bar_count * 26, "grid")
    text(folder_left + width, top + bar_count * 26 + 18, "tick middle", tick)
  }
  text(folder_left + folder_width / 2, top + bar_count * 26 + 36, "tick middle", "seconds")
  for (b = 1; b <= bar_count; ++b) {
    y = top + (b - 1) * 26 + 4
    width = folder_width * seconds[bars[b]] / (longest + step)
    printf "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"18\" class=\"%s\"/>\n", folder_left, y,
      width, bars[b] == "pelowatchd" ? "pelowatchd" : "clamav"
    text(folder_left - 8, y + 13, "tick end", bar_text[bars[b]])
    text(folder_left + width + 6, y + 13, "value", sprintf("%.2f s", seconds[bars[b]]))
  }
}

# 1, 2 or 5 times a power of ten, so that there are three to eight of them.
function tick_step(longest,    step) {
  step = 10 ^ int(log10(longest) - (longest < 1 ? 1 : 0))
  if (longest / step < 3) step = longest / step < 1.5 ? step / 5 : step / 2
  return longest / step > 8 ? step * 2 : step
}

function legend(x, y) {
  marker(x, y, "clamav")
  text(x + 12, y + 4, "tick", "clamonacc with clamd")
  marker(x + 170, y, "pelowatchd")
  text(x + 182, y + 4, "tick", "pelowatchd")
  marker(x + 275, y, "responder")
  text(x + 287, y + 4, "tick", "least responder, which scans nothing: what the kernel takes")
}

function floor_of(number) { return int(number + 100) - 100 }

function widen(number) {
  if (number < smallest) smallest = number
  if (number > largest) largest = number
}

# Powers of ten around all figures of a kind, with room for what is written beside them.
function set_limits(    key) {
  smallest = 1e9
  largest = 0
  for (key in rate) widen(rate[key])
  rate_low = log10(smallest) - 0.5
  rate_high = log10(largest) + 0.3
  smallest = 1e9
  largest = 0
  for (key in p50) {
    widen(p50[key])
    widen(p99[key])
  }
  latency_low = log10(smallest) - 0.5
  latency_high = log10(largest) + 0.4
}

function print_colours(page, grid, clamav, pelowatchd, responder) {
  print ".page{fill:" page "}.grid{stroke:" grid "}"
  print ".clamav{fill:" clamav ";stroke:" clamav "}"
  print ".pelowatchd{fill:" pelowatchd ";stroke:" pelowatchd "}"
  print ".responder{fill:" responder ";stroke:" responder "}"
}

function begin() {
  printf "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %d %d\" width=\"%d\" height=\"%d\"",
    page_width, page_height, page_width, page_height
  print " role=\"img\" aria-label=\"Opens a second, latency and folder scans of pelowatchd and ClamAV\">"
  print "<style>"
  print "text{font-family:system-ui,sans-serif;fill:#1f2328}"
  print ".title{font-size:18px;font-weight:600}.heading{font-size:14px;font-weight:600}"
  print ".tick{font-size:12px}.value{font-size:11px}.ratio{font-size:13px;font-weight:600}"
  print ".middle{text-anchor:middle}.end{text-anchor:end}.span{stroke-width:2}"
  print_colours("#ffffff", "#d0d7de", "#c2410c", "#0369a1", "#6b7280")
  print "@media (prefers-color-scheme:dark){"
  print "text{fill:#e6edf3}"
  print_colours("#161b22", "#3d444d", "#fb923c", "#38bdf8", "#9ca3af")
  print "}"
  print "</style>"
  printf "<rect width=\"%d\" height=\"%d\" rx=\"8\" class=\"page\"/>\n", page_width, page_height
}

END {
  system_count = split("clamav responder pelowatchd", systems)
  split("1 2 8", counts)
  bar_count = split("clamscan clamdscan clamdscan_again pelowatchd", bars)
  bar_text["clamscan"] = "clamscan"
  bar_text["clamdscan"] = "clamdscan --multiscan"
  bar_text["clamdscan_again"] = "the same again, remembered"
  bar_text["pelowatchd"] = "pelowatchd, scheduled scan"
  page_width = 900
  page_height = 930
  panel_width = 340
  panel_height = 230
  left = 90
  right = 530
  folder_left = 240
  folder_width = 600

  begin()
  text(24, 34, "title", "pelowatchd beside ClamAV's own programs, same signatures")
  text(24, 56, "tick", sprintf("%s, Linux %s, %d processors, ClamAV %s; medians of %d round%s; %s",
    about["date"], about["kernel"], about["processors"], about["clamav"], about["rounds"],
    about["rounds"] == 1 ? "" : "s", "clean files of 16 KB on a tmpfs"))
  legend(30, 80)
  set_limits()
  panel(left, 130, "Cold: files not seen before", "opens a second", rate_low, rate_high)
  draw_rates("cold")
  panel(right, 130, "Warm: files seen before", "opens a second", rate_low, rate_high)
  draw_rates("warm")
  text(24, 418, "tick", "× n: opens a second of pelowatchd as a multiple of ClamAV's. " \
    "The axes of opens and of latencies are logarithmic.")
  panel(left, 464, "Cold: 50 %, with a bar up to 99 %", "microseconds an open",
    latency_low, latency_high)
  draw_latencies("cold")
  panel(right, 464, "Warm: 50 %, with a bar up to 99 %", "microseconds an open",
    latency_low, latency_high)
  draw_latencies("warm")
  draw_folder(776)
  print "</svg>"
}
