#!/bin/sh
# Every C and C++ source is formatted as .clang-format says.
cd "$(dirname "$0")/.." || exit 2
git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror
