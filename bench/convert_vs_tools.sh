#!/usr/bin/env bash
# Side-by-side conversion of a 1 GiB 16-bit stereo wave file to 32-bit float wave with
# `ostra convert`, sox and ffmpeg, in one run on one machine. Reports wall time and peak
# resident memory (from /usr/bin/time -v) of each, best of N runs. Not run in CI.
#
#   bash bench/convert_vs_tools.sh [ostra binary] [runs]
#
# Needs sox, ffmpeg and /usr/bin/time (scripts/setup-deps.sh installs them). Set
# WORK=<folder> to choose where the 1 GiB input and the 2 GiB outputs go (default: a
# fresh folder under the system's temporary folder); the files are removed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
tool=${1:-build/release/bin/ostra}
runs=${2:-3}
[[ -x $tool ]] || { echo "build the tool first: cmake --build --preset release --target ostra" >&2; exit 1; }
for t in sox ffmpeg /usr/bin/time; do
  command -v "$t" >/dev/null || { echo "missing $t (run scripts/setup-deps.sh)" >&2; exit 1; }
done

work=${WORK:-$(mktemp -d)}
mkdir -p "$work"
trap 'rm -f "$work"/in.wav "$work"/out_*.wav "$work"/time.txt' EXIT

# 1 GiB of sample data: 268435456 frames of 4 bytes, 48 kHz, a sine under noise so that
# no converter meets only zeros.
frames=268435456
if [[ ! -f $work/in.wav ]]; then
  echo "making a 1 GiB 16-bit stereo input..." >&2
  sox -n -r 48000 -c 2 -b 16 -e signed "$work/in.wav" synth "${frames}s" sine 440 whitenoise vol 0.5
fi
in_bytes=$(stat -c %s "$work/in.wav")

# Runs one command $runs times; prints "best_seconds peak_kib".
measure() {
  local best="" rss=0
  for ((i = 0; i < runs; i++)); do
    sync
    /usr/bin/time -v -o "$work/time.txt" "$@" >/dev/null 2>&1
    local wall kib
    wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {print $2}' "$work/time.txt" |
      awk -F: '{ if (NF == 3) print $1*3600 + $2*60 + $3; else print $1*60 + $2 }')
    kib=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$work/time.txt")
    if [[ -z $best ]] || awk -v a="$wall" -v b="$best" 'BEGIN { exit !(a < b) }'; then best=$wall; fi
    ((kib > rss)) && rss=$kib
    rm -f "$work"/out_*.wav
  done
  echo "$best $rss"
}

read -r o_t o_m < <(measure "$tool" convert "$work/in.wav" "$work/out_ostra.wav" --type float32)
read -r s_t s_m < <(measure sox "$work/in.wav" -e floating-point -b 32 "$work/out_sox.wav")
read -r f_t f_m < <(measure ffmpeg -nostdin -v error -y -i "$work/in.wav" -c:a pcm_f32le "$work/out_ffmpeg.wav")

row() {
  awk -v n="$1" -v t="$2" -v m="$3" -v b="$in_bytes" \
    'BEGIN { printf "| %s | %.2f | %.0f | %.1f |\n", n, t, b / t / 1048576, m / 1024 }'
}
echo "Input: $in_bytes bytes (16-bit stereo, 48 kHz), output 32-bit float; best of $runs runs."
echo
echo "| program | wall time (s) | input MiB/s | peak resident memory (MiB) |"
echo "|---|---:|---:|---:|"
row "ostra convert --type float32" "$o_t" "$o_m"
row "sox -e floating-point -b 32" "$s_t" "$s_m"
row "ffmpeg -c:a pcm_f32le" "$f_t" "$f_m"
