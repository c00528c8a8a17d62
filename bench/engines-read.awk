# What bench/engines-medians.awk writes, read into tables.

$1 == "about" { about[$2] = $3 }
$1 == "opens" {
  rate[$2, $3, $4] = $5
  p50[$2, $3, $4] = $6
  p99[$2, $3, $4] = $7
}
$1 == "folder" { seconds[$2] = $3 }
