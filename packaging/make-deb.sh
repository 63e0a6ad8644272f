#!/bin/sh
# SPDX-License-Identifier: MIT
# Makes the Debian package out of a finished build: the files are those that the install rules put in place, and nothing
# of the builder goes into it, so that the same commit makes the same package to the byte.
# usage: make-deb.sh BUILD
set -eu
umask 022
export LC_ALL=C

sources=$(cd "$(dirname "$0")/debian" && pwd)
build=$(cd "$1" && pwd)
work=$build/package
root=debian/corvale # where the distribution's tools look

rm -rf "$work"
mkdir -p "$work/$root/DEBIAN"
cd "$work"
cp "$sources/control" "$build/packaging/changelog" debian/
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(dpkg-parsechangelog -S Timestamp)}
export SOURCE_DATE_EPOCH

DESTDIR=$work/$root cmake --install "$build" --prefix /usr --strip >/dev/null
install -m 755 "$sources/postinst" "$sources/prerm" "$sources/postrm" "$root/DEBIAN"
(cd "$root" && find usr -type f -print0 | sort -z | xargs -0 md5sum >DEBIAN/md5sums)

programs=$(find "$root/usr" -type f -perm -100 -exec sh -c 'readelf -h "$1" >/dev/null 2>&1' sh {} \; -print)
# shellcheck disable=SC2086 # a list of files without blanks
dpkg-shlibdeps --warnings=1 $programs
dpkg-gencontrol -P$root

find "$root" -type d -exec chmod 00755 {} + # such as a group's checkout gives its folders
find "$root" -exec touch --no-dereference --date="@$SOURCE_DATE_EPOCH" {} +
name=corvale_$(dpkg-parsechangelog -S Version)_$(dpkg --print-architecture).deb
# With one thread: how many there are would show in the packed bytes.
dpkg-deb --root-owner-group --threads-max=1 -Zxz --build "$root" "$build/$name"
lintian --allow-root --fail-on error,warning "$build/$name"
