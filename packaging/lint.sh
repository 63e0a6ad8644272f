#!/bin/sh
# SPDX-License-Identifier: MIT
# Format, static analysis, shell and desktop checks over everything that git knows or does not ignore.
set -eu
cd "$(dirname "$0")/.."

files() { git ls-files --cached --others --exclude-standard -- "$@" | while read -r f; do [ ! -f "$f" ] || echo "$f"; done; }

files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
echo "clang-format: clean"

files '*.sh' .ci/run resources/client.up resources/client.down 'packaging/debian/p*' | xargs shellcheck
echo "shellcheck: clean"

flake8 lab bench
echo "flake8: clean"

desktop-file-validate packaging/*.desktop
appstreamcli validate --no-net build/packaging/*.metainfo.xml
echo "desktop entry and metainfo: clean"

cmake --preset release -B build/lint -DBUILD_TESTING=ON -DCORVALE_BENCH=ON -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON \
    >build/lint.txt
cmake --preset fuzz -B build/lint/fuzz >>build/lint.txt
# The one header that the build generates.
cmake --build build/lint --target helper/daemon/helper_adaptor.h >>build/lint.txt

if files '*.cpp' '*.h' '*.py' '*.sh' | xargs grep -L SPDX-License-Identifier | grep .; then
    echo "A file does not name its licence." >&2
    exit 1
fi

# A room is reached through its target, never by a path.
if files '*.cpp' '*.h' | xargs grep -nE '#include "\.\./'; then
    echo "An include leaves its room by a path." >&2
    exit 1
fi

{
    files '*.cpp' ':!fuzz' | xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p build/lint
    files 'fuzz/*.cpp' | xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p build/lint/fuzz
} 2>&1 |
    { grep -vE '^[0-9]+ warnings? generated|^Suppressed|^Use -header-filter' || true; } |
    tee build/clang-tidy.txt
if [ -s build/clang-tidy.txt ]; then
    echo "clang-tidy found the above." >&2
    exit 1
fi
echo "clang-tidy: clean"
