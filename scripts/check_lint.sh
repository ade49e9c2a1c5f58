#!/bin/sh
# clang-tidy over the sources of the product, of kova-admin and of the sample, as the Linux build
# compiles them.
# Usage: check_lint.sh BUILD_FOLDER
cd "$(dirname "$0")/.." || exit 2
sources="$PWD/(src|admin|sample/(client|engine|kovadll|wire))/.*"

# lint FOLDER BY_FOLDER CHECKS FILES: clang cannot read the precompiled headers of gcc, and this
# version of it knows zeroed variables (cmake/options.cmake) behind a further option only. Warnings
# are the compilers' matter (-w). Beyond 60,000 states of a function the analyzer finds nothing more
# here, and takes twice the time.
lint() {
  cmake --preset linux -B "$1" -DKOVA_BY_FOLDER="$2" -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON \
    >/dev/null || exit 2
  run-clang-tidy -quiet -extra-arg=-ftrivial-auto-var-init=uninitialized -extra-arg=-w \
    -extra-arg=-Xclang -extra-arg=-analyzer-config \
    -extra-arg=-Xclang -extra-arg=max-nodes=60000 -p "$1" -checks="$3" "$4" 2>/dev/null
}

# Most checks look at every header of the system, which costs more than the file itself; so they
# judge together what is compiled together. The analyzer follows the calls within a file, and two
# checks of unused names skip what a file includes: these judge each file alone.
together="$PWD/$1/lint/(admin/CMakeFiles/kova_admin|sample/CMakeFiles/kova_sample_engine).dir/.*"
lint "$1/lint" ON "-clang-*,-bugprone-suspicious-include" "$sources|$together"
failed=$?
lint "$1/lint-alone" OFF \
  "-clang-diagnostic-*,-bugprone-*,-cert-*,-performance-*,-readability-*,-misc-*,misc-unused-*" \
  "$sources" || failed=$?
exit $failed
