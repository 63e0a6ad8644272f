#!/bin/sh
# SPDX-License-Identifier: MIT
# Whether the private machine left anything behind.
# usage: leftovers.sh note                       what is to be the same afterwards
#        leftovers.sh compare NOTE DIRECTORY     complains about every difference; DIRECTORY holds what the machine said
set -eu

note() {
    sed 's/^/mount /' /proc/self/mounts
    for interface in /sys/class/net/*; do echo "interface ${interface##*/}"; done
    find /run/netns -mindepth 1 2>/dev/null | sed 's/^/namespace /' || true
}

# The machine's first words are the names of its namespaces; a process that is still in one has outlived it. The kernel
# gives such a name to another machine at once, whose processes are younger than this one's end.
strays() {
    ended=$(cat "$1/ended")
    while read -r namespace; do
        for link in /proc/[0-9]*/ns/"${namespace%%:*}"; do
            [ "$(readlink "$link")" = "$namespace" ] || continue
            sed 's/.*) //' "${link%/ns/*}/stat" 2>/dev/null |
                awk -v ended="$ended" -v link="$link" '$20 / 100 <= ended { print "process " link }'
        done
    done <"$1/namespaces"
}

# Its last words are all files that it wrote; none of them may be newer here than the note.
files() {
    while read -r file; do
        [ ! -f "$file" ] || [ -z "$(find "$file" -newer "$2")" ] || echo "file $file"
    done <"$1/written"
}

case $1 in
note) note ;;
compare)
    left=$(
        note | diff "$2" - | grep '^[<>]' || true
        strays "$3"
        files "$3" "$2"
    )
    if [ -n "$left" ]; then
        printf 'Left on this machine:\n%s\n' "$left" >&2
        exit 1
    fi
    echo "Left on this machine: no process, mount, interface or file" \
        "($(wc -l <"$3/written") files were written inside)."
    rm "$3/namespaces" "$3/written" "$3/ended"
    ;;
esac
