#!/usr/bin/env bash
# build-qt4.sh ARCHIVE CACHE_ROOT host|arm: builds Qt 4.8.7 QtCore from ARCHIVE
# once and prints the install prefix. The prefix is keyed by the archive's
# sha256, the target and this recipe's version, so an unchanged archive is
# never rebuilt. The build is staged and renamed into place only when it is
# complete: a half-built prefix is never reused. Needs only the archive (the
# README beside it in the source tree lists what it must hold).
set -euo pipefail

archive=$1 cache_root=$2 target=$3
jobs=${KQ71_JOBS:-$(nproc)}
# Bump when the steps below change, so that old prefixes are not reused.
recipe=1

say() { printf '==> %s\n' "$*" >&2; }
die() {
    printf 'build-qt4: %s\n' "$*" >&2
    exit 1
}

[[ -f $archive ]] || die "Qt 4 source archive not found: $archive"
case $target in
host | arm) ;;
*) die "unknown target: $target (host or arm)" ;;
esac

sha=$(sha256sum "$archive" | cut -c1-16)
prefix=$cache_root/qt-4.8.7-$target-$sha-r$recipe
if [[ -f $prefix/.complete ]]; then
    printf '%s\n' "$prefix"
    exit 0
fi

mkdir -p "$cache_root"
# One builder at a time per prefix; a second caller waits and then reuses it.
exec 9>"$prefix.lock"
flock 9
if [[ -f $prefix/.complete ]]; then
    printf '%s\n' "$prefix"
    exit 0
fi
rm -rf -- "$prefix"

work=$(mktemp -d "$cache_root/.build-$target.XXXXXX")
trap 'rm -rf -- "$work"' EXIT
say "building Qt 4.8.7 QtCore ($target) into $prefix (a few minutes, once)"
tar -xJf "$archive" -C "$work"
src=$(find "$work" -mindepth 2 -maxdepth 2 -name configure -printf '%h\n' | head -n 1)
[[ -n $src ]] || die "no configure script in $archive"

# gcc 12 builds Qt 4 only as C++98.
sed -i 's/^QMAKE_CXXFLAGS *+= *\$\$QMAKE_CFLAGS$/& -std=gnu++98/' "$src/mkspecs/common/gcc-base.conf"
grep -q 'gnu++98' "$src/mkspecs/common/gcc-base.conf" || die "could not add -std=gnu++98 to gcc-base.conf"

cross=()
if [[ $target == arm ]]; then
    mkspec=$src/mkspecs/linux-arm-gnueabi-g++/qmake.conf
    sed -i 's/arm-linux-gnueabi-/arm-linux-gnueabihf-/g' "$mkspec"
    # Without -arch arm the host's atomic operations are chosen.
    cross=(-arch arm -xplatform linux-arm-gnueabi-g++)
fi

log=$work/build.log
run() {
    "$@" >>"$log" 2>&1 || {
        tail -n 40 "$log" >&2
        die "failed: $* (log above)"
    }
}
cd "$src"
say "Qt 4 ($target): configure"
run ./configure -opensource -confirm-license -prefix "$prefix" -release -fast -no-gui \
    -nomake examples -nomake demos -nomake tools -nomake docs -nomake translations \
    -no-qt3support -no-xmlpatterns -no-multimedia -no-audio-backend -no-phonon -no-webkit \
    -no-script -no-scripttools -no-declarative -no-dbus -no-openssl -no-glib -no-cups -no-nis \
    -no-accessibility -no-sql-sqlite -no-pch "${cross[@]}"
say "Qt 4 ($target): QtCore"
run make -j"$jobs" -C src sub-corelib
stage=$work/stage
run make -C src/corelib install INSTALL_ROOT="$stage"
[[ -d $stage$prefix/lib && -d $stage$prefix/include/QtCore ]] || die "QtCore install incomplete"
touch "$stage$prefix/.complete"
mv -T -- "$stage$prefix" "$prefix"
say "Qt 4 ($target): ready in $prefix"
printf '%s\n' "$prefix"
