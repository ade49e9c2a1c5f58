#!/bin/sh
# clang-tidy over the sources of the product, of admin/ and of the sample, as the Linux build compiles them.
# Usage: check_lint.sh BUILD_FOLDER
cd "$(dirname "$0")/.." || exit 2
run-clang-tidy -quiet -p "$1" "$PWD/(src|admin|sample/(client|engine|kovadll|wire))/.*" 2>/dev/null
