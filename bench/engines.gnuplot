# The medians of bench/engines as an SVG: gnuplot -e "medians='FILE'" bench/engines.gnuplot >SVG
about(word) = system("awk '$1 == \"about\" && $2 == \"".word."\" { print $3 }' ".medians)
# The figure of a column for one system, of files in one state, by the number of openers; and the place
# of that number, with the systems beside one another.
figure(who, state, n) = strcol(2) eq who && strcol(3) eq state ? column(n) : NaN
place(shift) = (column(4) == 1 ? 1 : column(4) == 2 ? 2 : 3) + shift
opens = "< grep '^opens ' ".medians
folder = "< grep '^folder ' ".medians
# Three digits that count.
short(x) = x >= 9995 ? sprintf('%.1fk', x / 1000) : sprintf(x >= 99.95 ? '%.0f' : '%.1f', x)

set terminal svg size 900,960 font 'sans-serif,12' background '#ffffff'
set multiplot
set label 1 "{/:Bold=16 pelowatchd beside ClamAV's own programs, same signatures}" at screen 0.03, 0.975
set label 2 sprintf('%s, Linux %s, %s processors, ClamAV %s; medians of %s rounds; clean files of 16 KB on a tmpfs', \
  about('date'), about('kernel'), about('processors'), about('clamav'), about('rounds')) \
  at screen 0.03, 0.95
set grid ytics linecolor '#d0d7de'
set border 1
set tics nomirror
set xtics ('1' 1, '2' 2, '8' 3) scale 0
set xrange [0.5:3.5]
set xlabel 'openers'
set logscale y
set format y "%'.0f"
set style line 1 linecolor '#c2410c' pointtype 5 pointsize 0.8 linewidth 2
set style line 2 linecolor '#6b7280' pointtype 13 pointsize 1 linewidth 2
set style line 3 linecolor '#0369a1' pointtype 7 pointsize 0.8 linewidth 2
array system[3] = ['clamav', 'responder', 'pelowatchd']
array title[3] = ['clamonacc with clamd', 'least responder, which scans nothing', 'pelowatchd']
array state[2] = ['cold', 'warm']
array words[2] = ['Cold: files not seen before', 'Warm: files seen before']

set yrange [500:500000]
do for [s = 1:2] {
  set origin 0.5 * (s - 1), 0.62
  set size 0.5, 0.32
  set title words[s]
  set ylabel 'opens a second'
  plot for [i = 1:3] opens using (place(0.28 * (i - 2))):(figure(system[i], state[s], 5)) \
         linestyle i title s == 1 ? title[i] : '', \
       for [i = 1:3] opens using (place(0.28 * (i - 2))):(figure(system[i], state[s], 5)): \
         (short(column(5))) with labels offset 0, 0.8 notitle
  unset label
}
set yrange [10:50000]
do for [s = 1:2] {
  set origin 0.5 * (s - 1), 0.28
  set title words[s].': 50 %, with a bar up to 99 %'
  set ylabel 'microseconds an open'
  plot for [i = 1:3] opens using (place(0.28 * (i - 2))):(figure(system[i], state[s], 6)): \
         (figure(system[i], state[s], 6)):7 with yerrorbars linestyle i notitle, \
       for [i = 1:3] for [n = 6:7] opens using (place(0.28 * (i - 2))): \
         (figure(system[i], state[s], n)):(short(column(n))) \
         with labels offset 0, (n == 6 ? -0.8 : 0.8) notitle
}

set origin 0, 0
set size 1, 0.27
set title sprintf('A folder of %s files of 16 KB', about('folder_files'))
unset logscale
set format x '%g'
set xtics auto scale 0.5
set xrange [0:*]
set xlabel 'seconds'
unset ylabel
set grid noytics xtics
set yrange [3.5:-0.5]
set ytics ('clamscan' 0, 'clamdscan --multiscan' 1, 'the same again, remembered' 2, \
  'pelowatchd, scheduled scan' 3) scale 0
set style fill solid
plot folder using (column(3) / 2):0:(column(3) / 2):(0.35): \
       (strcol(2) eq 'pelowatchd' ? 0x0369a1 : 0xc2410c) with boxxyerror linecolor rgb variable notitle, \
     folder using 3:0:(sprintf(' %.2f s', column(3))) with labels left notitle
