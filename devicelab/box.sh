# shellcheck shell=bash
# Sourced by device.sh and run.sh, which set `work`, their output directory. Builds the kernel, packs the device's files
# and boots it. Every failure prints one "device: ..." line to stderr and exits with a non-zero status. README.md lists
# the settings.

failure=1
die() {
    trap - ERR
    printf 'device: %s\n' "$*" >&2
    exit "$failure"
}
# Reports failures that no check below covers. A subshell leaves the report to its parent, so that there is one line.
trap '((BASH_SUBSHELL)) || die "${0##*/}:$LINENO: $BASH_COMMAND failed"' ERR

root=${work:?}/rootfs
result=$work/result
filter=''
scratch='' emulator=''
cleanup() {
    [[ -z $emulator ]] || { kill "$emulator" && wait "$emulator"; } 2>/dev/null || true
    [[ -z $scratch ]] || rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

run_limit=${ZYT_DEVICE_TIMEOUT:-1200}
test_limit=${ZYT_DEVICE_TEST_TIMEOUT:-600}
boot_limit=${ZYT_DEVICE_BOOT_TIMEOUT:-60}
for limit in "$run_limit" "$test_limit" "$boot_limit"; do
    [[ $limit =~ ^[1-9][0-9]*$ ]] || die "a time-out must be a whole number of seconds, not '$limit'"
done

# Allows one run at a time.
lock_work() {
    mkdir -p "$work"
    exec {lock}>"$work/lock"
    flock --nonblock "$lock" || die "another run is at work in $work"
}

# logged NAME PURPOSE COMMAND…    runs a command with its output in a log; on failure shows the log's end and PURPOSE
logged() {
    local log=$work/$1.log what=$2
    shift 2
    "$@" >"$log" 2>&1 || { tail -n 20 "$log" >&2; die "$what failed, see $log"; }
}

# Sets `image`. The kernel is built once and cached outside the tree, under a hash of its inputs.
build_kernel() {
    local fragment=$PWD/devicelab/kernel.config key keep line
    key=$({ cat "$fragment"; dpkg-query -W -f='${Version}' linux-source-6.1; } | sha256sum | cut -c1-16)
    keep=${ZYT_DEVICELAB_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zyttools}/kernel-$key
    image=$keep/Image
    [[ ! -s $image ]] || return 0

    echo "building the kernel (a few minutes, once; kept in $keep)"
    scratch=$(mktemp -d "${TMPDIR:-/var/tmp}/zyttools-kernel-XXXXXX")
    # Unused directories are unpacked without sources, because Kconfig reads the Kconfig file of every directory.
    logged kernel-source 'unpacking the kernel' tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$scratch" \
        --strip-components=1 --exclude='linux-source-6.1/drivers/'{gpu,net,media,staging,infiniband,scsi}'/*.[ch]' \
        --exclude='linux-source-6.1/sound/*.[ch]' --exclude='linux-source-6.1/tools/testing/*'
    local make=(nice make -C "$scratch" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- "-j$(nproc)")
    logged kernel-config 'configuring the kernel' "${make[@]}" tinyconfig
    logged kernel-config 'configuring the kernel' \
        env -C "$scratch" scripts/kconfig/merge_config.sh -m .config "$fragment"
    logged kernel-config 'configuring the kernel' "${make[@]}" olddefconfig
    while read -r line; do
        case $line in
            CONFIG_*) grep -qxF "$line" "$scratch/.config" || die "the kernel's configuration refuses $line" ;;
            '# CONFIG_'*' is not set')
                line=${line#\# }
                ! grep -q "^${line%% *}=" "$scratch/.config" || die "the kernel's configuration forces ${line%% *}" ;;
        esac
    done <"$fragment"
    logged kernel 'building the kernel' "${make[@]}" Image

    # Renamed when complete, so that an interrupted or concurrent run leaves no partial kernel.
    mkdir -p "$keep"
    cp "$scratch/arch/arm64/boot/Image" "$keep/Image.$$"
    mv "$keep/Image.$$" "$image"
    rm -rf "$scratch"
    scratch=''
}

build_init() {
    logged init 'building init' \
        aarch64-linux-gnu-g++ -std=c++17 -O2 -static -Wall -Wextra -o "$work/init" devicelab/init.cpp
}

pack_library() { aarch64-linux-gnu-strip -o "$2" "$1"; }

# Copies the shared libraries that the programs need, recursively, from the build or from the cross compiler.
pack_libraries() {
    local queue=("$@") library from
    while ((${#queue[@]})); do
        while read -r library; do
            [[ ! -e $root/lib/$library ]] || continue
            from=$(find "$work" -path "$root" -prune -o -name "$library" -print -quit)
            [[ -n $from ]] || from=$(aarch64-linux-gnu-g++ -print-file-name="$library")
            [[ -f $from ]] || die "no $library to pack, which ${queue[0]##*/} needs"
            pack_library "$from" "$root/lib/$library"
            queue+=("$root/lib/$library")
        done < <(aarch64-linux-gnu-readelf -d "${queue[0]}" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p')
        queue=("${queue[@]:1}")
    done
}

# Creates the initramfs from `root`, init and its settings.
pack_root() {
    aarch64-linux-gnu-strip -o "$root/init" "$work/init"
    printf '%s\n' "$test_limit" "$filter" >"$root/devicelab.conf"
    find "$root" -mindepth 1 -printf '%P\0' |
        cpio --directory="$root" --create --null --format=newc --owner=0:0 --quiet >"$work/initramfs"
}

# Boots the device and shows its console without the kernel's lines until the machine is off.
boot() {
    local console line partial='' up='' why='' start=$SECONDS heard=$SECONDS patience=$boot_limit
    rm -rf "$result"
    truncate -s 0 "$work/console.log" "$work/archive"
    exec {console}< <(exec qemu-system-aarch64 -M virt -cpu cortex-a72 -smp 2 -m 2048 -accel tcg,thread=multi \
        -nodefaults -display none -no-reboot -serial stdio -append 'console=ttyAMA0 rdinit=/init' \
        -kernel "$image" -initrd "$work/initramfs" -device virtio-serial-device \
        -chardev "file,id=results,path=$work/archive" -device virtserialport,chardev=results \
        </dev/null 2>"$work/emulator.log")
    emulator=$!
    while :; do
        if IFS= read -r -t 1 line <&"$console"; then
            line=${partial}${line%$'\r'} partial=''
            printf '%s\n' "$line" >>"$work/console.log"
            case $line in
                *'Attempted to kill init!'*) why="the device's init died (${line##*: })" ;;
                *'Kernel panic - not syncing: '*) why="the kernel panicked: ${line##*not syncing: }" ;;
                'device: fatal: '*) why=${line#device: fatal: } ;;
                'device: up'*) up=1 patience=$((test_limit + 60)) ;;
            esac
            [[ -z $up ]] || heard=$SECONDS  # before init is up, kernel messages do not count as progress
            [[ -z $line || $line =~ ^\[\ *[0-9]+\.[0-9]+\] || $line == 'device: fatal: '* ]] || printf '%s\n' "$line"
        elif (($? > 128)); then
            partial+=$line  # read timed out, possibly in the middle of a line
        else
            break
        fi
        if ((SECONDS - start >= run_limit)); then
            die "not finished after $run_limit s, last line: $(tail -n 1 "$work/console.log")"
        elif ((SECONDS - heard >= patience)); then
            [[ -n $up ]] || die "the kernel did not come up in $boot_limit s ($image; console: $work/console.log)"
            die "nothing heard for $patience s, last line: $(tail -n 1 "$work/console.log")"
        fi
    done
    wait "$emulator" || die "the emulator ended with status $?, saying '$(tail -n 1 "$work/emulator.log")'"
    emulator=''
    [[ -z $why ]] || die "$why (console: $work/console.log)"
    [[ -n $up ]] || die "the machine went off before init was up (console: $work/console.log)"
}

# Unpacks the files from the device.
unpack() {
    mkdir -p "$result"
    [[ -s $work/archive ]] || die "the device went off without sending a result (console: $work/console.log)"
    # An archive without its end mark is refused, even if it has the list of results.
    cpio --extract --make-directories --no-absolute-filenames --quiet --directory="$result" <"$work/archive" \
        2>"$work/archive.log" || die "the result came back truncated: $(tail -n 1 "$work/archive.log")"
    [[ -s $result/results ]] || die "the result came back without its list of tests"
}
