# What the scripts that boot a guest share. To be sourced, with $project and $architecture set.
# shellcheck shell=bash

say() { echo "vm: $*" >&2; }

kernel=$project/build/vm
[[ $architecture = amd64 ]] || kernel+=-$architecture
kernel+=/kernel

# The distribution's current kernel, unpacked in $kernel and not installed; sets $version.
unpack_kernel() {
    local package
    package=$(apt-cache depends "linux-image-$architecture:$architecture" | sed -n 's/ *Depends: *\(linux-image-[0-9][^ ]*\)$/\1/p' | head -n 1)
    [[ -n $package ]] || { say "the distribution has no kernel to boot"; exit 1; }
    version=${package#linux-image-}
    version=${version%:*}
    [[ ! -e $kernel/$version ]] || return 0
    say "unpacking the kernel $version"
    rm -rf "$kernel"
    mkdir -p "$kernel"
    apt-get -qq -o Acquire::Retries=5 download "$package" 2>download.log || { cat download.log >&2; exit 1; }
    dpkg -x "${package%:*}"_*.deb "$kernel"
    rm -f "${package%:*}"_*.deb
    # Without its wrapping it boots in half the time.
    [[ $architecture = arm64 ]] || python3 - "$kernel/boot/vmlinuz-$version" "$kernel/vmlinux" <<'PYTHON'
import lzma, sys
data = open(sys.argv[1], "rb").read()
begin = data.find(b"\xfd7zXZ\0")
unpacked = lzma.LZMADecompressor().decompress(data[begin:]) if begin >= 0 else data
open(sys.argv[2], "wb").write(unpacked)
PYTHON
    depmod -b "$kernel" "$version" 2>/dev/null
    touch "$kernel/$version"
}

# Puts the modules "$2"... and those that they need into the root $1.
add_modules() {
    local root=$1 module
    shift
    for module in "$@"; do
        modprobe -d "$kernel" -S "$version" --show-depends "$module" | sed -n "s|^insmod [^ ]*/\(lib/modules/[^ ]*\).*|\1|p"
    done | sort -u >modules
    tar -C "$kernel" -cf - -T modules "lib/modules/$version/modules.builtin" "lib/modules/$version/modules.order" |
        tar -xf - -C "$root"
    depmod -b "$root" "$version" 2>/dev/null
}

# Sets $machine, the emulator's command line, and $options, the kernel's.
# What a processor is spared matters, as each of its instructions is emulated: no guard against attacks on real ones, no
# self-tests, and the processor's own counter as the clock, which needs no device. A plain processor has no larger page
# tables to walk.
choose_machine() {
    local console=ttyS0
    machine=(qemu-system-x86_64 -machine q35 -cpu qemu64 -kernel "$kernel/vmlinux")
    if [[ $architecture = arm64 ]]; then
        machine=(qemu-system-aarch64 -machine virt -cpu cortex-a72 -kernel "$kernel/boot/vmlinuz-$version")
        console=ttyAMA0
    fi
    machine+=(-accel tcg -nodefaults -no-user-config -display none -no-reboot)
    options="console=$console quiet panic=-1 mitigations=off init_on_alloc=0 audit=0 apparmor=0 tsc=reliable"
    options+=" cryptomgr.notests initcall_blacklist=crypto_kdf108_init"
}
