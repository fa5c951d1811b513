#!/usr/bin/env bash
# Installs what is needed, builds kivbf and runs its demo: a synthetic
# two-microphone scene through every mode, with the WAV files it used and
# produced written to ./kivbf-demo.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

scripts/setup.sh
scripts/build.sh native
build/native/tools/kivbf info
build/native/tools/kivbf demo --out "$top/kivbf-demo"
