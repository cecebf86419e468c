# shellcheck shell=bash
# Sourced by the development commands, which set `me`, the name in their messages, and `failure` if it is not 1.

die() {
    trap - ERR
    printf '%s: %s\n' "${me:?}" "$*" >&2
    exit "${failure:-1}"
}

# need PACKAGE…    installs missing Debian packages, or prints their names and exits when not root
need() {
    local missing=() package log
    for package in "$@"; do
        [[ "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null)" == "install ok installed" ]] || missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    [[ $EUID -eq 0 ]] && command -v apt-get >/dev/null || die "missing packages: ${missing[*]}"
    echo "installing ${missing[*]}"
    log=$(apt-get -qq update 2>&1 && DEBIAN_FRONTEND=noninteractive \
        apt-get -qq install --no-install-recommends "${missing[@]}" 2>&1) ||
        { printf '%s\n' "$log" >&2; die "cannot install ${missing[*]}"; }
}

# logged LOG WHAT COMMAND…    runs a command with its output in a log; on failure shows the errors and exits
logged() {
    local log=$1 what=$2
    mkdir -p "$(dirname "$log")"
    "${@:3}" >"$log" 2>&1 || {
        grep -E -m 5 -A 4 '([Ee]rror|warning|undefined reference)[: ]' "$log" >&2 || tail -n 20 "$log" >&2
        die "$what failed, see $log"
    }
}

# build PRESET [TARGET…]    builds in build/PRESET; all targets unless some are named
build() {
    logged "build/$1-configure.log" "configuring $1" cmake --preset "$1"
    logged "build/$1.log" "building $1" cmake --build "build/$1" -j "$(nproc)" ${2:+--target "${@:2}"}
}
