#!/bin/sh
# clang-tidy over the sources of the product, of kova-admin and of the sample, as the Linux build
# compiles them.
# Usage: check_lint.sh BUILD_FOLDER
cd "$(dirname "$0")/.." || exit 2
# clang cannot read the precompiled headers of gcc.
cmake --preset linux -B "$1/lint" -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null || exit 2
# What is compiled a folder at a time is judged so, too, and is then an included file to the
# analyzer. This version of clang knows zeroed variables (cmake/options.cmake) behind a further
# option only.
run-clang-tidy -quiet -p "$1/lint" \
  -extra-arg=-Xclang -extra-arg=-analyzer-opt-analyze-headers \
  -extra-arg=-ftrivial-auto-var-init=uninitialized \
  "$PWD/(src|admin|sample/(client|engine|kovadll|wire))/" \
  "$PWD/$1/lint/(admin/CMakeFiles/kova_admin|sample/CMakeFiles/kova_sample_engine).dir/Unity/" \
  2>/dev/null
