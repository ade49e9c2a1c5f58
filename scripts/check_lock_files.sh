#!/bin/sh
# Lock files pin versions and hashes; where packages come from is each machine's own setting.
cd "$(dirname "$0")/.." || exit 2
for file in $(git ls-files '*package-lock.json'); do
  if grep -nE '"resolved"|https?://[^"]*\.tgz' "$file"; then
    echo "$file records a download address"
    exit 1
  fi
done
