# Draws what bench-report --plots wrote to the folder `data` as SVG files in the folder `plots`.

set terminal svg size 860,480 background "white" font "sans-serif,14"
set datafile missing "?"
set key outside right center
set grid y
set style data linespoints
set pointsize 0.7

peer(i) = word("endpoint bare_socket ZeroMQ nng sd-bus GDBus endpoint_on_the_bus", i)
peer_color(i) = word("#c00000 #b0b0b0 #208020 #60a060 #2050a0 #60a0e0 #e08000", i)

set key noenhanced
set ylabel "microseconds, median"
set logscale y
array titles[2] = ["A round trip between two processes on one processor", \
    "The same with a processor for the client and one for the server"]
do for [n = 1:2] {
    file = word("request request-on-two", n)
    if (system("test -s '" . data . "/" . file . ".dat' && echo yes") ne "yes") { continue }
    set output plots . "/" . file . ".svg"
    set title titles[n]
    plot for [i = 1:7] data . "/" . file . ".dat" every ::1 using 0:i + 1:xtic(1) \
        title system("echo " . peer(i) . " | tr _ ' '") \
        linewidth (i == 1 ? 4 : 2) linecolor rgb peer_color(i)
}

set output plots . "/deliveries.svg"
set title "Notifications of 64 bytes, each receiver a process"
set ylabel "deliveries a second"
plot for [i in "1 3 5 6 7"] data . "/deliveries.dat" every ::1 \
    using 0:(1e6 / column(int(i) + 1)):xtic(1) \
    title system("echo " . peer(int(i)) . " | tr _ ' '") \
    linewidth (i eq "1" ? 4 : 2) linecolor rgb peer_color(int(i))
unset logscale y
set key enhanced

name(i) = word("channel endpoint gdbus gdbus-copy sd-bus sdbus-c++ libdbus unix", i) \
    . (i == 8 ? " socket" : "")
color(i) = word("#c00000 #e08000 #2050a0 #60a0e0 #208020 #804090 #606060 #b0b0b0", i)

set output plots . "/send-time.svg"
set title "A round trip of Send"
set ylabel "microseconds, median"
set logscale y
plot for [i = 1:8] data . "/send.dat" every ::1 using 0:i + 1:xtic(1) title name(i) \
    linewidth 2 linecolor rgb color(i)

set output plots . "/bridge.svg"
set title "A round trip through the MQTT bridge"
array ways[6] = ["endpoint", "endpoint, bus only", "Send", "Send, bus only", "Send, no bridge", \
    "MQTT alone"]
plot for [i = 1:6] data . "/bridge.dat" every ::1 using 0:i + 1:xtic(1) title ways[i] \
    linewidth 2 linecolor rgb color(i)

set output plots . "/send-ratio.svg"
set title "A round trip of Send, as a share of the bare GDBus service's"
set ylabel "share"
unset logscale y
set yrange [0:2]
plot for [i = 1:8] data . "/send.dat" every ::1 using 0:(column(i + 1) / column(4)):xtic(1) \
    title name(i) linewidth 2 linecolor rgb color(i)

set output plots . "/notifications.svg"
set title "Notifications of 64 bytes, one after the other"
set xlabel "partners"
set ylabel "microseconds a message, median"
set yrange [0:*]
plot for [i in "1 2 3 5 6 7"] data . "/notifications.dat" every ::1 \
    using 0:(column(int(i) + 1)):xtic(1) title name(int(i)) \
    linewidth 2 linecolor rgb color(int(i))

set output plots . "/growth.svg"
set title "What every partner adds: each sees every pulse"
set ylabel "milliseconds"
plot for [kind in "channel endpoint"] data . "/growth-" . kind . ".dat" every ::1 using 1:2 \
        title kind . ": the next handshake" linewidth 2 linecolor rgb color(kind eq "channel" ? 1 : 2), \
    for [kind in "channel endpoint"] data . "/growth-" . kind . ".dat" every ::1 using 1:3 \
        title kind . ": a pulse, processor time of all" linewidth 2 dashtype 2 \
        linecolor rgb color(kind eq "channel" ? 1 : 2)
