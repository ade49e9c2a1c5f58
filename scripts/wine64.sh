#!/bin/sh
# Prints the path of the 64-bit Wine loader, after making its prefix, $WINEPREFIX, once.
for loader in /usr/lib/wine/wine64 /usr/lib/x86_64-linux-gnu/wine/wine64; do
  if [ -x "$loader" ]; then
    if [ ! -e "$WINEPREFIX/system.reg" ]; then
      mkdir -p "$WINEPREFIX" && WINEDLLOVERRIDES='mscoree,mshtml=' "$loader" wineboot -i \
        >/dev/null 2>&1
    fi
    echo "$loader"
    exit 0
  fi
done
echo "no 64-bit Wine loader is installed" >&2
exit 1
