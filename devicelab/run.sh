#!/usr/bin/env bash
# Cross-builds a CMake project against the library, boots the emulated device with it, and runs its tests or one of its
# programs there. The exit status is 0 or 1 for tests. For a program it is the program's own, 128 + N after signal N, or
# 124 when it hung. It is 125 when nothing could be run.
# usage: run.sh [--strict] PROJECT [COMMAND…]
set -Eeuo pipefail
called_from=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source tools/need.sh
work=$PWD/build/device-run
source devicelab/box.sh
failure=125

usage='usage: ./dev device run [--strict] PROJECT [COMMAND…]'
strict=${HOSTDEVICE_STRICT-}
[[ ${1-} != --strict ]] || { strict=1; shift; }
[[ $# -gt 0 && $1 != -* ]] || die "$usage"
project=$(cd "$called_from" && realpath -m "$1")
shift
[[ -f $project/CMakeLists.txt ]] || die "no CMake project in $project"
properties=$PWD/devicelab/device.prop
[[ -z ${HOSTDEVICE_PROPERTIES-} ]] || properties=$(cd "$called_from" && realpath -m "$HOSTDEVICE_PROPERTIES")
[[ -r $properties ]] || die "cannot read $properties, which HOSTDEVICE_PROPERTIES names"
prefix=$work/prefix project_build=$work/project
size_limit=600  # capacity of the device in MiB

build_library() {
    echo 'building the library for 64-bit Arm'
    logged configure 'configuring the library' cmake --preset device-library
    logged build 'building the library' cmake --build "$work/library" --parallel "$(nproc)"
    logged install 'installing the library' cmake --install "$work/library" --prefix "$prefix"
}

# Like `logged`, but shows the compiler's messages.
logged_project() {
    local log=$work/$1.log what=$2
    shift 2
    "$@" >"$log" 2>&1 || {
        grep -m 5 -A 4 -E '(error|Error|undefined reference)[: ]' "$log" >&2 || tail -n 20 "$log" >&2
        die "$what failed, see $log"
    }
}

build_project() {
    echo "building $project"
    grep -qsxF "CMAKE_HOME_DIRECTORY:INTERNAL=$project" "$project_build/CMakeCache.txt" || rm -rf "$project_build"
    # Backtraces need debug information.
    logged_project project-configure "configuring $project" env PKG_CONFIG_LIBDIR="$prefix/lib/pkgconfig" \
        cmake -S "$project" -B "$project_build" -DCMAKE_TOOLCHAIN_FILE="$PWD/devicelab/aarch64-linux-gnu.cmake" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -Dzyttools_DIR="$prefix/lib/cmake/zyttools"
    logged_project project-build "building $project" cmake --build "$project_build" --parallel "$(nproc)"
}

# Copies the library unstripped, so that a backtrace has names.
pack_library() { cp -L "$1" "$2"; }

# Packs the project's folder and build at their local paths, because tests refer to both by absolute paths.
pack_project() {
    local files=(tar -C / --create --exclude=.git --exclude-tag-all=CMakeCache.txt "${project#/}") programs
    local build_files=(tar -C / --create --exclude='*.o' --exclude='*.a' --exclude=CMakeFiles "${project_build#/}")
    rm -rf "$root"
    mkdir -p "$root"/{lib,vendor,tmp}
    (($({ "${files[@]}"; "${build_files[@]}"; } | head -c $(((size_limit + 1) << 20)) | wc -c) <= size_limit << 20)) ||
        die "$project and its build are more than the $size_limit MiB that fit into the device"
    "${files[@]}" | tar -C "$root" --extract
    "${build_files[@]}" | tar -C "$root" --extract
    cp "$properties" "$root/vendor/build.prop"
    mapfile -t programs < <(python3 devicelab/project.py programs "$project_build")
    [[ ${#programs[@]} -gt 0 ]] || die "$project builds no program"
    pack_libraries "${programs[@]}"
    python3 devicelab/project.py jobs "$work" "$project" "$test_limit" "$strict" "$@" || exit "$failure"
    pack_root
}

{
    need bc bison cmake cpio flex g++ g++-aarch64-linux-gnu gdb-multiarch linux-source-6.1 make pkgconf python3 \
        qemu-system-arm xz-utils
    lock_work
    build_kernel
    build_init
    build_library
    build_project
    pack_project "$@"
    boot
    unpack
} >&2
trap - ERR
exec python3 devicelab/project.py verdict "$work" "$@"
