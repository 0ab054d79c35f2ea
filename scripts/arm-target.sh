# shellcheck shell=bash
# The armhf target's libraries, for scripts/build-arm.sh and
# scripts/package-deb.sh armhf.  Sourced after scripts/deps.sh.
#
# First choice: Debian's armhf multiarch packages, installed beside the
# host's.  A Multi-Arch: same library must then have the same version for
# both architectures, so when the armhf index of a suite cannot be fetched (a
# mirror in mid-sync) while the host already has that suite's newer version,
# apt cannot install them.  The host's packages are never downgraded or
# removed for this (--no-remove, no --allow-downgrades): the build then takes
# the same packages into a private sysroot instead (arm_sysroot), which needs
# no change to the host at all.  TAVEL_ARM_SYSROOT=1 takes the sysroot at
# once; a sysroot made before is kept while it holds the same packages.
#
#   tavel_arm_target_root DIR   sets TAVEL_ARM_SYSROOT_DIR to DIR when the
#                               build goes through the sysroot made there,
#                               to "" when through the multiarch packages

arm_sysroot_packages() {
    # shellcheck disable=SC2086
    echo $TAVEL_ARM_DEPS libc6-dev libstdc++-12-dev | sed 's/:armhf//g'
}
arm_sysroot_ready() {
    [ -f "$1/.apt/packages" ] && [ "$(cat "$1/.apt/packages")" = "$(arm_sysroot_packages)" ] &&
        [ -f "$1/.dpkg/status" ]
}

# Registers an unpacked package in the sysroot's own dpkg database
# (ROOT/.dpkg), so that dpkg-shlibdeps run with DPKG_ADMINDIR pointing there
# maps each library to its package and reads that package's shlibs and
# symbols files, as it does with the multiarch packages in the host's
# database.  Its file lists name the files where they are, under ROOT: that
# is the path dpkg-shlibdeps finds a library at and asks dpkg-query about.
arm_sysroot_register() { # root deb
    local root=$1 deb=$2 admin="$1/.dpkg" ctl name
    ctl=$(mktemp -d)
    dpkg-deb -e "$deb" "$ctl"
    name=$(dpkg-deb -f "$deb" Package)
    if [ "$(dpkg-deb -f "$deb" Multi-Arch)" = same ]; then
        name="$name:$(dpkg-deb -f "$deb" Architecture)"
    fi
    { sed '/^$/d' "$ctl/control"; echo "Status: install ok installed"; echo; } >>"$admin/status"
    dpkg-deb -c "$deb" | awk -v root="$root" '{ p = $6; sub(/^\./, "", p); sub(/\/$/, "", p); if (p != "") print root p }' \
        >"$admin/info/$name.list"
    local f
    for f in shlibs symbols; do
        if [ -f "$ctl/$f" ]; then cp "$ctl/$f" "$admin/info/$name.$f"; fi
    done
    rm -rf "$ctl"
}

# A target root of Debian's armhf packages that leaves the host alone: apt
# runs with a state of its own (armhf only, an empty package database, its
# own lists and cache under DIR/.apt), resolves the whole dependency closure
# from nothing, downloads it, and each package is unpacked into DIR and
# registered in DIR/.dpkg.  Absolute symbolic links are made relative, so
# they resolve inside DIR.
arm_sysroot() {
    local root=$1 state="$1/.apt"
    local want
    want=$(arm_sysroot_packages)
    if arm_sysroot_ready "$root"; then
        echo "sysroot: $root (up to date)"
        return 0
    fi
    echo "sysroot: $root from the armhf packages $want"
    rm -rf "$root"
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
    : >"$state/status"
    local opts=(-o APT::Architecture=armhf -o APT::Architectures::=armhf -o Dir::State::Lists="$state/lists"
        -o Dir::State::status="$state/status" -o Dir::Cache="$state/cache" -o Debug::NoLocking=1
        -o Acquire::Retries=3)
    # An index that cannot be fetched leaves that suite out, as for the host.
    apt-get "${opts[@]}" update -qq || echo "sysroot: apt-get update reported errors; using the lists it got" >&2
    # shellcheck disable=SC2086
    apt-get "${opts[@]}" install -y -qq --download-only --no-install-recommends $want >/dev/null
    arm_sysroot_unpack "$root" "$state/cache/archives"
    rm -rf "$state/cache" "$state/lists"
    echo "$want" >"$state/packages"
}

TAVEL_DEBIAN_MIRROR=${TAVEL_DEBIAN_MIRROR:-http://deb.debian.org/debian}
# A mirror in mid-sync may serve a release's index older than its Release
# file for hours, while the same index under the release's alias (stable,
# oldstable) still matches that alias's own, older Release file.  The names
# to try, in order; tavel_root_is tells whether what one gave is the release.
tavel_release_names() { echo "$1 stable oldstable"; }
tavel_root_is() { # root codename: by its os-release, or by the index it came from
    grep -qsx "VERSION_CODENAME=$2" "$1/etc/os-release" ||
        grep -qsx "Codename: $2" "$1"/var/lib/apt/lists/*Release
}

# Packages unpacked by mmdebstrap --variant=extract lack a merged-/usr
# release's top-level links (the C library's linker script names /lib, the
# kernel's modules are under /usr/lib/modules): they come from its installer.
tavel_merge_usr() { # root
    local top
    for top in bin sbin lib; do
        [ -e "$1/$top" ] || [ ! -d "$1/usr/$top" ] || ln -s "usr/$top" "$1/$top"
    done
}

# Unpacks the packages of DEBDIR into ROOT, registers them in ROOT/.dpkg
# and makes absolute symbolic links relative, so they resolve inside ROOT.
arm_sysroot_unpack() { # root debdir
    local root=$1 deb link target
    mkdir -p "$root/.dpkg/info" "$root/.dpkg/updates"
    # The host's architecture first, as in the host's own database; format 1
    # names the files of Multi-Arch: same packages PACKAGE:ARCH.*.
    printf '%s\narmhf\n' "$(tavel_host_arch)" >"$root/.dpkg/arch"
    echo 1 >"$root/.dpkg/info/format"
    for deb in "$2"/*.deb; do
        dpkg-deb -x "$deb" "$root"
        arm_sysroot_register "$root" "$deb"
    done
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$root$target")" "$link"
    done < <(find "$root" \( -path "$2" -o -path "$root/.dpkg" \) -prune -o -type l -lname '/*' -print0)
}

# The target root of another Debian release than the host's (SUITE, e.g.
# trixie, whose 32-bit userland has a 64-bit time_t): mmdebstrap downloads
# the same packages' closure from that release and unpacks it, then it is
# registered as above.  The cross compiler stays the host's gcc-12, with
# that release's libstdc++-12-dev headers; the binaries then run with the
# release's own (newer, compatible) libstdc++6.
arm_sysroot_release() { # root suite
    local root=$1 suite=$2 want name
    want="$suite: $(arm_sysroot_packages)"
    if [ -f "$root/.apt/packages" ] && [ "$(cat "$root/.apt/packages")" = "$want" ]; then
        echo "sysroot: $root (up to date)"
        return 0
    fi
    echo "sysroot: $root from the $suite armhf packages $(arm_sysroot_packages)"
    for name in $(tavel_release_names "$suite"); do
        rm -rf "$root"
        # shellcheck disable=SC2046
        if mmdebstrap --quiet --variant=extract --architectures=armhf --skip=cleanup/apt/cache --skip=cleanup/apt/lists \
            --include=$(arm_sysroot_packages | tr ' ' ,) "$name" "$root" "$TAVEL_DEBIAN_MIRROR" &&
            tavel_root_is "$root" "$suite"; then
            arm_sysroot_unpack "$root" "$root/var/cache/apt/archives"
            tavel_merge_usr "$root"
            rm -rf "$root/var/cache/apt/archives" "$root/var/lib/apt/lists"
            mkdir -p "$root/.apt"
            echo "$want" >"$root/.apt/packages"
            return 0
        fi
        echo "sysroot: mmdebstrap of $suite as '$name' failed or gave another release" >&2
    done
    return 1
}

tavel_arm_target_root() { # sysroot-dir
    local missing sudo=""
    TAVEL_ARM_SYSROOT_DIR=""
    # shellcheck disable=SC2086
    missing=$(tavel_missing_packages $TAVEL_ARM_DEPS)
    if [ "${TAVEL_ARM_SYSROOT:-0}" = 1 ] || { [ -n "$missing" ] && arm_sysroot_ready "$1"; }; then
        TAVEL_ARM_SYSROOT_DIR=$1
    elif [ -n "$missing" ]; then
        echo "armhf packages to install:$missing"
        if ! dpkg --print-foreign-architectures | grep -qx armhf; then
            echo "enabling the armhf architecture in dpkg (dpkg --add-architecture armhf)"
            [ "$(id -u)" -eq 0 ] || sudo=sudo
            $sudo dpkg --add-architecture armhf
        fi
        tavel_apt_get update -qq || echo "apt-get update reported errors; using the package lists at hand" >&2
        # shellcheck disable=SC2086
        if ! tavel_apt_get install -y -qq --no-install-recommends --no-remove $missing >/dev/null; then
            echo "the armhf packages cannot be installed beside the host's (see above);" \
                "using a private sysroot instead" >&2
            TAVEL_ARM_SYSROOT_DIR=$1
        fi
    fi
    if [ -n "$TAVEL_ARM_SYSROOT_DIR" ]; then arm_sysroot "$TAVEL_ARM_SYSROOT_DIR"; fi
}
