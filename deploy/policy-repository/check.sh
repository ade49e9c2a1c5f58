#!/bin/sh
# The check of this repository, for its gate: every policy is valid, without a known mistake and as
# its cases want it, and nothing has widened since the folder BASE (say, a checkout of the main
# branch), nor has a policy come that BASE does not have, unless WIDENING=accepted.
#
#   ./check.sh [BASE]
#
# KOVA_ADMIN names the program; reports in JUnit's form go to the folder that REPORTS names.
# Exit codes: 0 fine, 1 something was found.
set -u
cd "$(dirname "$0")" || exit 1
admin=${KOVA_ADMIN:-kova-admin}
base=${1-}
failed=0

# --other-host: the policies are for other machines than the one that checks them.
"$admin" policy lint --other-host policies/*.kova-policy.json || failed=1

for policy in policies/*.kova-policy.json; do
  name=$(basename "$policy" .kova-policy.json)
  echo "== $name"
  "$admin" policy check --other-host "$policy" || failed=1
  set -- --other-host --fail-on-empty
  [ -z "${REPORTS-}" ] || set -- "$@" --junit "$REPORTS/$name.xml"
  "$admin" policy test "$@" "$policy" "cases/$name.json" || failed=1
  [ -n "$base" ] || continue
  if [ -f "$base/$policy" ]; then
    "$admin" policy diff --other-host --fail-on-widening "$base/$policy" "$policy" \
      "cases/$name.json"
    found=$?
  else
    echo "$policy is not in $base: all that it allows is new"
    found=1
  fi
  if [ "$found" -ne 0 ] && { [ "$found" -ne 1 ] || [ "${WIDENING-}" != accepted ]; }; then
    failed=1
  fi
done

if [ "$failed" -ne 0 ]; then
  echo "the check has found something"
  exit 1
fi
echo "the policies are as they should be"
