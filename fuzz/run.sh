#!/bin/sh
# Runs every harness of the fuzz preset for the given number of seconds (default 30), one after another,
# each over a scratch copy of its seed corpus (fuzz/corpus/<name>/), so the committed corpus does not grow.
# Fails when any harness finds a crash, a leak, a time-out or an out-of-memory; the input that did it is
# left in the scratch directory and its path printed.
#     fuzz/run.sh [seconds] [harness ...]      (after: cmake --preset fuzz && cmake --build --preset fuzz)
# Longer runs: give more seconds, e.g. fuzz/run.sh 3600 pages, or run a harness by hand:
#     build/fuzz/fuzz/pages_fuzz -max_len=8192 -timeout=10 -rss_limit_mb=2048 corpus-copy/ fuzz/corpus/pages
# TARVIK_FUZZ_MAX_LEN sets the longest mutated input (default 8192 bytes).
set -u
seconds=${1:-30}
[ $# -gt 0 ] && shift
root=$(cd "$(dirname "$0")/.." && pwd)
bin=${TARVIK_FUZZ_BIN:-$root/build/fuzz/fuzz}
names=${*:-$(cd "$root/fuzz/corpus" && ls)}
scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarvik-fuzz.XXXXXX")
failed=""
max_len=${TARVIK_FUZZ_MAX_LEN:-8192}
run() {
    ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=0:${ASAN_OPTIONS:-}" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}" \
    "$@" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$scratch/$name/found/"
}
for name in $names; do
    program="$bin/${name}_fuzz"
    if [ ! -x "$program" ]; then
        echo "fuzz/run.sh: $program is missing (cmake --preset fuzz && cmake --build --preset fuzz)" >&2
        exit 2
    fi
    mkdir -p "$scratch/$name/corpus" "$scratch/$name/found"
    cp "$root/fuzz/corpus/$name/"* "$scratch/$name/corpus/"
    echo "== $name: $seconds s"
    # First every seed whole (the 10,000-level and 4 GiB ones are long), then mutations of at most
    # $max_len bytes, which keeps the runs fast; longer seeds are cut to that length for mutating.
    if ! { run "$program" -runs=0 -max_len=16777216 "$scratch/$name/corpus" &&
           run "$program" -max_total_time="$seconds" -max_len="$max_len" "$scratch/$name/corpus"; } \
         > "$scratch/$name/log" 2>&1; then
        tail -n 60 "$scratch/$name/log"
        echo "== $name FAILED: $(ls "$scratch/$name/found/")" >&2
        failed="$failed $name"
    else
        grep -E "^stat::number_of_executed_units|^#.*DONE" "$scratch/$name/log" | tail -n 1
    fi
done
if [ -n "$failed" ]; then
    echo "fuzz/run.sh: failures in$failed; inputs and logs under $scratch" >&2
    exit 1
fi
rm -rf "$scratch"
echo "fuzz/run.sh: every harness ran $seconds s without a finding"
