#!/usr/bin/env bash
# Renders the Graphviz sources under docs/ (docs/*.dot) to SVG beside them.
# Needs Graphviz's dot (scripts/setup-deps.sh installs it).
set -euo pipefail
cd "$(dirname "$0")/.."
for src in docs/*.dot; do
  dot -Tsvg "$src" -o "${src%.dot}.svg"
  echo "rendered ${src%.dot}.svg"
done
