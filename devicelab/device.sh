#!/usr/bin/env bash
# Builds a 64-bit Arm device with a real DMA-BUF heap, boots it in an emulator, and runs the test suite and the sample
# node on it. The last line of a complete run is "N passed, N failed".
# usage: device.sh [--filter REGEX]
set -Eeuo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source tools/need.sh
work=build/device
source devicelab/box.sh

case ${1-} in
    '') ;;
    --filter) [[ $# == 2 && -n $2 ]] || die 'usage: device.sh [--filter REGEX]'; filter=$2 ;;
    *) die 'usage: device.sh [--filter REGEX]' ;;
esac

build_project() {
    echo 'building for 64-bit Arm'
    logged configure 'configuring the project' cmake --preset device
    logged build 'building the project' cmake --build "$work" --parallel "$(nproc)"
}

# Packs the demo: the sample node with the scene of `./dev demo`, run by the command lines in /demo/run.
demo_files() {
    python3 examples/makescene.py "$work/scene.ppm" "$root/demo/faces.txt"
    python3 devicelab/ppm2nv12.py "$work/scene.ppm" "$root/demo/scene.nv12"
    cp -r examples/tuning "$root/demo/tuning"
    { cat devicelab/device.prop; echo 'persist.vendor.camera.zyttools.offlinelog=1'; } >"$root/demo/build.prop"
    echo '/examples/samplenode scene.nv12 1280x720 --name scene --tuning tuning --faces faces.txt --out out' \
        >"$root/demo/run"
}

pack() {
    local program programs=("$work"/tests/*_test "$work/examples/samplenode")
    rm -rf "$root"
    mkdir -p "$root"/{tests,examples,lib,vendor,demo/out}
    # At the same relative paths as in the build, by which a test finds the sample node.
    for program in "${programs[@]}"; do
        [[ -x $program ]] || die "the build made no $program"
        aarch64-linux-gnu-strip -o "$root${program#"$work"}" "$program"
    done
    cp devicelab/device.prop "$root/vendor/build.prop"
    demo_files
    pack_libraries "$root"/{tests,examples}/*
    pack_root
}

conclude() {
    local passed failed skipped bad
    passed=$(grep -c '^passed' "$result/results" || true)
    skipped=$(grep -c '^skipped' "$result/results" || true)
    failed=$(grep -cE '^(failed|hung)' "$result/results" || true)
    bad=$(awk -F '\t' '$1 !~ /^(passed|skipped|demo-ok)$/ { printf "%s%s (%s)", separator, $3, $4; separator = "; " }' \
        "$result/results")
    [[ -n $bad ]] || ((passed > 0)) || bad='not one test passed'
    [[ -z $bad ]] || printf 'device: failed: %s\n' "$bad" >&2
    printf '%s passed, %s failed%s\n' "$passed" "$failed" "$( ((skipped == 0)) || echo ", $skipped skipped")"
    [[ -z $bad ]]
}

lock_work
need bc bison cmake cpio flex g++ g++-aarch64-linux-gnu googletest linux-source-6.1 make python3 qemu-system-arm \
    xz-utils
build_kernel
build_project
build_init
pack
boot
unpack
trap - ERR
conclude
