#!/bin/sh
# Prints the path of the 64-bit Wine loader, after making its prefix, $WINEPREFIX, once.
for loader in /usr/lib/wine/wine64 /usr/lib/x86_64-linux-gnu/wine/wine64; do
  [ -x "$loader" ] || continue
  if [ ! -e "$WINEPREFIX/system.reg" ]; then
    mkdir -p "$WINEPREFIX"
    if ! WINEDLLOVERRIDES='mscoree,mshtml=' "$loader" wineboot -i >/dev/null 2>&1; then
      echo "Wine cannot make its prefix in $WINEPREFIX" >&2
      exit 1
    fi
  fi
  echo "$loader"
  exit 0
done
echo "no 64-bit Wine loader is installed" >&2
exit 1
