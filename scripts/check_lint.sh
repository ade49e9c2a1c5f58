#!/bin/sh
# clang-tidy over the product's sources of the Linux build. Usage: check_lint.sh BUILD_FOLDER
cd "$(dirname "$0")/.." || exit 2
run-clang-tidy -quiet -p "$1" "$PWD/src/.*" 2>/dev/null
