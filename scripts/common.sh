# Sourced by the scripts beside it: packages that are missing, build steps that keep their logs, one plain verdict.
set -u
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
logs=build/logs
mkdir -p "$logs"
say() { printf '%s\n' "$*"; }

# need PACKAGE...: installs what is missing.
need() {
    local missing=() p sudo=
    for p in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null)" = installed ] || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    say "Installing ${missing[*]}"
    { $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"; } \
        >"$logs/packages.log" 2>&1 </dev/null || fail "packages could not be installed" "$logs/packages.log"
}
linux_packages="g++ cmake ninja-build googletest ccache"
windows_packages="g++-mingw-w64-x86-64-posix wine wine64"

# fail MESSAGE LOG: says what failed, shows the end of its log, ends.
fail() {
    say "FAILED: $1"
    if [ -s "${2:-}" ]; then
        say "The end of $2:"
        tail -n 40 "$2"
    fi
    exit 1
}

# step NAME COMMAND...: runs one step with its output in a log of that name.
step() {
    local name=$1 log="$logs/$1.log" start=$SECONDS
    shift
    "$@" >"$log" 2>&1 </dev/null || fail "$name ($*)" "$log"
    printf '%-28s ok, %d s\n' "$name" $((SECONDS - start))
}

# The compiler's cache lies in the home folder, or where that cannot be written, in the build folder.
[ -w "${HOME:-/nowhere}" ] || export CCACHE_DIR="${CCACHE_DIR:-$PWD/build/ccache}"

# build PRESET: configures and builds, and gives way to what runs beside it.
export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_SLOPPINESS=pch_defines,time_macros
build() {
    step "configure-$1" cmake --preset "$1"
    step "build-$1" nice cmake --build --preset "$1"
}
