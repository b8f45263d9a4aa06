#!/usr/bin/env bash
# Installs what is needed, builds the release configuration and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
bash scripts/check-tree.sh --format
cmake --preset release >/dev/null
cmake --build --preset release
ctest --preset release --output-on-failure -j2
