#!/usr/bin/env bash
# Ends the server. Fails where Wine had to be asked twice so often that more than its moods must be behind it.
. "$(dirname "$0")/wine-env.sh"
wineserver -k
timeout 20 wineserver -w
retries=$(cat "$RETRIES" 2>/dev/null | wc -l)
echo "asked twice: $retries"
[ "$retries" -eq 0 ] || sort "$RETRIES" | uniq -c
[ "$retries" -le 5 ]
