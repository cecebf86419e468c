# shellcheck shell=bash
# Sourced by the development commands.

# need PACKAGE…    installs missing Debian packages, or prints their names and exits when not root
need() {
    local missing=() package log
    for package in "$@"; do
        [[ "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null)" == "install ok installed" ]] || missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    if [[ $EUID -ne 0 ]] || ! command -v apt-get >/dev/null; then
        echo "missing packages: ${missing[*]}" >&2
        exit 1
    fi
    echo "installing ${missing[*]}"
    log=$(apt-get -qq update 2>&1 && DEBIAN_FRONTEND=noninteractive \
        apt-get -qq install --no-install-recommends "${missing[@]}" 2>&1) ||
        { printf '%s\n' "$log" "cannot install ${missing[*]}" >&2; exit 1; }
}
