#!/usr/bin/env bash
# Everything CI checks, from a fresh Debian 12 machine: set-up, the format check, the test suites in a
# normal build and under AddressSanitizer + UndefinedBehaviorSanitizer, the threaded suites (service,
# transport, faults) under ThreadSanitizer, and a short run of every fuzz target.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
fuzz_seconds=${VT_FUZZ_SECONDS:-20}

bash scripts/setup.sh

echo "== format check"
git ls-files -z '*.cpp' '*.h' | xargs -0 -r clang-format --dry-run --Werror

echo "== normal build"
bash scripts/build.sh build
ctest --test-dir build --output-on-failure --timeout 300

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
bash scripts/build.sh build-asan -DVT_SANITIZE=ON -DVT_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure --timeout 600

echo "== ThreadSanitizer build (service, transport and fault tests only)"
# Only the suites where most threads meet (the service's loop, client queues and replies, the
# shared HTTP session, the faults), to stay within CI's two cores and its time.
tsan_suites=(tests/service/vt_service_tests tests/transport/vt_transport_tests
    tests/faults/vt_service_fault_tests tests/faults/vt_fault_tests)
tsan_targets=()
for suite in "${tsan_suites[@]}"; do
    tsan_targets+=("$(basename "$suite")")
done
VT_BUILD_TARGETS="${tsan_targets[*]}" bash scripts/build.sh build-tsan -DVT_TSAN=ON -DVT_BENCH=OFF
for suite in "${tsan_suites[@]}"; do
    echo "-- $(basename "$suite")"
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
        timeout 1800 "build-tsan/$suite" --gtest_brief=1
done

echo "== fuzz smoke runs (${fuzz_seconds} s each)"
CXX=clang++ cmake -S "$root" -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVT_FUZZ=ON \
    -DVT_TESTS=OFF -DVT_BENCH=OFF >/dev/null
cmake --build build-fuzz -j "$(nproc)" --target vt_fuzz_all
found=0
while IFS= read -r target; do
    found=$((found + 1))
    name=$(basename "$target")
    corpus=$(mktemp -d)
    echo "-- $name"
    "$target" -max_total_time="$fuzz_seconds" -print_final_stats=1 "$corpus" 2>&1 | tail -n 3
    rm -rf "$corpus"
done < <(find build-fuzz/fuzz -type f -perm -u+x -name 'vt_fuzz_*' | sort)
if [ "$found" -eq 0 ]; then
    echo "no fuzz target was built" >&2
    exit 1
fi
echo "fuzz: $found targets ran without a crash"
