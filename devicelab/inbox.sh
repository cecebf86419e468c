#!/usr/bin/env bash
# Runs a command line in the box that box.sh has booted, in the caller's directory and environment, and ends as the
# command does. CMake and CTest call it (CMAKE_CROSSCOMPILING_EMULATOR). Without a box it exits with status 125.
set -euo pipefail
here=$(realpath "$(dirname "${BASH_SOURCE[0]}")")
result=$(realpath -m "$here/../build/device-run/result")
die() {
    printf 'device: %s: %s\n' "${program##*/}" "$1" >&2
    exit "$2"
}
program=$1
box=$(cat "$result/.box/pid" 2>/dev/null) && kill -0 "$box" 2>/dev/null || die 'the box is not up' 125
export HOSTDEVICE_PROPERTIES=${HOSTDEVICE_PROPERTIES:-$here/device.prop}
job=$(mktemp -d "$result/${program##*/}.XXXXXX")
mkdir "$job/data"
: >"$job/stdout"
[[ /dev/fd/1 -ef /dev/fd/2 ]] || : >"$job/stderr"
{ printf '%s\0' "$PWD" $# "$@" && env --null; } >"$job/command"
: >"$result/.box/queue/${job##*/}"

# The beat says that somebody waits: CTest kills this script only, and the box then ends the program.
{
    exec {never}<> <(:)
    while [[ ! -e $job/status ]] && kill -0 "$box"; do
        : >"$job/beat"
        read -rt 0.05 -u "$never" || true
    done
} >/dev/null 2>&1 &
show=(tail --follow --bytes=+1 --sleep-interval=0.05 --pid=$!)
[[ ! -e $job/stderr ]] || "${show[@]}" "$job/stderr" >&2 &
"${show[@]}" "$job/stdout"
wait

[[ -e $job/status ]] || die 'the box went off' 125
read -r how number <"$job/status"
[[ "$how $number" != 'exit 0' || ! -e $job/unfinished ]] || die 'ended before its tests did' 1
[[ $how == exit ]] || { ulimit -c 0; kill -"$number" $$; number=$((number + 128)); }
exit "$number"
