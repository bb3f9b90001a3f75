#!/usr/bin/env bash
# Runs the command blocks of README.md in order, as a reader would, with a home of their own whose
# path holds a space, and compares their output with the block of text that follows.
# readme_test.sh CHECKOUT SCRATCH
set -euo pipefail

checkout=$(realpath "$1")
rm -rf "$2"
mkdir -p "$2/a home" "$2/blocks"
scratch=$(realpath "$2")

# Each block becomes a file, numbered and named by its language.
awk -v folder="$scratch/blocks" '
    /^```/ { inside = !inside; if (inside) file = sprintf("%s/%02d.%s", folder, ++count, substr($0, 4)); next }
    inside { print >file }' "$checkout/README.md"

# README shows the example program as it is.
if [[ $(cat "$scratch"/blocks/*.c) != "$(sed -n '/^#include/,$p' "$checkout/examples/register_memory.c")" ]]; then
    echo 'README.md shows another program than examples/register_memory.c.'
    exit 1
fi

# One shell runs all blocks, so that its folder and variables carry over. ./dev test is left out: it
# would build what the blocks after it have to do without.
for block in "$scratch"/blocks/*.sh; do
    printf 'exec >%q 2>%q\n' "$block.out" "$block.log"
    sed '/^\.\/dev test/d' "$block"
done >"$scratch/all.sh"
if ! (cd "$checkout" && HOME="$scratch/a home" bash -eu "$scratch/all.sh" </dev/null); then
    last=$(find "$scratch/blocks" -name '*.out' | sort | tail -n 1)
    cat "$last" "${last%.out}.log"
    echo "This block of README.md fails: $(cat "${last%.out}")"
    exit 1
fi

for wanted in "$scratch"/blocks/*.text; do
    number=$(basename "$wanted" .text)
    printf -v before '%02d' $((10#$number - 1))
    found=$scratch/blocks/$before.sh.out
    if ! diff "$wanted" <(tail -n "$(wc -l <"$wanted")" "$found"); then
        echo "< is in README.md, > is what was printed."
        exit 1
    fi
done
grep -qxF 'umem 1 holds "Hello, device!"' "$scratch"/blocks/*.out

# The names that the documents give to ./dev test are names of tests.
cd "$checkout"
mapfile -t names < <(grep -oh '\./dev test [a-z][a-z_]*' README.md CONTRIBUTING.md |
    cut -d ' ' -f 3 | sort -u)
for name in "${names[@]}"; do
    ./dev test "$name" --show-only >"$scratch/tests_of_that_name" 2>&1 || {
        cat "$scratch/tests_of_that_name"
        exit 1
    }
done
echo "ok  $(find "$scratch/blocks" -name '*.sh' | wc -l) blocks of README.md"
