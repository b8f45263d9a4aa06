#!/usr/bin/env bash
# The container paths of `ostra` on one machine, for comparing two builds in one session:
# wall time of `ostra convert` of a 172.8 MB 24-bit AIFF file (best of N runs, page cache
# warm) and the system calls `ostra info` and a small `ostra convert` make on the audio
# file's descriptor (from strace). Not run in CI.
#
#   bash bench/file_paths.sh [ostra binary] [runs]
#
# Needs sox and strace. Set WORK=<folder> for the inputs (default: a fresh temporary one).
set -euo pipefail
cd "$(dirname "$0")/.."
tool=$(realpath "${1:-build/release/bin/ostra}")
runs=${2:-5}
for t in sox strace; do
  command -v "$t" >/dev/null || { echo "missing $t" >&2; exit 1; }
done
work=${WORK:-$(mktemp -d)}
mkdir -p "$work"
cd "$work"
trap 'rm -f out.* calls.txt' EXIT
[[ -f big.aiff ]] || sox -n -r 48000 -c 2 -b 24 big.aiff synth 600 sine 440 whitenoise vol 0.5 2>/dev/null
[[ -f small.wav ]] || sox -n -r 48000 -c 2 -b 16 small.wav synth 1 sine 440
if [[ ! -f tagged.wav ]]; then
  cp small.wav tagged.wav
  "$tool" tag tagged.wav --set INAM=Title --set IART=Someone --set "ICMT=A comment" >/dev/null
fi

best_ms() {
  local best=""
  for ((i = 0; i < runs; i++)); do
    rm -f out.*
    local s e t
    s=$(date +%s%N)
    "$@" >/dev/null
    e=$(date +%s%N)
    t=$(((e - s) / 1000000))
    if [[ -z $best ]] || ((t < best)); then best=$t; fi
  done
  echo "$best"
}

# Calls on the first descriptor the program opens after start-up (3: the audio file; 4:
# the output of convert).
calls() {
  rm -f out.*
  strace -e trace=read,pread64,write,lseek,fstat,newfstatat,ftruncate -o calls.txt "$@" >/dev/null
  grep -cE '^(read|pread64|write|lseek|fstat|newfstatat|ftruncate)\((3|4),' calls.txt
}

echo "| measurement | value |"
echo "|---|---:|"
echo "| convert big.aiff -> wav float32 (ms) | $(best_ms "$tool" convert big.aiff out.wav --type float32 --container wav) |"
echo "| convert big.aiff -> aiff pcm16 (ms) | $(best_ms "$tool" convert big.aiff out.aiff --type pcm16) |"
echo "| info big.aiff: calls on the file | $(calls "$tool" info big.aiff) |"
echo "| info tagged.wav (INFO list): calls on the file | $(calls "$tool" info tagged.wav) |"
echo "| convert small.wav -> aiff: calls on both files | $(calls "$tool" convert small.wav out.aiff --type pcm16 --container aiff) |"
