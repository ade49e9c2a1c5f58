#!/bin/sh
# Every C and C++ source is formatted as .clang-format says; no line of Python has over 100 columns.
cd "$(dirname "$0")/.." || exit 2
code=0
git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror || code=1
long=$(git ls-files '*.py' | LC_ALL=C.UTF-8 xargs grep -nE '^.{101}' /dev/null)
if [ -n "$long" ]; then
    printf '%s\n' "$long" "These lines of Python have over 100 columns." >&2
    code=1
fi
exit "$code"
