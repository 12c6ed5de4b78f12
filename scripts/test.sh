#!/usr/bin/env bash
# Builds ntfskit and runs the whole test suite twice: once plain with -Werror,
# once under AddressSanitizer and UndefinedBehaviorSanitizer; then runs each
# fuzz target briefly from its committed seeds (scripts/fuzz.sh --smoke).
# Installs the Debian packages it needs when they are missing (needs root for
# that). First of all it checks the layering of the includes
# (scripts/check_layers.sh).
#
# Usage: scripts/test.sh [ctest arguments...]   e.g. scripts/test.sh -R BootData
# With ctest arguments the fuzz smoke run is skipped.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build_root=${NTFSKIT_BUILD_ROOT:-$root/build}
jobs=${NTFSKIT_JOBS:-2}

"$root/scripts/install_deps.sh"
"$root/scripts/check_layers.sh"

run_suite() {
    local name=$1
    shift
    local dir="$build_root/$name"
    echo "== $name: configure and build in $dir"
    cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNTFSKIT_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    echo "== $name: ctest"
    (cd "$dir" && ctest --output-on-failure -j "$jobs" "${ctest_args[@]}")
}

ctest_args=("$@")
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

run_suite plain -DNTFSKIT_SANITIZE=OFF
run_suite sanitize -DNTFSKIT_SANITIZE=ON -DNTFSKIT_BENCH=OFF
if [ ${#ctest_args[@]} -eq 0 ]; then
    NTFSKIT_FUZZ_BUILD="$build_root/fuzz" "$root/scripts/fuzz.sh" --smoke
fi
echo "== all suites passed"
