# Installs what building and testing need, from Debian's packages, when it is
# missing.  Sourced by the other scripts; needs root (or sudo) only when
# something has to be installed.
TAVEL_DEPS="build-essential cmake ninja-build g++ clang libclang-rt-14-dev pkg-config
  libcurl4-openssl-dev libdbus-1-dev dbus-daemon libgtest-dev googletest
  openssl python3 cppcheck clang-tidy clang-format systemd iptables iproute2 strace util-linux"

# The toolchain matrix (scripts/matrix.sh): older and newer compilers than
# the default ones, as vendor SDKs ship them.
TAVEL_MATRIX_DEPS="g++-11 g++-12 clang-13 clang-16"

# The 32-bit ARM cross build (scripts/build-arm.sh): Debian's cross compiler
# and user-mode qemu (to run the target's tests on this host) for the host,
# and the target's libraries from the armhf archive.  The host tools it also
# needs are in TAVEL_DEPS.
TAVEL_ARM_HOST_DEPS="crossbuild-essential-armhf qemu-user"
TAVEL_ARM_DEPS="libcurl4-openssl-dev:armhf libdbus-1-dev:armhf libgtest-dev:armhf libstdc++6:armhf"

# The armhf booted-system test (scripts/system-test.sh --arm): images made by
# debootstrap and mmdebstrap, booted in qemu-system-arm; the kernel's module
# list (depmod) and the initramfs archive (cpio) are made on the host.
TAVEL_ARM_VM_DEPS="debootstrap mmdebstrap qemu-system-arm kmod cpio e2fsprogs openssh-client xz-utils"

# A name without an architecture means the host's: once the armhf dev
# packages are in, "libcurl4-openssl-dev" alone would also be satisfied by
# libcurl4-openssl-dev:armhf.  Architecture-independent packages are
# registered as NAME:all.
tavel_host_arch() {
    dpkg --print-architecture
}

tavel_package_installed() {
    local p=$1
    case "$p" in *:*) ;; *) p="$p:$(tavel_host_arch)" ;; esac
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
        dpkg-query -W -f='${Status}' "${p%%:*}:all" 2>/dev/null | grep -q "install ok installed"
}

tavel_missing_packages() {
    local missing="" p
    for p in "$@"; do
        tavel_package_installed "$p" || missing="$missing $p"
    done
    echo "$missing"
}

# Another apt or dpkg run (an unattended upgrade, a colleague's install) holds
# the package manager's lock: wait for it rather than fail.
TAVEL_APT_LOCK_WAIT=${TAVEL_APT_LOCK_WAIT:-600}
tavel_apt_get() {
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout="$TAVEL_APT_LOCK_WAIT" "$@"
}

tavel_ensure_packages() {
    local missing
    missing=$(tavel_missing_packages "$@")
    [ -z "$missing" ] && return 0
    echo "Installing:$missing" >&2
    # One index that cannot be fetched (a mirror in mid-sync) must not stop the
    # install: apt-get install below still fails if a package is missing.
    tavel_apt_get update -qq || echo "apt-get update reported errors; using the package lists at hand" >&2
    # shellcheck disable=SC2086
    tavel_apt_get install -y -qq --no-install-recommends $missing >/dev/null
}

# Debian's python3 is what the tests run with, whatever else is on PATH.
tavel_python() {
    if [ -x /usr/bin/python3 ]; then echo /usr/bin/python3; else command -v python3; fi
}
