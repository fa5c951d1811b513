#!/usr/bin/env bash
# Configures and builds one flavour of kivbf into build/<name>.
#   scripts/build.sh <name> [extra cmake arguments...]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
name=$1; shift
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$top" -B "$top/build/$name" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$top/build/$name" -j "$jobs"
