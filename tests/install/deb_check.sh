#!/usr/bin/env bash
# Installs Debian packages with dpkg into a scratch root, as if on this system, uses them there as
# an ordinary user would, and removes them again.
# deb_check.sh FOLDER_OF_PACKAGES
set -euo pipefail

packages=$(realpath "$1")
# The packages must work for every user, so an ordinary user must be able to reach them.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
chmod 755 "$scratch"
root=$scratch/root
commands=$scratch/bin

quietly() {
    "$@" >"$scratch/log" 2>&1 || {
        cat "$scratch/log"
        exit 1
    }
}

fail() {
    echo "$*"
    exit 1
}

# Every file of a package is readable by all users and belongs to root.
for package in "$packages"/*.deb; do
    if dpkg-deb --contents "$package" |
        awk '$1 !~ /^l/ && ($1 !~ /^.rw.r-.r-./ || $1 ~ /^d/ && $1 !~ /^drwxr-xr-x/ || $2 != "root/root")' |
        grep .; then
        fail "Some users cannot read these files of ${package##*/}, or they do not belong to root."
    fi
done

# The scratch root starts with this system's list of packages, so that dpkg checks the dependencies.
(
    umask 022
    mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers} "$commands"
    cp /var/lib/dpkg/status "$root/var/lib/dpkg/"
    cp /var/lib/dpkg/info/format "$root/var/lib/dpkg/info/"
)
# The packages' scripts run outside the root, and would change the system's cache of libraries.
ln -s "$(command -v true)" "$commands/ldconfig"

as_root=() as_user=()
if ((EUID == 0)); then
    as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
else
    as_root=(fakeroot)
fi
run_dpkg() {
    PATH=$commands:$PATH:/usr/sbin:/sbin quietly "${as_root[@]}" dpkg --root="$root" \
        --no-triggers --force-script-chrootless "$@"
}

mapfile -t names < <(for file in "$packages"/*.deb; do dpkg-deb -f "$file" Package; done)
(umask 022 && run_dpkg --install "$packages"/*.deb)

libraries=$(dirname "$(find "$root/usr" -name librova_common.so)")
if readelf -d "$root/usr/bin/rova_umem" "$libraries"/librova_*.so | grep -E 'RPATH|RUNPATH'; then
    fail 'These name a folder for their libraries.'
fi
export LD_LIBRARY_PATH=$libraries
cp "${BASH_SOURCE[0]}" "$scratch/some_file"
chmod 644 "$scratch/some_file"
quietly "${as_user[@]}" "$root/usr/bin/rova_umem" demo "$scratch/some_file"
if ldd "$root/usr/bin/rova_umem" | grep librova | grep -vF "$libraries"; then
    fail 'The tool did not run with the libraries of the scratch root.'
fi

# An ordinary user builds a program with the packages, and reads their manual pages.
mkdir -m 777 "$scratch/work"
PKG_CONFIG_PATH=$libraries/pkgconfig \
    quietly "${as_user[@]}" bash -c "cd '$scratch/work' && gcc -o program \
        '$root/usr/share/doc/librova-doc/examples/register_memory.c' \
        \$(pkg-config --cflags --libs rova) && ./program"
grep -q '^umem 1 holds "Hello, device!"$' "$scratch/log" || fail 'The program wrote something else.'
for page in 1/rova_umem 3/rova_umem_create 3/rova_umem.h; do
    quietly "${as_user[@]}" man --manpath="$root/usr/share/man" "${page%/*}" "${page#*/}"
done
for file in html/index.html docs/platform.md examples/hand_over/exporter.c; do
    "${as_user[@]}" test -s "$root/usr/share/doc/librova-doc/$file" || fail "$file is not there."
done
"${as_user[@]}" test -s "$root/usr/share/doc/librova-dev/platform.md" ||
    fail 'The guide for the authors of platforms is not with the development files.'

run_dpkg --purge "${names[@]}"
if [[ -e $root/usr ]]; then
    find "$root/usr"
    fail 'These files stayed behind.'
fi
echo "ok  installed, used as an ordinary user, and removed: ${names[*]}"
