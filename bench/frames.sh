#!/bin/sh
# Whole frames of every shipped scene: M rays a second, nearest hits and shadow rays together, and the ratio
# of two programs where a second is given. docs/benchmarks.md says more.
#   bench/frames.sh [PROGRAM [OTHER_PROGRAM]]
# Environment: SIZE (240x135), SAMPLE (4), THREADS (1), RUNS (3).
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
ours=${1:-$root/build/release/zephlore}
other=${2:-}
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# The rate of one seeded frame, mean of its passes.
rate() {
  "$1" render "$2" --resolution "${SIZE:-240x135}" --sample "${SAMPLE:-4}" --threads "${THREADS:-1}" \
    --seed 1 --output "$folder/frame.hdr" | tr '\r' '\n' |
    awk '$1 == "performance" { sum += $2; ++n }
         END { if (n == 0) exit 1; printf "%.3f\n", sum / n }'
}

# The best of RUNS: programs take turns, so that other work on the machine meets both.
printf '%-16s %10s %10s %8s\n' scene ours other ratio
for camera in "$root"/scenes/*/camera; do
  scene=${camera%/camera}
  run=0 best=0 otherBest=0
  while [ "$run" -lt "${RUNS:-3}" ]; do
    now=$(rate "$ours" "$scene")
    best=$(printf '%s\n%s\n' "$now" "$best" | sort -g | tail -n 1)
    if [ -n "$other" ]; then
      now=$(rate "$other" "$scene")
      otherBest=$(printf '%s\n%s\n' "$now" "$otherBest" | sort -g | tail -n 1)
    fi
    run=$((run + 1))
  done
  printf '%s %s %s\n' "$(basename "$scene")" "$best" "$otherBest" |
    awk '{ both = ($3 + 0) != 0
           printf "%-16s %10s %10s %8s\n", $1, $2, both ? $3 : "-", both ? sprintf("%.3f", $2 / $3) : "-" }'
done
