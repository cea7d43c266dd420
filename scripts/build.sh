#!/usr/bin/env bash
# Configures and builds one build folder: scripts/build.sh DIR [extra cmake arguments...]
# With VT_BUILD_TARGETS set (names separated by blanks), only those targets and what they need
# are built; otherwise everything, the test suites included.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
dir=$1
shift
launcher=()
# ccache, where installed, keeps rebuilds of other folders and worktrees of the checkout cheap.
if command -v ccache >/dev/null 2>&1; then
    export CCACHE_BASEDIR="$root"
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" "$@" >/dev/null
targets=()
for target in ${VT_BUILD_TARGETS:-}; do
    targets+=(--target "$target")
done
cmake --build "$root/$dir" -j "$(nproc)" "${targets[@]}"
