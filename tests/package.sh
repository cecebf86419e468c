#!/usr/bin/env bash
# Installs into a clean prefix, moves it, and builds the documents' examples with it alone: the guide's project with
# find_package, the README's node with pkg-config.
# usage: package.sh BUILD-DIRECTORY COMPILER FLAGS
set -euo pipefail
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$1
export CXX=$2 CXXFLAGS="$3 -Wall -Wextra -Wconversion -Wshadow -Werror"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# Writes the code blocks of a document that begin with a comment with a file name, or "continued" in later blocks.
extract() {
    awk '/^```/ { file = ""; isFirst = !isOpen; isOpen = !isOpen; next }
         isFirst && /^(\/\/|#) [A-Za-z]+\.[a-z]+(, continued)?$/ { file = $2; sub(/,$/, "", file) }
         { isFirst = 0 }
         file { print > file }' "$1"
}

# run PROGRAM EXPECTED-LINE
run() {
    local seen
    seen=$("$1" 2>"$dir/log") && [[ $seen == "$2" ]] || {
        cat "$dir/log"
        echo "package: $1 said '$seen', not '$2'"
        exit 1
    } >&2
}

cmake --install "$build" --prefix "$dir/first" >/dev/null
mv "$dir/first" "$dir/prefix"
libraries=$(dirname "$(find "$dir/prefix" -name libzyttools.so.1)")

mkdir "$dir/guide" "$dir/readme"
cd "$dir/guide"
extract "$tree/docs/guide.md"
cmake -S . -B build -DCMAKE_PREFIX_PATH="$dir/prefix" >/dev/null
cmake --build build >"$dir/log" 2>&1 || { cat "$dir/log" >&2; exit 1; }
run build/brightnode_test passed
HOSTDEVICE_TRACE=timeline.json run build/brightnode bright_640x480_YUV420NV12.raw
[[ $(stat -c %s bright_640x480_YUV420NV12.raw) == $((640 * 480 * 3 / 2)) ]]
for section in Brighten zyt::{Image,CpuAccess,ParallelRows,FrameQueue,WriteDump}; do
    # The platform's own tracing does nothing at a desk.
    grep -qi '^ZYT_HOST_AOSP:.*=\(on\|true\)' "$build/CMakeCache.txt" || grep -q "\"$section\"" timeline.json
done
export PKG_CONFIG_PATH=$libraries/pkgconfig
flags=$(pkg-config --cflags zyttools)
# shellcheck disable=SC2046,SC2086
{
    $CXX -std=c++17 $CXXFLAGS -fsyntax-only ring.cpp $flags
    # The row functions without SIMD.
    printf "#include <cstring>\n#undef __x86_64__\n#undef __aarch64__\n#include <nodekit/rawpixels.h>\n" |
        $CXX -std=c++17 $CXXFLAGS -fsyntax-only -x c++ - $flags
    ! pkg-config --exists opencv4 ||
        $CXX -std=c++17 $CXXFLAGS -fsyntax-only opencv.cpp $flags $(pkg-config --cflags opencv4 | sed 's/-I/-isystem /g')
    [[ ! -e /usr/include/libyuv.h ]] || $CXX -std=c++17 $CXXFLAGS -fsyntax-only libyuv.cpp $flags
}

cmake -S "$tree/examples/denoise" -B "$dir/denoise" -DCMAKE_PREFIX_PATH="$dir/prefix" >/dev/null
cmake --build "$dir/denoise" >"$dir/log" 2>&1 || { cat "$dir/log" >&2; exit 1; }
head -c 20 /dev/zero >"$dir/dark_8x2_RawMipi10.raw"
frame=$dir/dark_8x2_RawMipi10.raw
"$dir/denoise/denoise" "$frame" "$frame" "$frame" "$frame" "$dir"
cmp "$dir/denoise_8x2_Raw16.raw" <(head -c 32 /dev/zero)

cd "$dir/readme"
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$tree/README.md" >main.cpp
# shellcheck disable=SC2046,SC2086
$CXX -std=c++17 $CXXFLAGS main.cpp -o by-pkgconfig $(pkg-config --cflags --libs zyttools)
LD_LIBRARY_PATH=$libraries run ./by-pkgconfig ''
[[ $(stat -c %s mynode_1920x1080_YUV420NV12.raw) == $((1920 * 1080 * 3 / 2)) ]]
