#!/usr/bin/env bash
# The symbols that the component's shared library exports, and those that it imports.
# symbols_test.sh SHARED_LIBRARY MAP SONAME CHECKOUT LIBRARY...
set -euo pipefail
# In other languages [a-z] may leave out letters.
export LC_ALL=C

library=$1 map=$2 soname=$3 checkout=$4
shift 4
failed=0

# same WHAT WANTED FOUND: both are lists, one item per line.
same() {
    local difference
    if ! difference=$(diff <(printf '%s\n' "$2" | sort) <(printf '%s\n' "$3" | sort)); then
        printf '%s: < wanted, > found\n%s\n' "$1" "$difference"
        failed=1
    fi
}

# The functions of a platform; everything else that is not defined comes from the system or json-c.
platform='priv_rova_exception_to_rova_error_imp
priv_rova_get_page_size
priv_rova_log_developer
priv_rova_log_get_header_source
priv_rova_sub_dev_apx_ops_get
priv_rova_sub_dev_gpu_ops_get
rova_error_get_name
rova_log_register_source'

listed=$(sed -n 's/^ *\([a-z][a-z0-9_]*\);$/\1/p' "$map")
exported=$(nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }')
same 'exported symbols' "$listed" "$exported"

# Symbols of the system's libraries carry a version, and those that start-up code may lack are weak.
asked=$(nm -D --undefined-only "$library" | awk '
    $1 != "w" && $2 !~ /@(GLIBC|GLIBCXX|CXXABI|GCC|JSONC)_[0-9.]+$/ { print $2 }')
same 'symbols asked of a platform' "$platform" "$asked"

same 'name of the shared object' "$soname" \
    "$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]$/\1/p')"

for file in "$library" "$@"; do
    if grep -qaF "$checkout/" "$file"; then
        printf '%s holds paths of the checkout:\n' "$file"
        strings -a "$file" | grep -F "$checkout/" | head -n 5
        failed=1
    fi
done
exit "$failed"
