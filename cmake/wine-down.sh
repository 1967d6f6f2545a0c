#!/usr/bin/env bash
. "$(dirname "$0")/wine-env.sh"
wineserver -k
timeout 20 wineserver -w
exit 0
