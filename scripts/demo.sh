#!/usr/bin/env bash
# Installs what is needed, builds the tool and runs it on the bundled example material.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target ostra
tool=build/release/bin/ostra
"$tool" version
"$tool" cpu
"$tool" demo --dir build/ostra-demo
