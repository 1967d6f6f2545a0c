# Sourced by the other wine scripts: one prefix in the build tree, no display, no installers, quiet.
: "${WINEPREFIX:=${TQ_WINEPREFIX:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build/wineprefix}}"
: "${WINEDEBUG:=-all}" "${WINEDLLOVERRIDES:=mscoree,mshtml,winemenubuilder.exe=}"
export WINEPREFIX WINEDEBUG WINEDLLOVERRIDES
unset DISPLAY WAYLAND_DISPLAY
W=/usr/lib/wine/wine64
# What Wine did at the second attempt alone, a line each, for wine-down.sh to count.
RETRIES=$WINEPREFIX/retries
