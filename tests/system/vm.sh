# shellcheck shell=bash disable=SC2154  # $work, $cache, $src: set by tests/system/arm.sh
# Sourced by tests/system/arm.sh: a Debian armhf system booted in
# qemu-system-arm (virt machine, Debian's armmp kernel, emulated by TCG), and
# the same functions container.sh gives the checks: in_ct, ct_boot, ct_halt,
# ct_reboot, plus ct_write for the files the checks replace.
#
# The image: debootstrap --foreign unpacks the release on the host; the VM's
# first boot runs the second stage (vm/stage2), so the packages' maintainer
# scripts run on the ARM CPU they were built for and the host needs no
# binfmt_misc handler.  The kernel comes from the release's own
# linux-image-armmp package; a small initramfs made here from busybox-static
# and the kernel's modules (vm/init) mounts the root disk.  Cached in
# $cache/armhf-SUITE-KEY/ (disk.img, vmlinuz, initrd.img, the ssh key), KEY
# being a hash of the package list and of the files and functions that make
# the image.
# The checks reach the VM by ssh over a forwarded port of qemu's user-mode
# network, one connection shared by all commands.

vm_dir=""
vm_pid=""
vm_port=""
vm_rtc=""
vm_payload=""
vm_boot_wait=600

vm_packages() { # suite
    local curl=libcurl4
    # The 64-bit time_t transition renamed the libraries whose ABI changed.
    [ "$1" = bookworm ] || curl=libcurl4t64
    echo "systemd,systemd-sysv,udev,kmod,dbus,iptables,adduser,$curl,libdbus-1-3,procps,openssh-server"
}

# The kernel: the release's linux-image-armmp, unpacked on the host.  Its
# modules go into the root with their index (so the guest need not run the
# package's initramfs build), and an initramfs of busybox and the modules
# that reach the root disk, in the order modprobe loads them.
vm_kernel() { # suite part-dir
    local part=$2 kernel=$2/kernel ir=$2/initrd ver module path name
    for name in $(tavel_release_names "$1"); do
        rm -rf "$kernel"
        mmdebstrap --quiet --variant=extract --architectures=armhf --skip=cleanup/apt/lists \
            --include=linux-image-armmp,busybox-static \
            "$name" "$kernel" "$TAVEL_DEBIAN_MIRROR" >>"$part/kernel.log" 2>&1 && tavel_root_is "$kernel" "$1" && break
    done
    tavel_merge_usr "$kernel"
    ver=$(basename "$(find "$kernel/lib/modules/" -mindepth 1 -maxdepth 1 2>/dev/null | head -n 1)")
    [ -n "$ver" ] || { echo "no armmp kernel from $1 (see $part/kernel.log)" >&2; return 1; }
    cp "$kernel/boot/vmlinuz-$ver" "$part/vmlinuz"
    depmod -b "$kernel" "$ver"
    mkdir -p "$part/root/lib/modules"
    cp -a "$kernel/lib/modules/$ver" "$part/root/lib/modules/"
    mkdir -p "$ir/lib/modules" "$ir/bin" "$ir/proc" "$ir/sys" "$ir/dev" "$ir/root"
    cp "$kernel/bin/busybox" "$ir/bin/busybox"
    install -m 755 "$src/tests/system/vm/init" "$ir/init"
    : >"$ir/modules"
    for module in virtio_mmio virtio_blk crc32c_generic ext4; do
        modprobe -d "$kernel" -S "$ver" --show-depends "$module" | awk '$1 == "insmod" { print $2 }' |
            while read -r path; do
                module=$(basename "${path%.xz}")
                grep -qxF "$module" "$ir/modules" && continue
                case "$path" in
                    *.xz) xz -dc "$path" >"$ir/lib/modules/$module" ;;
                    *) cp "$path" "$ir/lib/modules/$module" ;;
                esac
                echo "$module" >>"$ir/modules"
            done
    done
    (cd "$ir" && find . | cpio -o -H newc --quiet | gzip -9) >"$part/initrd.img"
}

# debootstrap's first stage, by the release's codename or an alias
# (scripts/arm-target.sh).
vm_debootstrap() { # suite root log
    local name
    for name in $(tavel_release_names "$1"); do
        rm -rf "$2"
        if debootstrap --foreign --arch=armhf --variant=minbase --include="$(vm_packages "$1")" \
            "$name" "$2" "$TAVEL_DEBIAN_MIRROR" >>"$3" 2>&1 && tavel_root_is "$2" "$1"; then
            return 0
        fi
        echo "debootstrap of $1 as '$name' failed or gave another release; see $3" >&2
    done
    return 1
}

vm_make_image() { # suite dir
    local suite=$1 dir=$2 part=$2.part
    rm -rf "$part"
    mkdir -p "$part"
    echo "making the armhf $suite image $dir (cached for later runs)"
    vm_debootstrap "$suite" "$part/root" "$part/debootstrap.log" || return 1
    vm_kernel "$suite" "$part" || return 1
    ssh-keygen -q -t ed25519 -N "" -C tavel-systest -f "$part/id_ed25519"
    install -D -m 600 "$part/id_ed25519.pub" "$part/root/root/.ssh/authorized_keys"
    chmod 700 "$part/root/root" "$part/root/root/.ssh"
    install -D -m 644 "$src/tests/system/vm/wired.network" "$part/root/etc/systemd/network/50-wired.network"
    install -m 755 "$src/tests/system/vm/stage2" "$part/root/tavel-stage2"
    mke2fs -q -t ext4 -L gwroot -d "$part/root" "$part/disk.img" 3G >/dev/null
    rm -rf "$part/root" "$part/kernel" "$part/initrd"
    local started=$SECONDS
    # Two hours is several times what it takes; a guest that never powers
    # off must not hold the run for ever.
    vm_command "$part" "$part/disk.img" "$part/stage2.log" "tavel.init=/tavel-stage2" -nic none
    timeout 7200 "${vm_cmd[@]}" </dev/null || true
    if ! grep -q "tavel-stage2: done" "$part/stage2.log"; then
        echo "the image's first boot did not finish (see $part/stage2.log):" >&2
        grep -a "tavel-stage2\|E: \|W: " "$part/stage2.log" | tail -n 5 >&2
        return 1
    fi
    echo "second stage in the VM: $((SECONDS - started)) s"
    mv "$part" "$dir"
}

# Sets vm_dir to the cached image of SUITE, made first when missing.
vm_image() { # suite
    local key
    key=$(cat "$src/tests/system/vm/"* <(declare -f vm_packages vm_kernel vm_debootstrap vm_make_image) \
        <(vm_packages "$1") | sha256sum | cut -c1-12)
    vm_dir="$cache/armhf-$1-$key"
    [ -s "$vm_dir/disk.img" ] || vm_make_image "$1" "$vm_dir"
}

# The qemu command line of a boot, in vm_cmd: qemu ends when the guest
# powers off or reboots.
vm_command() { # image-dir disk console-log kernel-arguments [qemu options...]
    local dir=$1 disk=$2 log=$3 args=$4
    shift 4
    vm_cmd=(qemu-system-arm -M virt -m 1024 -smp 2 -display none -monitor none -no-reboot \
        -kernel "$dir/vmlinuz" -initrd "$dir/initrd.img" -append "console=ttyAMA0 panic=-1 $args" \
        -drive "if=none,id=hd,format=raw,file=$disk" -device virtio-blk-device,drive=hd \
        -device virtio-rng-device -chardev "file,id=con,path=$log,append=on" -serial chardev:con "$@")
}

vm_ssh() {
    ssh -F none -o BatchMode=yes -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR \
        -o ConnectTimeout=20 -o ControlMaster=auto -o ControlPath="$work/ssh-%C" -o ControlPersist=yes \
        -i "$vm_dir/id_ed25519" -p "$vm_port" root@127.0.0.1 "$@"
}

in_ct() {
    # A VM that is gone must fail every check, the negative ones too.
    if [ -z "$vm_pid" ] || ! kill -0 "$vm_pid" 2>/dev/null; then
        echo "the VM is not running" >&2
        if [ "$BASH_SUBSHELL" -gt 0 ]; then exit 1; fi
        return 1
    fi
    vm_ssh -n -- "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 HOME=/root $(printf '%q ' "$@")"
}

ct_write() { # path: the device file replaced by standard input
    local q
    q=$(printf '%q' "$1")
    vm_ssh -- "cat >$q.new && mv $q.new $q"
}

vm_free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Boots the VM on $work/disk.img (the clock at $vm_rtc when set), waits for
# ssh and for systemd's boot to end; on the first boot of a run, unpacks
# $vm_payload (a tar file) into the root and starts what it enabled.
ct_boot() {
    local rtc=()
    [ -z "$vm_rtc" ] || rtc=(-rtc "base=$vm_rtc")
    vm_port=$(vm_free_port)
    vm_command "$vm_dir" "$work/disk.img" "$work/console.log" "" \
        -netdev "user,id=net,hostfwd=tcp:127.0.0.1:$vm_port-:22" -device virtio-net-device,netdev=net "${rtc[@]}"
    # qemu itself is the job, so a kill at the halt's time limit ends it.
    "${vm_cmd[@]}" </dev/null &
    vm_pid=$!
    boot_wait "$vm_pid" "$vm_boot_wait" "no ssh into the VM" in_ct true || return 1
    if [ -n "$vm_payload" ]; then
        vm_ssh -- "tar -x -C / && systemctl daemon-reload && systemctl start sysinit.target multi-user.target" \
            <"$vm_payload" ||
            { echo "the device's files could not be put in place" >&2; return 1; }
        vm_payload=""
    fi
    boot_ended "the VM" 300
}

ct_halt() {
    [ -n "$vm_pid" ] || return 0
    in_ct systemctl poweroff >/dev/null 2>&1 || true
    halted "$vm_pid" 120
    vm_ssh -O exit >/dev/null 2>&1 || true
    vm_pid=""
}
