#!/usr/bin/env bash
# Installs what building, testing and benchmarking need on Debian 12 (run as root).
set -euo pipefail
pkgs=(build-essential cmake ninja-build ccache pkg-config git
      libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev nlohmann-json3-dev
      clang clang-format libclang-rt-14-dev libomp-dev
      sox libsox-fmt-all ffmpeg sndfile-programs libsndfile1-dev
      libswresample-dev libswscale-dev libavutil-dev libavformat-dev libavcodec-dev libyuv-dev
      libltc-dev graphviz libexpat1-dev libsoxr-dev portaudio19-dev libasound2-dev alsa-utils)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
