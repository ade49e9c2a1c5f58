#!/bin/sh
# clang-tidy over the sources of the product, of kova-admin and of the sample, as the Linux build
# compiles them.
# Usage: check_lint.sh BUILD_FOLDER
cd "$(dirname "$0")/.." || exit 2
# clang cannot read the precompiled headers of gcc.
mkdir -p "$1/lint" || exit 2
sed -E 's/ -Winvalid-pch -include [^ ]*cmake_pch\.hxx//' "$1/compile_commands.json" \
  >"$1/lint/compile_commands.json" || exit 2
# This version of clang knows zeroed variables (cmake/options.cmake) behind a further option only.
run-clang-tidy -quiet -extra-arg=-ftrivial-auto-var-init=uninitialized -p "$1/lint" "$PWD/(src|admin|sample/(client|engine|kovadll|wire))/.*" 2>/dev/null
