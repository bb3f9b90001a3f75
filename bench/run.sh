#!/bin/sh
# Measures the library beside its floors. Run from anywhere.
#
#   bench/run.sh         the table of ratios, also as build/bench/bench.json
#   bench/run.sh --gate  counted instructions of export and import beside json-c alone; fails above
#                        the limit. Does not depend on the machine's mood. Needs valgrind.
set -eu
cd "$(dirname "$0")/.."
build=build/bench
limit=1.25

case "${1:-}" in
    "" | --gate) ;;
    *)
        echo "usage: bench/run.sh [--gate]" >&2
        exit 2
        ;;
esac

mkdir -p "$build"
log="$build/build.log"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DROVA_BUILD_BENCH=ON -DROVA_BUILD_TESTS=OFF \
    -DROVA_BUILD_TOOLS=OFF -DROVA_BUILD_EXAMPLES=OFF >"$log" 2>&1 ||
    { cat "$log"; exit 1; }
cmake --build "$build" --parallel "$(nproc)" \
    --target bench_times bench_memory bench_instructions >>"$log" 2>&1 ||
    { cat "$log"; exit 1; }

# The instructions of a few operations: side, operation, length.
instructions() {
    counts="$build/callgrind.$1.$2.$3"
    valgrind --quiet --tool=callgrind --collect-atstart=no --callgrind-out-file="$counts" \
        "$build/bench/bench_instructions" "$1" "$2" "$3"
    awk '$1 == "totals:" { print $2 }' "$counts"
}

if [ "${1:-}" = --gate ]; then
    status=0
    for operation in export import; do
        for length in 512 4096; do
            ours=$(instructions ours "$operation" "$length")
            floor=$(instructions floor "$operation" "$length")
            awk -v what="$operation, N = $length" -v ours="$ours" -v floor="$floor" \
                -v limit="$limit" 'BEGIN {
                    good = floor > 0 && ours > 0 && ours <= limit * floor
                    printf "%-18s %9d instructions, json-c alone %9d: %.3f, at most %.2f%s\n",
                        what, ours, floor, ours / floor, limit, good ? "" : "  MISSED"
                    exit !good
                }' || status=1
        done
    done
    exit "$status"
fi

"$build/bench/bench_memory" >"$build/memory.txt"
"$build/bench/bench_times" "$build/memory.txt" "$build/bench.json"
