#!/bin/bash
# Counts the lines and branches of src/ that the unit tests and the end-to-end tests of Linux run.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

readonly BUILD=build/coverage
readonly REPORT=$BUILD/report

usage() {
  cat <<EOF
usage: scripts/coverage.sh [PYTEST-ARGUMENT...]

Builds the preset 'coverage', runs the unit tests and the end-to-end tests (those that the arguments
choose; all but the long ones by default), and writes $REPORT/index.html, the lines and
branches that nothing runs as $REPORT/missing.txt and $REPORT/missing-branches.txt, and the
totals to standard output.
Exit codes: 0 done, 1 the build or a test failed (the report is written anyhow when tests did).
EOF
}

[[ ${1-} != --help ]] || {
  usage
  exit 0
}
# A limit of the file size would hold for the counters' files too.
(($# > 0)) || set -- -m 'not shipped_build and not endurance and not sample_engine' \
  --deselect e2e/audit/posix/test_failures.py::test_a_file_size_limit_changes_no_reply
failed=0

scripts/setup.sh build test coverage
cmake --preset coverage >&2
cmake --build --preset coverage --target kova-test-programs >&2
# Counts of an earlier run or of another build of the sources would be added.
find "$BUILD" -name '*.gcda' -delete
"$BUILD/tests/kova-unit-tests" >&2 || failed=1
/usr/bin/python3 -m pytest -q -p no:cacheprovider --timeout=900 -n 2 --dist loadfile tests/e2e \
  --build-dir "$BUILD" "$@" >&2 || failed=1

mkdir -p "$REPORT"
# A branch that only an exception could take is none in code that has no exceptions.
report() {
  gcovr --root . --filter src/ --exclude-throw-branches --exclude-unreachable-branches \
    "$BUILD/src" "$BUILD/tests/unit" "$@"
}
report --json "$REPORT/counts.json" --html-details "$REPORT/index.html" --print-summary |
  tail -n 3
again() {
  gcovr --root . --add-tracefile "$REPORT/counts.json" "$@"
}
again --txt "$REPORT/missing.txt"
again --txt "$REPORT/missing-branches.txt" --branches
echo "$REPORT/index.html"
exit $failed
