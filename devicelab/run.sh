#!/usr/bin/env bash
# Builds for 64-bit Arm, boots the box, and runs tests, or one program, there: this tree's tests, or those of a CMake
# project that is built against the library. The exit status is 0 or 1 for tests. For a program it is the program's own,
# 128 + N after signal N, or 124 when it hung. It is 125 when nothing could be run.
# usage: run.sh --tree [CTEST-OPTION…]
#        run.sh [--strict] PROJECT [COMMAND…]
set -Eeuo pipefail
called_from=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."
me=device
source tools/need.sh
source devicelab/box.sh
# Reports failures that no check covers. A subshell leaves the report to its parent, so that there is one line.
trap '((BASH_SUBSHELL)) || die "${0##*/}:$LINENO: $BASH_COMMAND failed"' ERR

limit=${ZYT_DEVICE_TEST_TIMEOUT:-600}
project='' tree=$PWD build=build/device folders=("$PWD")
if [[ ${1-} == --tree ]]; then
    shift
else
    failure=125
    [[ ${1-} != --strict ]] || { export HOSTDEVICE_STRICT=1; shift; }
    [[ $# -gt 0 && $1 != -* ]] || die 'usage: ./dev device run [--strict] PROJECT [COMMAND…]'
    project=$(cd "$called_from" && realpath -m "$1")
    shift
    [[ -f $project/CMakeLists.txt ]] || die "no CMake project in $project"
    build=$work/project
    [[ $project/ == "$PWD"/* ]] || folders+=("$project")
    # A trace lies in the project's folder.
    [[ -z ${HOSTDEVICE_TRACE-} || $HOSTDEVICE_TRACE == /* ]] || export HOSTDEVICE_TRACE=$project/$HOSTDEVICE_TRACE
fi
[[ $limit =~ ^[1-9][0-9]*$ ]] || die "a time-out must be a whole number of seconds, not '$limit'"

mkdir -p "$work"
exec {lock}>"$work/lock"
flock --nonblock "$lock" || die "another run is at work in $work"
if [[ -n ${HOSTDEVICE_PROPERTIES-} ]]; then
    (cd "$called_from" && cat "$HOSTDEVICE_PROPERTIES") >"$work/device.prop" 2>/dev/null ||
        die "cannot read $HOSTDEVICE_PROPERTIES, which HOSTDEVICE_PROPERTIES names"
    export HOSTDEVICE_PROPERTIES=$work/device.prop  # where the box sees it
fi

# Prints the stacks of the first programs that crashed or hung.
show_crashes() {
    local status job command how number shown=0
    for status in "$result"/*/status; do
        [[ -e $status ]] && read -r how number <"$status" && [[ $how != exit ]] && ((shown++ < 4)) || continue
        job=${status%/status}
        mapfile -t -d '' command <"$job/command"  # the directory, the number of arguments, the arguments
        [[ $how != signal ]] || how="killed by signal $number, SIG$(kill -l "$number")"
        [[ $how != hung ]] || how='hung, killed'
        if [[ -s $job/core ]]; then
            (cd "${command[0]}" && exec gdb-multiarch -batch -nx -ex 'set print frame-arguments scalars' \
                -ex 'set solib-search-path /usr/aarch64-linux-gnu/lib' "${command[2]}" "$job/core" \
                -ex 'echo where it was\n' -ex bt -ex 'thread apply all bt') 2>/dev/null |
                sed '1,/^where it was/d' >"$job/backtrace.txt" || true
            sed '/^Thread /,$d' "$job/backtrace.txt" | grep -m 12 '^#' || true
            how+="; every thread: $job/backtrace.txt"
        fi
        command[2]=${command[2]##*/}
        echo "device: ${command[*]:2:command[1]}: $how"
    done >&2
}

# Runs CTest, and exits with status 1 when a test fails.
run_tests() {
    local bad=0 counts
    rm -f "$work/tests.xml"
    ctest --test-dir "$build" --output-on-failure --no-tests=error --timeout "$limit" --output-junit "$work/tests.xml" "$@" ||
        bad=1
    turn_off || bad=1
    show_crashes
    [[ -e $work/tests.xml ]] || die 'no test ran'
    # In this order: all, failed, disabled, skipped.
    mapfile -t counts < <(sed -nE '1,9s/^\s(tests|failures|disabled|skipped)="(.*)"$/\2/p' "$work/tests.xml")
    echo "$((counts[0] - counts[1] - counts[2] - counts[3])) passed, ${counts[1]} failed$(
        ((counts[3] == 0)) || echo ", ${counts[3]} skipped")"
    exit "$bad"
}

build_project() {
    local prefix=$work/prefix
    echo 'building the library for 64-bit Arm'
    build device-library
    logged "$work/install.log" 'installing the library' cmake --install build/device-library --prefix "$prefix"
    echo "building $project"
    grep -qsxF "CMAKE_HOME_DIRECTORY:INTERNAL=$project" "$build/CMakeCache.txt" || rm -rf "$build"
    # Backtraces need debug information.
    logged "$work/project-configure.log" "configuring $project" env PKG_CONFIG_LIBDIR="$prefix/lib/pkgconfig" \
        cmake -S "$project" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$PWD/devicelab/aarch64-linux-gnu.cmake" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -Dzyttools_DIR="$prefix/lib/cmake/zyttools" \
        -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST
    logged "$work/project.log" "building $project" cmake --build "$build" --parallel "$(nproc)"
    # CMake puts the emulator before a command that is a target's name, and not before "$<TARGET_FILE:name>".
    find "$build" -name CTestTestfile.cmake -exec sed -Ei \
        's|^(add_test\(\[=*\[.*\]=*\] )("[^"]*/build/device-run/project/)|\1"'"$tree"'/devicelab/inbox.sh" \2|' {} +
}

programs() { find "$build" -name CMakeFiles -prune -o -type f -executable ! -name '*.so*' "$@"; }

# run_program COMMAND…    exits as the program does
run_program() {
    local status=0 program=("$build/$1")
    [[ -f ${program[0]} ]] || mapfile -t program < <(programs -name "${1##*/}" -print)
    ((${#program[@]} == 1)) || die "no program $1, or several; the build has $(programs -printf '%P ')"
    # The shell's own word about a signal goes nowhere. What a time-out leaves running for a moment has no lock.
    { (cd "$project" && exec timeout --foreground "$limit" "$tree/devicelab/inbox.sh" "${program[0]}" "${@:2}") \
        {lock}>&- 2>&3 || status=$?; } 3>&2 2>/dev/null
    turn_off || status=$failure
    show_crashes
    find "$result" -path '*/offlinelog/*' -type f -printf 'device: offline log: %p\n' | head -n 8 >&2
    exit "$status"
}

{
    need bc bison cmake cpio flex g++ g++-aarch64-linux-gnu gdb-multiarch googletest linux-source-6.1 make pkgconf \
        qemu-system-arm xz-utils
    build_kernel
    boot "${folders[@]}"
    if [[ -n $project ]]; then build_project; else build device; fi
} >&2
[[ -n $project ]] || run_tests --parallel 2 "$@"
[[ $# -gt 0 ]] || run_tests
run_program "$@"
