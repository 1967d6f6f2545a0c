#!/usr/bin/env bash
# Creates the prefix where it is missing and leaves a resident server. All output goes to files: Wine's background
# programs inherit the first program's output and would hold a reader's pipe open for ever.
. "$(dirname "$0")/wine-env.sh"
mkdir -p "$WINEPREFIX" || exit 1
: >"$RETRIES"

boot() {
    wineserver -p </dev/null >/dev/null 2>&1
    local rc=$?
    [ $rc -eq 0 ] || [ $rc -eq 2 ] || return $rc # 2: one runs already
    # Any first program boots the prefix, which starts the service manager; naming wineboot would start a second one.
    timeout 100 $W cmd /c ver </dev/null >"$WINEPREFIX/boot.log" 2>&1
}
# Once in some hundred times the first program ends with an error, and the next server serves well.
boot || {
    echo "boot" | tee -a "$RETRIES"
    "$(dirname "$0")/wine-down.sh"
    boot || exit 1
}

if [ ! -e "$WINEPREFIX/.ready" ]; then
    timeout 60 $W winecfg -v win10 </dev/null >/dev/null 2>&1
    # Without this a crash starts the debugger, which ends with code 0: a crash would look like a pass.
    timeout 30 $W reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /d false /f </dev/null >/dev/null 2>&1
    : >"$WINEPREFIX/.ready"
fi
