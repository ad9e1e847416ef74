# Renders the tour's per-frame exposure values (written by sim_session) into one PNG.
#   gnuplot -e "folder='build/tour'" tools/tour.gnuplot
if (!exists("folder")) folder = "build/tour"
set terminal pngcairo size 1200,900 noenhanced font ",10"
set output folder."/exposure.png"
set datafile separator ","
set key top left
set grid
set multiplot layout 2,1 title "WQ400 device transform: exposure loops over the simulated cameras"

set title "Depth: requested exposure and the exposure each frame reports (extended exposure control)"
set xlabel "frame (depth stream)"
set ylabel "exposure (100 ns)"
plot folder."/depth_exposure.csv" using 1:2 with steps lw 2 title "requested", \
     "" using 1:3 with lines lw 1 title "frame"

set title "Fisheye: auto exposure from a dark start"
set xlabel "frame (fisheye stream)"
set ylabel "exposure (100 ns)"
set y2label "gain, mean level"
set y2tics
set ytics nomirror
plot folder."/fisheye_exposure.csv" using 1:2 with lines lw 2 title "exposure" axes x1y1, \
     "" using 1:3 with lines lw 1 title "gain" axes x1y2, \
     "" using 1:4 with lines lw 2 title "mean level" axes x1y2
unset multiplot
