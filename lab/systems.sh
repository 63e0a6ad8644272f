#!/bin/bash
# SPDX-License-Identifier: MIT
# The package of this build on each Debian, booted with its own systemd; and the sources on Debian 13. The root folders
# are made by debootstrap and kept in build/systems (SYSTEMS=FOLDER: there), where they are brought up to date each time.
# usage: lab/systems.sh [bookworm|trixie|forky|sources …]
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
systems=${SYSTEMS:-build/systems}

sorry() {
    echo "The systems cannot be made: $1" >&2
    exit 1
}

[ "$(id -u)" -eq 0 ] || sorry "it takes root."
command -v debootstrap >/dev/null || sorry "debootstrap is missing (try: packaging/install-packages.sh systems)."
INIT=systemd lab/demo.sh check
# A package asks for the libraries of the system that it was built on, or newer ones.
# shellcheck disable=SC1091
codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
[ "$codename" = bookworm ] || echo "Built on $codename: what is older than that may lack a library of the package's."
package=$(find build -maxdepth 1 -name 'corvale_*.deb' -printf '%T@ %p\n' | sort -n | tail -n 1 | cut -d' ' -f2)
[ -n "$package" ] || sorry "there is no package yet (try: make deb)."

# Runs a command in a root folder, with this machine's network and devices, as a container would.
within() { # ROOT COMMAND…
    # shellcheck disable=SC2016 # the shell inside
    unshare --mount --pid --ipc --fork --kill-child --propagation private bash -euc '
        root=$1; shift
        mount --bind "$root" "$root"
        cd "$root"
        mount -t proc proc proc
        mount --rbind /sys sys
        mount --rbind /dev dev
        mount -t tmpfs -o mode=755 tmpfs run
        mount -t tmpfs -o mode=1777 tmpfs tmp
        rm -f etc/resolv.conf; cp -L /etc/resolv.conf etc/resolv.conf
        # Nothing that is installed here is to be started here.
        printf "#!/bin/sh\nexit 101\n" >usr/sbin/policy-rc.d; chmod 755 usr/sbin/policy-rc.d
        mkdir -p .host; pivot_root . .host; umount -l .host; rmdir .host
        status=0
        env -i HOME=/root DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
            TERM=dumb "$@" || status=$?
        rm -f usr/sbin/policy-rc.d
        exit "$status"' within "$@"
}

# A minimal Debian that somebody signs in to.
minimal() { # NAME ROOT
    local script=$1
    [ -f "/usr/share/debootstrap/scripts/$1" ] || script=sid
    [ ! -f "$2/made" ] || return 0
    rm -rf "$2"
    mkdir -p "$2"
    unshare --mount --propagation private debootstrap --variant=minbase --include=systemd-sysv,libpam-systemd,dbus,ca-certificates "$1" "$2" "" "$script"
    # A mirror may lag behind, and testing's lists are stamped for a week.
    echo 'Acquire::Check-Valid-Until "false";' >"$2/etc/apt/apt.conf.d/90lab"
    touch "$2/made"
}

# With what the package asks for, what the lab needs, and two resolvers to be put in later, without a network.
prepare() { # NAME ROOT
    minimal "$1" "$2"
    mkdir -p "$2/checkout/packaging"
    cp packages.txt "$2/checkout/"
    cp packaging/install-packages.sh "$2/checkout/packaging/"
    # shellcheck disable=SC2016 # the shell inside
    within "$2" sh -euc '
        apt-get update -qq
        /checkout/packaging/install-packages.sh run demo lab
        apt-get -y -qq --no-install-recommends satisfy "$1"
        apt-get -y -qq --no-install-recommends --download-only install systemd-resolved
        apt-get -y -qq --no-install-recommends --download-only install resolvconf
        ' sh "$(dpkg-deb --field "$package" Depends)"
}

# One line for each resolver of each system.
rows=()
failed=0
system() { # NAME
    local root=$systems/$1 log=build/systems-$1.log resolver said
    echo "$1: its root folder"
    prepare "$1" "$root" >"$log" 2>&1 || { tail -n 20 "$log"; sorry "$1 is not to be had (see $log)."; }
    for resolver in file resolvconf resolved; do
        echo "$1, name servers by $resolver:"
        said=build/lab/system-$1-$resolver
        mkdir -p build/lab
        if ROOT=$root BUILD=$package INIT=systemd RESOLVER=$resolver OUT=$said lab/demo.sh system >"$said.log" 2>&1 </dev/null; then
            rows+=("$(sed -n 's/^ *row: //p' "$said.log") passed")
        else
            rows+=("$1 $resolver: FAILED, see $said.log")
            tail -n 40 "$said.log"
            failed=1
        fi
    done
}

# As somebody would who has just cloned them.
sources() {
    local root=$systems/trixie-sources
    minimal trixie "$root" >build/systems-sources.log 2>&1
    rm -rf "$root/checkout"
    git clone --quiet "$repo" "$root/checkout"
    if within "$root" sh -euc 'apt-get update -qq; apt-get install -y -qq make git >/dev/null; cd /checkout; make test' \
        >>build/systems-sources.log 2>&1; then
        rows+=("trixie: make test passed: $(grep -E '^[0-9]+% tests passed' build/systems-sources.log)")
    else
        rows+=("trixie: make test FAILED, see build/systems-sources.log")
        tail -n 40 build/systems-sources.log
        failed=1
    fi
}

[ $# -gt 0 ] || set -- bookworm trixie forky sources
for name in "$@"; do
    if [ "$name" = sources ]; then sources; else system "$name"; fi
done
printf '%s\n' "" "${rows[@]}"
exit "$failed"
