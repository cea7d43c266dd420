#!/usr/bin/env bash
# Configures and builds one build folder: scripts/build.sh DIR [extra cmake arguments...]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
dir=$1
shift
cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$root/$dir" -j "$(nproc)"
