#!/bin/bash
# SPDX-License-Identifier: MIT
# Every scenario, with systemd and without it, several side by side, each in a machine of its own. What each one said
# stays in build/lab/. One that fails is tried once more, alone: what it expects within seconds, busy neighbours may have
# kept from it. The end names those that failed alone, too.
# usage: all.sh [SCENARIO|slow|fast …]          JOBS=N how many at once
set -euo pipefail
cd "$(dirname "$0")/.."

# Those that have a test with this marker, as pytest finds them.
marked() {
    /usr/bin/python3 -B -m pytest lab/scenarios --collect-only -q -m "$1" | sed -n 's/^.*test_\([a-z_]*\)\.py::.*/\1/p' | uniq
}

# The slow ones first.
[ $# -gt 0 ] || set -- slow fast
scenarios=()
for word in "$@"; do
    case $word in
    slow | fast)
        names=$(marked "$word" | tr _ -)
        mapfile -t -O ${#scenarios[@]} scenarios <<<"$names"
        ;;
    *) scenarios+=("$word") ;;
    esac
done

one() { # INIT SCENARIO
    local name=$1-$2 began=$SECONDS
    if INIT=$1 OUT=build/lab/$name lab/demo.sh "$2" >"build/lab/$name.log" 2>&1 </dev/null; then
        echo "passed: $2 ($1), $((SECONDS - began)) s"
    else
        echo "FAILED: $2 ($1), $((SECONDS - began)) s: build/lab/$name.log"
        tail -n 60 "build/lab/$name.log" | sed 's/^/    | /'
        return 1
    fi
}
# shellcheck disable=SC2317 # xargs calls it
beside() {
    one "$@" || printf '%s\0%s\0' "$@" >>build/lab/failed
}
export -f one beside

mkdir -p build/lab
: >build/lab/failed
for scenario in "${scenarios[@]}"; do printf '%s\0' systemd "$scenario" none "$scenario"; done |
    xargs -0 -n 2 -P "${JOBS:-3}" bash -c 'beside "$@"' beside

failed=0
while read -r -d '' init && read -r -d '' scenario; do
    echo "Once more, alone: $scenario ($init)"
    one "$init" "$scenario" || failed=1
done <build/lab/failed
exit "$failed"
