#!/usr/bin/env bash
# Installs Debian packages with dpkg into a scratch root, as if this system had them, runs the tool
# there, and takes them away again.
# deb_check.sh FOLDER_OF_PACKAGES SCRATCH
set -euo pipefail

packages=$(realpath "$1")
rm -rf "$2"
mkdir -p "$2"
root=$(realpath "$2")/root
commands=$(realpath "$2")/bin

# The scratch root begins with the list of what is installed here, so that dpkg decides whether the
# packages get what they depend on.
mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers} "$commands"
cp /var/lib/dpkg/status "$root/var/lib/dpkg/"
cp /var/lib/dpkg/info/format "$root/var/lib/dpkg/info/"
# The packages' scripts run outside of the root, where the cache of libraries is the system's.
ln -s "$(command -v true)" "$commands/ldconfig"

quietly() {
    "$@" >"$root.log" 2>&1 || {
        cat "$root.log"
        exit 1
    }
}

run_dpkg() {
    PATH=$commands:$PATH:/usr/sbin:/sbin quietly "${as_root[@]}" dpkg --root="$root" \
        --no-triggers --force-script-chrootless "$@"
}
as_root=()
((EUID == 0)) || as_root=(fakeroot)

mapfile -t names < <(for file in "$packages"/*.deb; do dpkg-deb -f "$file" Package; done)
run_dpkg --install "$packages"/*.deb

libraries=$(dirname "$(find "$root/usr" -name librova_common.so)")
if readelf -d "$root/usr/bin/rova_umem" | grep -E 'RPATH|RUNPATH'; then
    echo 'The tool names a folder for its libraries.'
    exit 1
fi
export LD_LIBRARY_PATH=$libraries
quietly "$root/usr/bin/rova_umem" demo "${BASH_SOURCE[0]}"
if ldd "$root/usr/bin/rova_umem" | grep librova | grep -vF "$libraries"; then
    echo 'The tool did not run with the libraries of the scratch root.'
    exit 1
fi

run_dpkg --purge "${names[@]}"
if [[ -e $root/usr ]]; then
    find "$root/usr"
    echo 'These files stayed behind.'
    exit 1
fi
echo "ok  installed, ran and removed: ${names[*]}"
