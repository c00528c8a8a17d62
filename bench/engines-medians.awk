# Of the lines of all rounds that bench/engines writes, one line each with the medians.
#
#   about WORD VALUE                               as it is
#   opens SYSTEM STATE OPENERS PER_SECOND P50 P99  latencies in microseconds
#   folder SCANNER SECONDS

function median(key, field,    count, i, j, value, sorted) {
  count = rounds[key]
  for (i = 1; i <= count; ++i) {
    value = figure[key, field, i]
    for (j = i - 1; j >= 1 && sorted[j] > value; --j) {
      sorted[j + 1] = sorted[j]
    }
    sorted[j + 1] = value
  }
  return (sorted[int((count + 1) / 2)] + sorted[int(count / 2) + 1]) / 2
}

$1 == "about" {
  print
  next
}

{
  words = $1 == "opens" ? 4 : 2
  key = $1
  for (i = 2; i <= words; ++i) {
    key = key " " $i
  }
  if (!(key in rounds)) {
    keys[++key_count] = key
  }
  ++rounds[key]
  fields[key] = NF - words
  for (i = 1; i <= fields[key]; ++i) {
    figure[key, i, rounds[key]] = $(words + i) + 0
  }
}

END {
  for (k = 1; k <= key_count; ++k) {
    line = keys[k]
    for (i = 1; i <= fields[keys[k]]; ++i) {
      line = line " " sprintf("%.3f", median(keys[k], i))
    }
    print line
  }
}
