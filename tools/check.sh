#!/usr/bin/env bash
# Builds and tests the tree with every toolchain that matters, under sanitizers, and runs the linters.
# usage: tools/check.sh [STEP …]    all steps unless some are named
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source tools/need.sh

passed=0
failed=()

# configure_and_build NAME CMAKE-ARGUMENT…    all targets, or those in the array `targets`
targets=()
configure_and_build() {
    local dir=build/check-$1
    mkdir -p "$dir"
    { cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${@:2}" &&
        cmake --build "$dir" -j "$(nproc)" ${targets[@]+--target "${targets[@]}"}; } >"$dir/build.log" 2>&1 || {
        grep -E 'error|warning' -A 5 "$dir/build.log" | head -n 40
        return 1
    }
}

# build_and_test NAME CMAKE-ARGUMENT…
build_and_test() {
    configure_and_build "$@" && run_suite "build/check-$1"
}

# run_suite DIRECTORY CTEST-ARGUMENT…
run_suite() {
    ctest --test-dir "$1" -j "$(nproc)" --output-on-failure "${@:2}" >"$1/test.log" 2>&1 || {
        tail -n 60 "$1/test.log"
        return 1
    }
    grep -E '^[0-9]+% tests passed' "$1/test.log"
    # A test that did not run is no test that passed.
    ! grep -E 'Not Run' "$1/test.log"
}

strict="-DZYT_WERROR=ON"
# Only clang with libc++ checks the lock annotations.
libcxx="-stdlib=libc++ -D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS -Wthread-safety"

clang=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ "-DCMAKE_CXX_FLAGS=$libcxx")

step_gcc() { build_and_test gcc $strict; }

step_clang() {
    build_and_test clang $strict "${clang[@]}"
}

# The lock rules are worth something only if breaking one is noticed: takes one lock out and wants to see that it is.
step_locks() {
    local copy=build/check-locks
    rm -rf "$copy" && mkdir -p "$copy" && cp -r common platform "$copy"
    local compile=(clang++ -std=c++17 -fsyntax-only $libcxx -Werror -I "$copy/common/tools" -I "$copy/platform/host/include"
        -I "$copy/platform/host/standin" "$copy/common/tools/zytbuffermanager/zytbufferpool.cpp")
    "${compile[@]}" || return 1
    sed -i '/::PutBufferToPool/,/^}/s/zyt::Lock lock(m_busyBufferListLock);//' "$copy/common/tools/zytbuffermanager/zytbufferpool.cpp"
    if "${compile[@]}" 2>"$copy/errors"; then
        echo "a missing lock was not noticed"
        return 1
    fi
    grep -m 1 -E 'requires holding mutex' "$copy/errors"
}

# The platform's own log and strong pointers, from Debian's packages.
step_aosp() { build_and_test aosp $strict -DZYT_HOST_AOSP=ON; }

# As far as a compiler may go in fusing multiplications and additions: results must not change.
step_fma() {
    if ! grep -q '\bfma\b' /proc/cpuinfo; then
        echo "this processor cannot fuse; the device's can, and runs the same tests"
        return 0
    fi
    local targets=(zytutil_test)
    configure_and_build fma "-DCMAKE_CXX_FLAGS=-O2 -mfma -ffp-contract=fast" &&
        run_suite build/check-fma -R 'Crop|FaceMapping|Clock|Drawing'
}

# Address and undefined-behaviour sanitizers, with leaks. Nothing is suppressed.
step_address() {
    ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 \
        UBSAN_OPTIONS=print_stacktrace=1 build_and_test address -DZYT_SANITIZE=address,undefined
}

step_thread() {
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 build_and_test thread -DZYT_SANITIZE=thread
}

# A thousand processes that end with everything going on.
step_exits() {
    [[ -e build/check-gcc/tests/reliability_test ]] || configure_and_build gcc $strict || return 1
    ZYT_EXIT_ROUNDS=${ZYT_EXIT_ROUNDS:-1000} build/check-gcc/tests/reliability_test --gtest_filter='Exit.*' --gtest_brief=1
}

cxx_files() { git ls-files -co --exclude-standard -- '*.h' '*.cpp'; }

step_format() { cxx_files | xargs clang-format --dry-run -Werror; }

step_tidy() {
    [[ -e build/check-clang/compile_commands.json ]] ||
        cmake -S . -B build/check-clang "${clang[@]}" >/dev/null || return 1
    git ls-files -- 'common/**.cpp' 'platform/**.cpp' 'examples/**.cpp' 'tools/**.cpp' | grep -v aosp |
        xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p build/check-clang 2>/dev/null
}

# A device's build: Android.bp in the platform's own build system, and one directory of the offline log everywhere.
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

# Every public declaration is documented, and every link between pages leads somewhere.
step_docs() { ./dev docs; }

# The shared library exports its classes and nothing else, and nothing of the standard library.
step_exports() {
    configure_and_build gcc $strict || return 1
    local foreign
    foreign=$(nm -DC --defined-only build/check-gcc/common/tools/libzyttools.so |
        sed 's/^[0-9a-f]* . //' | grep -vE '^(vtable for )?(ZYT|WrapperTask::)' || true)
    [[ -z $foreign ]] || { echo "exported besides the library's own: $foreign"; return 1; }
}

# The demo with a photograph that is stored turned, under a name that means something to a shell, ffmpeg and printf.
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
[[ ${#steps[@]} -gt 0 ]] ||
    steps=(format soong docs demo gcc exports clang locks tidy aosp fma address thread exits)

need g++ cmake make googletest clang libc++-14-dev libc++abi-14-dev clang-format clang-tidy doxygen pkgconf libpng-dev \
    ffmpeg android-liblog-dev android-libutils-dev git python3 blueprint-tools golang-1.19-go golang-android-soong-dev \
    golang-github-google-blueprint-dev golang-google-protobuf-dev golang-github-golang-protobuf-1-5-dev
for step in "${steps[@]}"; do
    declare -F "step_$step" >/dev/null || { echo "check: no step $step" >&2; exit 2; }
    start=$SECONDS
    if output=$("step_$step" 2>&1); then
        passed=$((passed + 1))
        printf 'ok      %-9s %4d s  %s\n' "$step" $((SECONDS - start)) "$(tail -n 1 <<<"$output")"
    else
        failed+=("$step")
        printf 'FAILED  %-9s %4d s\n%s\n' "$step" $((SECONDS - start)) "$output"
    fi
done
[[ ${#failed[@]} -eq 0 ]] || echo "check: failed: ${failed[*]}" >&2
echo "$passed passed, ${#failed[@]} failed"
[[ ${#failed[@]} -eq 0 ]]
