#!/usr/bin/env bash
# Chart of a qv-av-load run: requests per second per service (bars) above p50 and p99 latency per
# service (log scale), from the file that `qv-av-load --json FILE` wrote.
#
#   bench/plot.sh FILE.json [OUT.png]      (OUT defaults to FILE.png beside FILE.json)
#
# Needs gnuplot (Debian package gnuplot-nox) and python3.
set -euo pipefail

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "Usage: $0 FILE.json [OUT.png]" >&2
  exit 1
fi
json=$1
out=${2:-${json%.json}.png}
for tool in gnuplot python3; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "plot.sh: $tool is missing (scripts/install-deps.sh installs it)" >&2
    exit 1
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One row per service (name, requests per second, p50, p99) and the chart's settings; the texts
# are written as quoted gnuplot strings so that no name or path can break the script.
python3 - "$json" "$out" "$work" <<'EOF'
import json
import sys

source, output, work = sys.argv[1:4]
with open(source) as f:
    run = json.load(f)
services = run.get("services") or []
if not services:
    sys.exit("plot.sh: %s holds no services" % source)


def quoted(text):
    return json.dumps(str(text))


with open(work + "/data", "w") as f:
    for s in services:
        f.write("%s %s %s %s\n" % (quoted(s["name"]), s["per_second"], s["p50_ms"], s["p99_ms"]))
title = "qv-av-load %s: %s requesters x %s s per service, nats-server %s, %s cores\\n" \
    "daemon peak resident %s kB, %s threads" % (
        run.get("date", "?"), run.get("requesters", "?"), run.get("seconds", "?"),
        run.get("server_version", "?"), run.get("cores", "?"), run.get("peak_rss_kb", "?"),
        run.get("threads", "?"))
with open(work + "/settings.gp", "w") as f:
    f.write("set output %s\n" % quoted(output))
    f.write("data = %s\n" % quoted(work + "/data"))
    f.write("chart_title = \"%s\"\n" % title.replace('"', "'"))
EOF

gnuplot <<EOF
set terminal pngcairo size 1200,900 font "sans,10"
load "$work/settings.gp"
set multiplot layout 2,1 title chart_title
set style data histograms
set style fill solid 0.85 border -1
set boxwidth 0.8
set xtics rotate by -30 nomirror
set grid ytics
set key top left reverse Left

set title "Throughput"
set ylabel "requests per second"
set yrange [0:*]
set style histogram rowstacked
plot data using 2:xtic(1) notitle linecolor rgb "#4477aa", \
     data using 0:2:(sprintf("%.0f", \$2)) with labels offset 0,0.8 notitle

set title "Latency"
set ylabel "ms (log scale)"
set logscale y
set yrange [*:*]
set style histogram clustered gap 1
plot data using 3:xtic(1) title "p50" linecolor rgb "#66ccee", \
     data using 4 title "p99" linecolor rgb "#ee6677"
unset multiplot
EOF
echo "$out"
