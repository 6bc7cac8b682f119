#!/usr/bin/env bash
# check_packages.sh BUILD_DIR: makes the .deb packages of BUILD_DIR with cpack,
# unpacks them into a scratch root as dpkg would install them, checks where
# the files land, then builds the runtime in runtime/ outside the tree against
# that root, once through pkg-config and once through find_package, and runs
# it against the unpacked library.
set -euo pipefail

build=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
scratch=$(mktemp -d "${TMPDIR:-/tmp}/kq71-packages.XXXXXX")
trap 'rm -rf -- "$scratch"' EXIT
fail() {
    printf 'check_packages: %s\n' "$*" >&2
    exit 1
}

cpack --config "$build/CPackConfig.cmake" -B "$scratch/debs" >"$scratch/cpack.log" 2>&1 ||
    { cat "$scratch/cpack.log" >&2; fail "cpack failed"; }
arch=$(dpkg --print-architecture)
for pkg in libvorn-kq71-ap2 libvorn-kq71-ap-dev kq71-tools; do
    deb=("$scratch"/debs/"${pkg}"_*_"$arch".deb)
    [[ -f ${deb[0]} ]] || fail "no package $pkg for $arch: $(ls "$scratch/debs")"
    dpkg-deb -x "${deb[0]}" "$scratch/root"
    printf '%s: %s\n' "$pkg" "$(dpkg-deb -f "${deb[0]}" Depends)"
done

multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
lib=$scratch/root/usr/lib/$multiarch
for f in "$lib/libvorn_kq71_ap.so.2.0.0" "$lib/libvorn_kq71_ap.so.2" "$lib/libvorn_kq71_ap.so" \
    "$lib/pkgconfig/vorn_kq71_ap.pc" "$lib/cmake/vorn_kq71_ap/vorn_kq71_apConfig.cmake" \
    "$scratch/root/usr/include/vorn_kq71_ap.h" "$scratch/root/usr/bin/kq71" "$scratch/root/usr/bin/kq71-sim"; do
    [[ -e $f ]] || fail "not installed: ${f#"$scratch"/root}"
done
[[ $(readlink "$lib/libvorn_kq71_ap.so") == libvorn_kq71_ap.so.2 ]] || fail "the .so link does not name the SONAME"

for way in pkg-config find_package; do
    dir=$scratch/runtime-$way
    flags=(-DCMAKE_PREFIX_PATH="$scratch/root/usr")
    [[ $way == pkg-config ]] && flags=(-DUSE_PKG_CONFIG=ON)
    PKG_CONFIG_PATH=$lib/pkgconfig cmake -S "$here/runtime" -B "$dir" "${flags[@]}" >"$dir.log" 2>&1 &&
        cmake --build "$dir" >>"$dir.log" 2>&1 || { cat "$dir.log" >&2; fail "runtime build through $way failed"; }
    out=$(LD_LIBRARY_PATH=$lib "$dir/package_runtime") || fail "runtime built through $way: $out"
    [[ $out == "$lib/"* ]] || fail "runtime built through $way used another driver: $out"
    printf 'through %s: %s\n' "$way" "${out#"$scratch"/root}"
done
