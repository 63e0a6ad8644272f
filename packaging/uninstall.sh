#!/bin/sh
# SPDX-License-Identifier: MIT
# Removes what `cmake --install` with the same arguments puts below DESTDIR, and the folders that are Corvale's own. What
# that is, it learns by doing it in an empty place: there is no second list.
# usage: uninstall.sh BUILD [--prefix PREFIX]
set -eu

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
trap 'exit 130' INT TERM
DESTDIR=$place cmake --install "$@" >/dev/null

there() { (cd "$place" && find . -depth "$@" -printf '/%P\n'); }
there ! -type d | while read -r file; do rm -f "${DESTDIR:-}$file"; done
there -type d '(' -path '*/corvale*' -o -name sysinit.target.d ')' | while read -r folder; do
    [ ! -d "${DESTDIR:-}$folder" ] || rmdir --ignore-fail-on-non-empty "${DESTDIR:-}$folder"
done
