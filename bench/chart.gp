# Draws the chart: one bar a job, in groups. usage: gnuplot -c chart.gp DATA PICTURE
# DATA is what Suite::print_chart writes.
set datafile separator tab
stats ARG1 using 1 nooutput
rows = int(STATS_max)
stats ARG1 using 4 nooutput
longest = STATS_max > 1.05 ? STATS_max : 1.05

# There is no background, and every colour can be read on white and on near-black.
text = "#7a7a7a"
less = 0x2f9e63
more = 0xd9663a

row_height = 20
height = (rows + 4) * row_height
set terminal svg name "benchmarks" size 800, height font "sans-serif,13"
set output ARG2

set lmargin at screen 0.44
set rmargin at screen 0.93
set tmargin at screen 1
set bmargin at screen 3.0 * row_height / height
set xrange [0:longest]
set yrange [rows + 1:0]
unset border
unset ytics
unset key
set xtics 0.25 scale 0 format "%.2f" textcolor rgb text
set xlabel "our time or memory over that of the best peer: shorter is better" textcolor rgb text
set arrow from 1, graph 0 to 1, graph 1 nohead front linecolor rgb text dashtype 2
set style fill solid noborder
bold(title) = title eq "" ? "" : sprintf("{/:Bold %s}", title)

plot ARG1 using (0):1:(0):4:($1 - 0.36):($1 + 0.36):($4 > 1.005 ? more : less) \
       with boxxyerror linecolor rgb variable, \
     "" using (longest):1:(sprintf("%.2f", $4)) \
       with labels left offset 1, 0 textcolor rgb text noenhanced, \
     "" using (0):1:(strcol(3)) with labels right offset -0.7, 0 textcolor rgb text noenhanced, \
     "" using (0):1:(bold(strcol(2))) with labels right offset -0.7, 0 textcolor rgb text
