#!/usr/bin/env bash
# Builds the fuzz targets and runs each for some seconds, 60 unless told otherwise. One line a target, then the verdict;
# a non-zero exit for any finding. Corpora, logs and findings stay in build/fuzz, so that runs add up, and an input that
# was a finding once is tried again first.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source tools/need.sh

die() {
    printf 'fuzz: %s\n' "$*" >&2
    exit 1
}

seconds=${1:-60}
[[ $# -le 1 && $seconds =~ ^[1-9][0-9]{0,5}$ ]] || die 'usage: fuzz.sh [SECONDS]'
build=$PWD/build/fuzz
export HOSTDEVICE_DATA=$build/device
# In bytes: where an input has said all that its target can use. 4096 for those that take any number.
declare -A longest=([filesearch]=300 [layout]=200 [rectangles]=400 [drawing]=80)

build_targets() {
    { cmake --preset fuzz &&
        cmake --build "$build" --target fuzzers --parallel "$(nproc)"; } >"$build/build.log" 2>&1 ||
        { tail -n 20 "$build/build.log" >&2; die "the build failed, see $build/build.log"; }
}

# Bytes of all kinds to start from; for the search also patterns that mean something, with names to match.
make_seeds() {
    local name=$1 corpus=$2 i pattern
    mkdir "$corpus" 2>/dev/null || return 0
    for i in {1..8}; do head -c $((i * ${longest[$name]:-512} / 8)) /dev/urandom >"$corpus/seed$i"; done
    [[ $name == filesearch ]] || return 0
    for pattern in 'a.*' '[a-c]+x?' '(a|b){2}' 'ab\\.txt' '(.)\\1' '^[^.]+$' '\\w(?=b).' '[[:alpha:]_]*'; do
        { printf '%s\|' "$pattern" a ab ab.txt bb bb a_b; head -c 60 /dev/urandom; } >"$corpus/pattern$((++i))"
    done
}

# Runs one target and says how it went; fails when there is a finding.
run_target() {
    local name=$1 target=$build/fuzz/$1_fuzz corpus=$build/corpus/$1 findings=$build/findings/$1 log=$build/logs/$1.log
    local status=0 counts why
    mkdir -p "$build/corpus" "$build/logs" "$findings"
    make_seeds "$name" "$corpus"
    # The outer limit is for a target that does not come to its own.
    (cd "$scratch" && exec timeout --kill-after=10 $((seconds + 300)) "$target" -max_total_time="$seconds" -timeout=20 \
        -max_len="${longest[$name]:-4096}" -len_control=0 -use_value_profile=1 -artifact_prefix="$findings/" \
        "$corpus" "$findings") >"$log" 2>&1 &
    running=$!
    wait "$running" || status=$?
    running=''
    counts=$(sed -nE 's/^#([0-9]+).*cov: ([0-9]+) ft: ([0-9]+) .*/\1 runs, \2 edges, \3 features/p' "$log" | tail -n 1)
    if ((status == 0)) && grep -qE '^#[0-9]+\s+DONE' "$log"; then
        printf '%-11s%s: no finding\n' "$name" "$counts"
        return 0
    fi
    why=$(grep -am1 -E '^FUZZ_CHECK|runtime error|ERROR: |run interrupted' "$log") || why="status $status"
    printf '%-11s%s: FINDING: %s\n%11ssee %s\n' "$name" "${counts:-0 runs}" "$why" '' "$log"
    sed -nE "s|^.*Test unit written to (.*)|           again with: (cd build/fuzz \&\& $target \1)|p" "$log"
    return 1
}

need clang libclang-rt-14-dev cmake make
mkdir -p "$build"
exec {lock}>"$build/lock"
flock --nonblock "$lock" || die "another run is at work in $build"
# Some targets make many small files: in memory where there is such a place.
scratch=$(mktemp -d -p "$([[ -w /dev/shm ]] && echo /dev/shm || echo "${TMPDIR:-/tmp}")" zyttools-fuzz-XXXXXX)
running=''
cleanup() {
    [[ -z $running ]] || { kill "$running" && wait "$running"; } 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
build_targets
total=0 bad=0
for source in fuzz/*_fuzz.cpp; do
    total=$((total + 1))
    run_target "$(basename "$source" _fuzz.cpp)" || bad=$((bad + 1))
done
printf 'fuzz: %d targets, %d s each, %d with findings\n' "$total" "$seconds" "$bad"
((bad == 0))
