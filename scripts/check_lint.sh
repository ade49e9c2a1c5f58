#!/bin/sh
# clang-tidy over the sources of the product, of kova-admin and of the sample, as the Linux build
# compiles them.
# Usage: check_lint.sh BUILD_FOLDER
cd "$(dirname "$0")/.." || exit 2
# Each file alone, so that it must name every header that it needs; and clang cannot read the
# precompiled headers of gcc.
cmake --preset linux -B "$1/lint" -DKOVA_BY_FOLDER=OFF -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON \
  >/dev/null || exit 2
# This version of clang knows zeroed variables (cmake/options.cmake) behind a further option only.
run-clang-tidy -quiet -extra-arg=-ftrivial-auto-var-init=uninitialized -p "$1/lint" \
  "$PWD/(src|admin|sample/(client|engine|kovadll|wire))/.*" 2>/dev/null
