#!/usr/bin/env bash
# Builds and tests the tree with all supported toolchains and sanitizers, and runs the linters. The builds are presets
# of CMakePresets.json. Installs only the packages of the selected steps.
# usage: tools/check.sh [STEP …]    all steps unless some are named
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
me=check
source tools/need.sh

# In order of execution; steps that find the most in the least time come first.
all_steps=(format shell soong docs gcc strict exports demo exits initializers clang tidy aosp fma address thread)
# The packages of each step; by default those of the suite.
build_packages='g++ cmake make googletest zlib1g-dev'
suite_packages="$build_packages ffmpeg pkgconf"
clang_packages='clang libc++-14-dev libc++abi-14-dev'
declare -A packages=(
    [format]='clang-format git'
    [shell]='shellcheck git'
    [soong]='blueprint-tools golang-1.19-go golang-android-soong-dev golang-github-google-blueprint-dev
        golang-google-protobuf-dev golang-github-golang-protobuf-1-5-dev'
    [docs]=doxygen
    [strict]="$suite_packages python3"
    [exports]="$build_packages binutils"
    [demo]="$suite_packages python3"
    [initializers]="$build_packages $clang_packages binutils"
    [clang]="$suite_packages $clang_packages"
    [tidy]="$build_packages $clang_packages clang-tidy git"
    [aosp]="$suite_packages android-liblog-dev android-libutils-dev"
)

passed=0
failed=()

# run_suite STEP [CTEST-ARGUMENT…]
run_suite() {
    local dir=build/check-$1
    ctest --test-dir "$dir" -j "$(nproc)" --output-on-failure "${@:2}" >"$dir/test.log" 2>&1 || {
        tail -n 60 "$dir/test.log"
        return 1
    }
    grep -E '^[0-9]+% tests passed' "$dir/test.log"
    # ctest does not count tests that did not run.
    ! grep -E 'Not Run' "$dir/test.log"
}

# Sanitizers are used without suppressions.
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# A step without a function of its own builds its preset and runs the suite.
run_step() {
    if declare -F "step_$1" >/dev/null; then "step_$1"; else build "check-$1" && run_suite "$1"; fi
}

# Runs the suite, which includes the guide's node, and the demo in strict mode, and checks that it was on.
step_strict() {
    build check-gcc && HOSTDEVICE_STRICT=1 run_suite gcc || return 1
    grep -q '^hostdevice: strict mode$' build/check-gcc/Testing/Temporary/LastTest.log || { echo "strict mode was off"; return 1; }
    HOSTDEVICE_STRICT=1 ZYT_PRESET=check-gcc ./dev demo >build/check-gcc/demo.log 2>&1 || { tail -n 20 build/check-gcc/demo.log; return 1; }
}

# Checks which objects of the library have static initialisers or destructors, with a mutex that has a destructor as on a
# phone. Threads that outlive static destruction use all static data but the data of these objects.
step_initializers() {
    local dir=build/check-initializers object required='zytbufferpool zytlogutil zytutil' found=''
    mkdir -p "$dir"
    printf '#include <__config>\n#undef _LIBCPP_HAS_TRIVIAL_MUTEX_DESTRUCTION\n' >"$dir/phone.h"
    build check-initializers zyttools_objects || return 1
    for object in $(find "$dir/common/tools" -name '*.o' | sort); do
        ! readelf -SW "$object" | grep -q '\.init_array' || found+=" $(basename "$object" .cpp.o)"
    done
    [[ $(xargs -n 1 <<<"$found" | sort | xargs) == "$required" ]] || { echo "initialisers in$found, not in $required"; return 1; }
    echo "in$found only"
}

# Checks that results do not change on processors that can fuse multiplication and addition.
step_fma() {
    grep -q '\bfma\b' /proc/cpuinfo ||
        { echo "this processor cannot fuse; the device's can, and runs the same tests"; return; }
    build check-fma zytutil_test && run_suite fma -R 'Crop|FaceMapping|Clock|Drawing'
}

# Ends processes while all parts of the library are busy: 1000 rounds when the step is selected, otherwise fewer.
step_exits() {
    build check-gcc reliability_test || return 1
    ZYT_EXIT_ROUNDS=${ZYT_EXIT_ROUNDS:-$exit_rounds} \
        build/check-gcc/tests/reliability_test --gtest_filter='Exit.*' --gtest_brief=1
}

step_format() { git ls-files -co --exclude-standard -- '*.h' '*.cpp' | xargs clang-format --dry-run -Werror; }

step_shell() { git ls-files -co --exclude-standard -- '*.sh' dev .ci/run | xargs shellcheck --external-sources --severity=warning; }

step_tidy() {
    [[ -e build/check-clang/compile_commands.json ]] || cmake --preset check-clang >/dev/null || return 1
    git ls-files -- 'common/**.cpp' 'platform/**.cpp' 'examples/**.cpp' 'tools/**.cpp' | grep -v aosp |
        xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p build/check-clang 2>/dev/null
}

# Checks the device build: Android.bp in the platform's build system, and the same offline log directory in all files.
step_soong() {
    local build=$PWD/build/check-soong file label
    [[ -z $(bpfmt -l Android.bp) ]] || { echo "Android.bp is not as bpfmt has it"; return 1; }
    for file in common/tools/logging/zytofflinelog.cpp device/zyttools.rc device/sepolicy/file_contexts; do
        grep -q '/data/vendor/camera/offlinelog' "$file" || { echo "$file has another directory of the log"; return 1; }
    done
    label=$(sed -n 's/.*:object_r:\(.*\):s0/\1/p' device/sepolicy/file_contexts)
    grep -q "^type $label," device/sepolicy/zyttools.te || { echo "the policy does not declare $label"; return 1; }
    GO111MODULE=off GOPATH=/usr/share/gocode GOCACHE=$build/cache \
        /usr/lib/go-1.19/bin/go build -o "$build/soong" device/soong.go && "$build/soong"
}

# Checks that every public declaration is documented and every link between pages has a target.
step_docs() { ./dev docs; }

# Checks that the shared library exports exactly the names on its list.
step_exports() {
    build check-gcc zyttools || return 1
    local listed exported
    listed=$(grep -v '^#' common/tools/exports.txt | sort -u)
    exported=$(nm -DC --defined-only build/check-gcc/common/tools/libzyttools.so | sed 's/^[0-9a-f]* . //' | sort -u)
    # "<" marks names that are listed but not exported, ">" names that are exported but not listed.
    diff <(echo "$listed") <(echo "$exported") || return 1
    echo "$(wc -l <<<"$exported") names"
}

# Runs the demo with a photograph that is stored rotated and whose name is special to a shell, ffmpeg and printf.
step_demo() {
    local dir=build/check-demo name='-%d turned.jpg'
    mkdir -p "$dir"
    ffmpeg -v error -y -f lavfi -i testsrc=s=64x32 -frames:v 1 -update 1 "$dir/plain.jpg"
    python3 - "$dir/plain.jpg" "$dir/$name" <<'EOF' || return 1
import sys
jpeg = open(sys.argv[1], "rb").read()
exif = b"Exif\0\0MM\0*\0\0\0\x08\0\x01\x01\x12\0\x03\0\0\0\x01\0\x06\0\0\0\0\0\0"
open(sys.argv[2], "wb").write(jpeg[:2] + b"\xff\xe1" + (len(exif) + 2).to_bytes(2, "big") + exif + jpeg[2:])
EOF
    local said size refused
    export ZYT_PRESET=check-gcc  # avoids another build
    said=$(cd "$dir" && ../../dev demo "$name") && size=$(grep '32x64 YUV' <<<"$said") || { echo "$said"; return 1; }
    for refused in 'demo missing.jpg' 'demo a b c' 'test stray' 'docs stray'; do
        # shellcheck disable=SC2086
        said=$(./dev $refused 2>&1) && echo "$refused passes: $said" && return 1
        [[ $said == dev:* && $said != *$'\n'* ]] || { echo "$refused says $said"; return 1; }
    done
    if ./dev test -R NoSuchTest >/dev/null 2>&1; then
        echo "a test that is not there passes"
        return 1
    fi
    echo "turned: ${size% YUV*}"
}

steps=("$@")
exit_rounds=1000
[[ ${#steps[@]} -gt 0 ]] || { steps=("${all_steps[@]}"); exit_rounds=200; }
needed=''
for step in "${steps[@]}"; do
    [[ " ${all_steps[*]} " == *" $step "* ]] || { failure=2; die "no step $step; there are ${all_steps[*]}"; }
    needed+=" ${packages[$step]-$suite_packages}"
done
# shellcheck disable=SC2046
need $(tr -s ' \n' '\n' <<<"$needed" | sort -u)
for step in "${steps[@]}"; do
    start=$SECONDS
    if output=$(run_step "$step" 2>&1); then
        passed=$((passed + 1))
        printf 'ok      %-12s %4d s  %s\n' "$step" $((SECONDS - start)) "$(tail -n 1 <<<"$output")"
    else
        failed+=("$step")
        printf 'FAILED  %-12s %4d s\n%s\n' "$step" $((SECONDS - start)) "$output"
    fi
done
[[ ${#failed[@]} -eq 0 ]] || echo "check: failed: ${failed[*]}" >&2
echo "$passed passed, ${#failed[@]} failed"
[[ ${#failed[@]} -eq 0 ]]
