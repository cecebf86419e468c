# shellcheck shell=bash
# Sourced by run.sh: builds the kernel of the box, boots it and ends it.

work=$PWD/build/device-run
result=$work/result
scratch='' emulator=''
cleanup() {
    [[ -z $emulator ]] || kill "$emulator" 2>/dev/null || true
    rm -rf "$result/.box/pid" ${scratch:+"$scratch"}
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Sets `image`. The kernel is built once and cached outside the tree, under a hash of its inputs.
build_kernel() {
    local fragment=$PWD/devicelab/kernel.config key keep refused
    key=$({ grep -E '^(# )?CONFIG_' "$fragment"; dpkg-query -W -f='${Version}' linux-source-6.1; } | sha256sum | cut -c1-16)
    keep=${ZYT_DEVICELAB_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zyttools}/kernel-$key
    image=$keep/Image
    [[ ! -s $image ]] || return 0

    echo "building the kernel (a few minutes, once; kept in $keep)"
    scratch=$(mktemp -d "${TMPDIR:-/var/tmp}/zyttools-kernel-XXXXXX")
    # Unused directories are unpacked without sources, because Kconfig reads the Kconfig file of every directory.
    logged "$work/kernel-source.log" 'unpacking the kernel' tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$scratch" \
        --strip-components=1 --exclude='linux-source-6.1/drivers/'{gpu,media,staging,infiniband,scsi}'/*.[ch]' \
        --exclude='linux-source-6.1/sound/*.[ch]' --exclude='linux-source-6.1/tools/testing/*'
    local make=(nice make -C "$scratch" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- "-j$(nproc)")
    logged "$work/kernel-config.log" 'configuring the kernel' "${make[@]}" tinyconfig
    logged "$work/kernel-config.log" 'configuring the kernel' \
        env -C "$scratch" scripts/kconfig/merge_config.sh -m .config "$fragment"
    logged "$work/kernel-config.log" 'configuring the kernel' "${make[@]}" olddefconfig
    refused=$(grep '^CONFIG_' "$fragment" | grep -vxFf "$scratch/.config" || true
        sed -n 's/^# \(CONFIG_.*\) is not set$/^\1=/p' "$fragment" | grep -f - "$scratch/.config" || true)
    [[ -z $refused ]] || die "the kernel's configuration differs: ${refused//$'\n'/, }"
    logged "$work/kernel.log" 'building the kernel' "${make[@]}" Image

    # Renamed when complete, so that an interrupted or concurrent run leaves no partial kernel.
    mkdir -p "$keep"
    cp "$scratch/arch/arm64/boot/Image" "$keep/Image.$$"
    mv "$keep/Image.$$" "$image"
    rm -rf "$scratch"
    scratch=''
}

# why_off    prints why the box went off, if it knows
why_off() {
    local why
    why=$(sed -nE 's/\r$//; s/^device: fatal: |.*(Kernel panic - not syncing: )/\1/p' "$work/console.log" | head -n 1)
    echo "${why:-the emulator says '$(tail -n 1 "$work/emulator.log")'} (console: $work/console.log)"
}

# boot FOLDER…    boots the box with these folders at their own paths, for inbox.sh to run programs in
boot() {
    local folder shares=() limit=${ZYT_DEVICE_BOOT_TIMEOUT:-60} start=$SECONDS
    share() {  # SOURCE TAG OPTIONS
        shares+=(-fsdev "local,id=$2,path=${1//,/,,},multidevs=remap,$3" -device "virtio-9p-device,fsdev=$2,mount_tag=$2")
    }
    logged "$work/init.log" 'building init' \
        aarch64-linux-gnu-g++ -std=c++17 -O2 -static -Wall -Wextra -o "$work/init" devicelab/init.cpp
    (cd "$work" && cpio --create --format=newc --owner=0:0 --quiet <<<init >initramfs)
    rm -rf "$result"
    mkdir -p "$result/.box/queue"
    # The box's user is root, whose owners and modes an ordinary user keeps as attributes.
    share "$result" result security_model=mapped-xattr
    share "$result" own security_model=mapped-xattr
    share /usr/aarch64-linux-gnu/lib share0 security_model=none,readonly=on
    echo /lib >"$result/.box/mounts"
    for folder; do
        [[ ! $folder/ =~ ^/(data|dev|lib|proc|run|sys)/|$'\n' ]] || die "the box has a folder of its own in the way of $folder"
        share "$folder" "share$(wc -l <"$result/.box/mounts")" security_model=none
        echo "$folder" >>"$result/.box/mounts"
    done
    qemu-system-aarch64 -M virt -cpu cortex-a72 -smp 2 -m 2048 -accel tcg,thread=multi -nodefaults -display none \
        -no-reboot -serial "file:${work//,/,,}/console.log" -append 'console=ttyAMA0 rdinit=/init' -kernel "$image" \
        -initrd "$work/initramfs" "${shares[@]}" </dev/null >"$work/emulator.log" 2>&1 &
    emulator=$!
    disown  # the shell says nothing when it is killed
    until [[ -e $result/.box/up ]]; do
        kill -0 "$emulator" 2>/dev/null || die "the box did not come up: $(why_off)"
        ((SECONDS - start < limit)) || die "the box did not come up in $limit s: $(why_off)"
        sleep 0.1
    done
    echo "$emulator" >"$result/.box/pid"
    echo "the box is up"
}

# Ends the box once the cores of hung programs are written. Fails when it went off before, or hangs.
turn_off() {
    local start=$SECONDS
    kill -0 "$emulator" 2>/dev/null || { emulator=''; echo "device: the box went off: $(why_off)"; return 1; } >&2
    : >"$result/.box/queue/off"
    while kill -0 "$emulator" 2>/dev/null; do
        ((SECONDS - start < 120)) || { echo "device: the box does not turn off: $(why_off)" >&2; return 1; }
        sleep 0.1
    done
    emulator=''
}
