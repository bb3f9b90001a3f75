#!/usr/bin/env bash
# Installs a build into an empty folder, and uses it as others would: from C and C++, shared and
# static, through CMake and pkg-config, and with somebody else's platform.
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

# says TEXT COMMAND...: requires that the command succeeds and prints the text.
says() {
    local wanted=$1 found
    shift
    found=$("$@") || { echo "$* failed"; exit 1; }
    if [[ $found != "$wanted" ]]; then
        echo "$* wrote '$found' instead of '$wanted'"
        exit 1
    fi
    echo "ok  ${*: -1}" | sed "s|$scratch/||"
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

(umask 077 && quietly cmake --install "$build" --prefix "$prefix")
# The prefix must work wherever it is moved to.
mv "$prefix" "$scratch/moved"
prefix=$scratch/moved
library_folder=$(dirname "$(find "$prefix" -name librova_common.so)")
# All users can read the files, even if the installing user's umask is strict. Folders follow the
# umask, since CMake makes them as mkdir does.
if find "$prefix" -type f ! -perm -a+r | grep .; then
    echo 'Not everybody can read these.'
    exit 1
fi
if grep -rlF -e "$checkout" -e "$scratch/prefix" "$prefix"; then
    echo 'These installed files hold a path of the checkout or of the first prefix.'
    exit 1
fi

# The tool finds its libraries, man finds its page, and the completions are there.
quietly "$prefix/bin/rova_umem" demo "$c_source"
quietly man --manpath="$prefix/share/man" rova_umem
for completion in bash-completion/completions/rova_umem zsh/vendor-completions/_rova_umem \
    fish/vendor_completions.d/rova_umem.fish; do
    test -f "$prefix/share/$completion"
done

cmake_project "$here/c" -DSOURCE="$c_source"
c_program "$scratch/c/c_shared"
c_program "$scratch/c/c_static"
# A project in C includes the whole source tree.
quietly cmake -S "$here/parent" -B "$scratch/parent" -G Ninja -DROVA="$checkout"
quietly cmake --build "$scratch/parent" --target c_shared c_static
c_program "$scratch/parent/c_shared"
c_program "$scratch/parent/c_static"
if [[ -e $scratch/parent/rova/cmake_install.cmake ]] &&
    grep -q librova "$scratch/parent/rova/libs/rova_common/cmake_install.cmake"; then
    echo 'The project within another one installs itself.'
    exit 1
fi
cmake_project "$here/cpp"
cpp_program "$scratch/cpp/cpp_shared"
cpp_program "$scratch/cpp/cpp_static"

export PKG_CONFIG_PATH=$library_folder/pkgconfig
# A program that links the shared libraries needs no file of another package.
PKG_CONFIG_LIBDIR=$PKG_CONFIG_PATH quietly pkg-config --cflags --libs rova
for module in "$PKG_CONFIG_PATH"/*.pc; do
    quietly pkg-config --static --cflags --libs "$(basename "$module" .pc)"
done
# compile COMMAND... -- ARGUMENT...: runs it with the options of pkg-config ARGUMENT..., in which a
# space that belongs to a path is escaped.
compile() {
    local command=() options
    while [[ $1 != -- ]]; do
        command+=("$1")
        shift
    done
    eval "options=($(pkg-config --cflags --libs "${@:2}"))"
    "${command[@]}" "${options[@]}" -Wl,-rpath,"$library_folder"
}
mkdir "$scratch/pkg_config"
cd "$scratch/pkg_config"
compile gcc -o c_shared "$c_source" -- rova
compile gcc -static -o c_static "$c_source" -- --static rova
compile g++ -std=c++17 -o cpp_shared "$here/cpp/program.cpp" -- rova-internal rova
compile g++ -std=c++17 -static -o cpp_static "$here/cpp/program.cpp" -- --static rova-internal rova
for program in c cpp; do
    "${program}_program" "$PWD/${program}_shared"
    "${program}_program" "$PWD/${program}_static"
done
for program in {c,cpp}_static ../c/c_static; do
    if readelf -d "$program" | grep NEEDED; then
        echo "$program is not static."
        exit 1
    fi
done

# The examples are installed too, and build in place. One in C needs no files of json-c.
examples=$prefix/share/doc/rova/examples
cmake_project "$examples/hand_over" -DCMAKE_DISABLE_FIND_PACKAGE_json-c=ON
says 'exporter: exported
importer: umem 1 holds "written by the exporter"
exporter: the memory holds "written by the importer"' \
    "$examples/hand_over/run.sh" "$scratch"/hand_over/{exporter,importer}

cmake_project "$examples/platform"
quietly ctest --test-dir "$scratch/platform" --output-on-failure --no-tests=error
echo 'ok  examples/platform'
