#!/bin/sh
# Draws a table that peer_bench wrote (--tsv FILE, or default.tsv and durable.tsv under
# --out DIR) as a bar chart (PNG), one group of bars per phase, one bar per engine,
# operations per second on a logarithmic axis (its range fitted to the figures).
#   bench/chart.sh TABLE.tsv CHART.png ["title"]
# Needs gnuplot (`tools/deps.sh peers` installs it).
set -eu
[ $# -ge 2 ] || { echo "usage: $0 TABLE.tsv CHART.png [title]" >&2; exit 2; }
command -v gnuplot >/dev/null || { echo "$0: gnuplot is not installed (tools/deps.sh peers)" >&2; exit 1; }
table=$1
png=$2
title=${3:-"operations per second (higher is better)"}
ncol=$(head -n 1 "$table" | awk -F '\t' '{ print NF }')
gnuplot <<GP
set terminal pngcairo size 1300,600 font "DejaVu Sans,10"
set rmargin 14
set bmargin 6
set output "$png"
set datafile separator "\t"
set title "$title"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.9 border -1
set boxwidth 0.9
set logscale y
set format y "%.0s%c"
set datafile missing "0"
set grid ytics
set key top left Left reverse
set xtics nomirror rotate by -15 scale 0
plot for [i=2:$ncol] "$table" using i:xticlabels(1) title columnheader(i)
GP
