#!/bin/sh
# SPDX-License-Identifier: MIT
# Runs each fuzzer for a bounded time, from the kept seeds. usage: fuzz.sh BUILD_FOLDER SECONDS
set -eu
build=$1
seconds=$2
cd "$(dirname "$0")/.."

fuzz() {
    name=$1
    shift
    mkdir -p "$build/corpus/$name"
    echo "$name, $seconds s:"
    "$build/fuzz/$name" "$build/corpus/$name" "$@" -max_len=8192 -max_total_time="$seconds" \
        -artifact_prefix="$build/$name-" -print_final_stats=1 -verbosity=0 2>&1 |
        grep -E 'stat::(number_of_executed_units|peak_rss_mb)|ERROR|SUMMARY|Test unit' || true
    if ls "$build/$name"-* >/dev/null 2>&1; then
        echo "$name has found something: $(echo "$build/$name"-*)" >&2
        exit 1
    fi
}

fuzz config_fuzzer fuzz/seeds/config tests/helper/profiles -dict=fuzz/config.dict
fuzz management_lines_fuzzer fuzz/seeds/management_lines -dict=fuzz/management_lines.dict
fuzz management_text_fuzzer fuzz/seeds/management_text -dict=fuzz/management_text.dict
fuzz info_dictionary_fuzzer fuzz/seeds/info_dictionary
fuzz account_answer_fuzzer fuzz/seeds/account_answer -dict=fuzz/account_answer.dict
