#!/usr/bin/env bash
# FLAC and MP3 decoding through the plug-ins (`ostra convert FILE out.wav`, which reads
# through the manager) against ffmpeg and libsndfile's sndfile-convert decoding the same
# files to wave, in one run on one machine. Prints the best wall time of N runs and the
# real-time factor. Not run in CI.
#
#   bash bench/decode_vs_tools.sh [ostra binary] [runs] [seconds of audio]
set -euo pipefail
cd "$(dirname "$0")/.."
tool=${1:-build/release/bin/ostra}
runs=${2:-3}
seconds=${3:-300}
[[ -x $tool ]] || { echo "build the tool first: cmake --build --preset release --target ostra" >&2; exit 1; }
for t in ffmpeg sndfile-convert; do
  command -v "$t" >/dev/null || { echo "missing $t (run scripts/setup-deps.sh)" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

ffmpeg -v error -f lavfi -i "sine=frequency=440:duration=$seconds:sample_rate=48000" \
  -f lavfi -i "anoisesrc=duration=$seconds:sample_rate=48000:amplitude=0.1" \
  -filter_complex "[0][1]amix=inputs=2,aformat=channel_layouts=stereo" -c:a flac -sample_fmt s16 "$work/in.flac"
ffmpeg -v error -i "$work/in.flac" -c:a libmp3lame -b:a 192k "$work/in.mp3"

best() {  # best wall seconds of $runs runs of the command
  local b=""
  for ((i = 0; i < runs; i++)); do
    local s e
    s=$(date +%s.%N)
    "$@" >/dev/null 2>&1
    e=$(date +%s.%N)
    local t
    t=$(awk -v s="$s" -v e="$e" 'BEGIN { printf "%.3f", e - s }')
    if [[ -z $b ]] || awk -v a="$t" -v b="$b" 'BEGIN { exit !(a < b) }'; then b=$t; fi
    rm -f "$work"/out.wav
  done
  echo "$b"
}

printf '%-6s %-28s %8s %10s\n' format decoder seconds "x realtime"
for f in flac mp3; do
  for d in ostra ffmpeg sndfile-convert; do
    case $d in
      ostra) t=$(best "$tool" convert "$work/in.$f" "$work/out.wav" --type pcm16) ;;
      ffmpeg) t=$(best ffmpeg -v error -y -i "$work/in.$f" -c:a pcm_s16le "$work/out.wav") ;;
      sndfile-convert) t=$(best sndfile-convert -pcm16 "$work/in.$f" "$work/out.wav") ;;
    esac
    printf '%-6s %-28s %8s %10.0f\n' "$f" "$d" "$t" "$(awk -v s="$seconds" -v t="$t" 'BEGIN { print s / t }')"
  done
done
