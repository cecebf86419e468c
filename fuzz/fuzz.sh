#!/usr/bin/env bash
# Builds the fuzz targets and runs each for a number of seconds, by default 60. The exit status is non-zero for any
# finding. Corpora, logs and findings stay in build/fuzz, and the next run continues from them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
me=fuzz
source tools/need.sh

seconds=${1:-60}
[[ $# -le 1 && $seconds =~ ^[1-9][0-9]{0,5}$ ]] || die 'usage: fuzz.sh [SECONDS]'
folder=$PWD/build/fuzz
export HOSTDEVICE_DATA=$folder/device
longest=400  # bytes of an input; no target uses more

# Runs one target and prints its result; fails when there is a finding.
run_target() {
    local name=$1 target=$folder/fuzz/$1 corpus=$folder/corpus/$1 findings=$folder/findings/$1 log=$folder/logs/$1.log
    local counts why status=0
    mkdir -p "$corpus" "$folder/logs" "$findings"
    [[ -e $corpus/seed ]] || head -c $longest /dev/urandom >"$corpus/seed"
    (cd "$scratch" && exec timeout $((seconds + 300)) "$target" -max_total_time="$seconds" -timeout=20 \
        -max_len=$longest -len_control=0 -use_value_profile=1 -artifact_prefix="$findings/" \
        "$corpus" "$findings") >"$log" 2>&1 || status=$?
    counts=$(sed -nE 's/^#([0-9]+).*cov: ([0-9]+) ft: ([0-9]+) .*/\1 runs, \2 edges, \3 features/p' "$log" | tail -n 1)
    if ((status == 0)) && grep -qE '^#[0-9]+\s+DONE' "$log"; then
        printf '%-14s%s: no finding\n' "$name" "$counts"
        return
    fi
    why=$(grep -am1 -E '^BROKEN RULE|runtime error|ERROR: |run interrupted' "$log") || why="status $status"
    printf '%-14s%s: FINDING: %s\n%14ssee %s\n' "$name" "${counts:-0 runs}" "$why" '' "$log"
    sed -nE "s|^.*Test unit written to (.*)|              again with: (cd build/fuzz \&\& $target \1)|p" "$log"
    return 1
}

need clang libclang-rt-14-dev cmake make
mkdir -p "$folder"
exec {lock}>"$folder/lock"
flock --nonblock "$lock" || die "another run is at work in $folder"
# Some targets create many small files, so use a file system in memory when there is one.
scratch=$(mktemp -d -p "$([[ -w /dev/shm ]] && echo /dev/shm || echo "${TMPDIR:-/tmp}")" zyttools-fuzz-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
build fuzz fuzzers
bad=0
for rule in Draws Lists Moves Names Places Reads; do
    run_target "${rule}ByRule" || bad=$((bad + 1))
done
printf 'fuzz: 6 targets, %d s each, %d with findings\n' "$seconds" "$bad"
((bad == 0))
