#!/usr/bin/env bash
# Fuzz campaign: builds the libFuzzer targets with clang under
# AddressSanitizer and UndefinedBehaviorSanitizer, then runs each target for
# the given time on a working corpus seeded from fuzz/corpus/TARGET, as many
# targets at once as there are cores. Prints executions, coverage and
# findings per target; exits non-zero when anything was found.
#
# Usage: scripts/fuzz.sh [minutes per target, default 30] [targets...]
#   e.g. scripts/fuzz.sh 2 walk runs
#        scripts/fuzz.sh --smoke   (what scripts/test.sh runs: a fixed
#        number of executions per target, about fifteen seconds each, from
#        the committed seeds)
# Findings (crash-*, timeout-*, leak-*, oom-*) land in
# build/fuzz/findings/TARGET; once fixed, copy each into
# fuzz/regressions/TARGET so the normal suite replays it.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${NTFSKIT_FUZZ_BUILD:-$root/build/fuzz}
smoke=0
minutes=30
if [ "${1:-}" = "--smoke" ]; then
    smoke=1
    shift
elif [ $# -gt 0 ]; then
    minutes=$1
    shift
fi
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(walk write runs lznt1)
jobs=${NTFSKIT_JOBS:-$(nproc)}

"$root/scripts/install_deps.sh"

echo "== fuzz: configure and build in $build"
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNTFSKIT_FUZZ=ON \
    -DNTFSKIT_SANITIZE=ON -DNTFSKIT_BENCH=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target ntfskit_fixtures $(printf 'fuzz_%s ' "${targets[@]}")

# Input sizes: a damage program is a few dozen bytes; a run list at most a
# record; an LZNT1 stream up to a few units.
max_len() {
    case $1 in
        walk) echo 128 ;; write) echo 512 ;; runs) echo 1100 ;; *) echo 70000 ;;
    esac
}

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

run_target() {
    local target=$1
    local corpus="$build/corpus/$target" findings="$build/findings/$target"
    mkdir -p "$corpus" "$findings"
    cp -n "$root/fuzz/corpus/$target/"* "$corpus/" 2>/dev/null || true
    # -fork keeps the campaign going past a finding, so one run reports all.
    "$build/fuzz/fuzz_$target" "$corpus" -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 \
        -max_total_time=$((minutes * 60)) -timeout=20 -rss_limit_mb=4096 -malloc_limit_mb=2048 \
        -max_len="$(max_len "$target")" -artifact_prefix="$findings/" -print_final_stats=1 \
        >"$build/findings/$target.log" 2>&1 || true
}

# Executions of the smoke run: about fifteen seconds of each target here.
smoke_runs() {
    case $1 in
        walk) echo 400 ;; write) echo 250 ;; runs) echo 1500 ;; *) echo 40000 ;;
    esac
}

if [ "$smoke" = 1 ]; then
    echo "== fuzz smoke: ${targets[*]}"
    status=0
    mkdir -p "$build/findings"
    for target in "${targets[@]}"; do
        work=$(mktemp -d)
        cp "$root/fuzz/corpus/$target/"* "$work/"
        if ! "$build/fuzz/fuzz_$target" "$work" -seed=1 -runs="$(smoke_runs "$target")" -timeout=20 \
            -rss_limit_mb=4096 -malloc_limit_mb=2048 -max_len="$(max_len "$target")" \
            -artifact_prefix="$build/findings/smoke-$target-" >"$work/log" 2>&1; then
            echo "== fuzz smoke: $target found something:"
            grep -E "ERROR|runtime error|SUMMARY|Test unit written" "$work/log" | head -20
            status=1
        else
            echo "$target: $(grep -E '^#[0-9]+' "$work/log" | tail -1)"
        fi
        rm -rf "$work"
    done
    exit $status
fi

echo "== fuzz: ${targets[*]}, $minutes minute(s) each, $jobs at a time"
running=0
for target in "${targets[@]}"; do
    run_target "$target" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then
        wait -n
        running=$((running - 1))
    fi
done
wait

found=0
printf '%-8s %12s %8s %8s %9s\n' target executions cov corpus findings
for target in "${targets[@]}"; do
    log="$build/findings/$target.log"
    last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
    execs=$(sed -n 's/^#\([0-9]*\).*/\1/p' <<<"$last")
    cov=$(sed -n 's/.*cov: \([0-9]*\).*/\1/p' <<<"$last")
    corp=$(sed -n 's/.*corp: \([0-9]*\).*/\1/p' <<<"$last")
    count=$(find "$build/findings/$target" -type f | wc -l)
    found=$((found + count))
    printf '%-8s %12s %8s %8s %9s\n' "$target" "${execs:-?}" "${cov:-?}" "${corp:-?}" "$count"
done
if [ "$found" -gt 0 ]; then
    echo "== fuzz: $found finding(s) in $build/findings"
    exit 1
fi
echo "== fuzz: no findings"
