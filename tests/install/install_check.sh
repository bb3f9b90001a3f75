#!/usr/bin/env bash
# Installs a build into an empty folder, and uses what is there as others would: programs in C and
# C++, shared and static, through CMake and through pkg-config, and a platform of somebody else.
# install_check.sh BUILD SCRATCH
set -euo pipefail

checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$(realpath "$1")
rm -rf "$2"
mkdir -p "$2"
scratch=$(realpath "$2")
prefix=$scratch/prefix
here=$checkout/tests/install
c_source=$checkout/examples/register_memory.c

quietly() {
    "$@" >"$scratch/log" 2>&1 || {
        cat "$scratch/log"
        exit 1
    }
}

# says TEXT COMMAND...: the command succeeds and writes the text.
says() {
    local wanted=$1 found
    shift
    found=$("$@") || { echo "$* failed"; exit 1; }
    if [[ $found != "$wanted" ]]; then
        echo "$* wrote '$found' instead of '$wanted'"
        exit 1
    fi
    echo "ok  ${1#"$scratch"/}"
}
c_program() { says 'umem 1 holds "Hello, device!"' "$1"; }
cpp_program() { says 'Hello, other region!' "$1"; }

# cmake_project FOLDER [OPTION...]: builds it against the prefix.
cmake_project() {
    local name
    name=$(basename "$1")
    quietly cmake -S "$1" -B "$scratch/$name" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" "${@:2}"
    quietly cmake --build "$scratch/$name"
}

quietly cmake --install "$build" --prefix "$prefix"
# The prefix is to stand for itself, wherever it is moved to.
mv "$prefix" "$scratch/moved"
prefix=$scratch/moved
library_folder=$(dirname "$(find "$prefix" -name librova_common.so)")
if grep -rlF -e "$checkout" -e "$scratch/prefix" "$prefix"; then
    echo 'These installed files hold a path of the checkout or of the first prefix.'
    exit 1
fi

# The tool finds its libraries, man its page, the shell its completion.
quietly "$prefix/bin/rova_umem" demo "$c_source"
test -f "$prefix/share/man/man1/rova_umem.1"
test -f "$prefix/share/bash-completion/completions/rova_umem"

cmake_project "$here/c" -DSOURCE="$c_source"
c_program "$scratch/c/c_shared"
c_program "$scratch/c/c_static"
cmake_project "$here/cpp"
cpp_program "$scratch/cpp/cpp_shared"
cpp_program "$scratch/cpp/cpp_static"

export PKG_CONFIG_PATH=$library_folder/pkgconfig
modules=(rova-common rova-soft-platform)
# pkg-config's output is a list of options.
# shellcheck disable=SC2046
{
    mkdir "$scratch/pkg_config"
    cd "$scratch/pkg_config"
    gcc -o c_shared "$c_source" $(pkg-config --cflags --libs "${modules[@]}") \
        -Wl,-rpath,"$library_folder"
    gcc -static -o c_static "$c_source" $(pkg-config --static --cflags --libs "${modules[@]}")
    g++ -std=c++17 -o cpp_shared "$here/cpp/program.cpp" \
        $(pkg-config --cflags --libs rova-internal "${modules[@]}") -Wl,-rpath,"$library_folder"
    g++ -std=c++17 -static -o cpp_static "$here/cpp/program.cpp" \
        $(pkg-config --static --cflags --libs rova-internal "${modules[@]}")
}
for program in c cpp; do
    "${program}_program" "$PWD/${program}_shared"
    "${program}_program" "$PWD/${program}_static"
    if readelf -d "${program}_static" | grep NEEDED; then
        echo "${program}_static is not static."
        exit 1
    fi
done

cmake_project "$checkout/examples/platform"
quietly ctest --test-dir "$scratch/platform" --output-on-failure --no-tests=error
echo 'ok  examples/platform'
