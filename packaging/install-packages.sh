#!/bin/sh
# SPDX-License-Identifier: MIT
# Installs the packages of packages.txt that are missing: those for the named purposes, or all of them. Asks nothing and
# does nothing when all are there.
# usage: install-packages.sh [PURPOSE...]
set -eu

wanted=$(awk -v purposes=" $* " '
    sub(/^\[/, "") && sub(/\]$/, "") { taken = purposes ~ /^ *$/ || index(purposes, " " $0 " "); next }
    taken && !/^#/' "$(dirname "$0")/../packages.txt")
# In one Debian a package of its own, in the next one part of another, which provides the name.
there=$(dpkg-query -W -f '${db:Status-Status} ${Package} ${Provides}\n' | sed -n 's/^installed //p' | tr -s ', ' '\n')
missing=
for package in $wanted; do
    echo "$there" | grep -qxF "$package" || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

as_root=
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
        echo "These packages are missing, and installing them needs root:$missing" >&2
        exit 1
    }
    as_root=sudo
fi
echo "Installing:$missing"
export DEBIAN_FRONTEND=noninteractive
$as_root apt-get update -qq
# shellcheck disable=SC2086 # a list of words is what is wanted
$as_root apt-get install -y -qq --no-install-recommends $missing
