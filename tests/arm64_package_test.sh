#!/usr/bin/env bash
# arm64_package_test.sh PACKAGES BASE CORE: installs the arm64 packages of the folder PACKAGES in a
# throw-away arm64 Debian and uses them there, under emulation, in the sandbox. BASE is the folder of a plain
# arm64 Debian; the throw-away system is an overlay on BASE. The test creates BASE if it is missing or lacks a
# package, and otherwise does not change it. CORE is a guilink-core that was built for the machine that runs
# this test; the arm64 packages must produce the same picture as CORE. Needs root.
set -euo pipefail
here=$(realpath "${BASH_SOURCE[0]%/*}")

fail() {
    echo "arm64_package_test: $1" >&2
    exit 1
}

# --- in the sandbox, as root of a user namespace ---------------------------------------------------

# Sets the array "inside", a prefix that runs a command in the arm64 system ROOT. Registers the emulator only
# in this user namespace, which has its own binfmt_misc since Linux 6.7. On older kernels, the emulator that
# the host has registered runs the programs.
enter() {  # ROOT
    inside=(chroot "$1" /usr/bin/env -i container=lxc PATH=/usr/sbin:/usr/bin:/sbin:/bin)
    mount --rbind /dev "$1/dev"
    mount -t proc proc "$1/proc"
    if mount -t binfmt_misc binfmt /proc/sys/fs/binfmt_misc 2>/dev/null; then
        cat /usr/lib/binfmt.d/qemu-aarch64.conf >/proc/sys/fs/binfmt_misc/register
    fi
    "${inside[@]}" true || fail "this kernel does not run arm64 programs; if it is older than Linux 6.7, \
register the emulator on the host: systemctl restart systemd-binfmt"
}

# Runs the second stage of debootstrap, which runs the installation scripts of the packages in ROOT.
configure() {  # ROOT
    enter "$1"
    "${inside[@]}" /debootstrap/debootstrap --second-stage
}

# Installs and uses PACKAGES in ROOT.
use() {  # ROOT PACKAGES CORE SCRATCH
    local root=$1 scratch=$4
    enter "$root"
    cp "$2"/guilink*_arm64.deb "$root"
    "${inside[@]}" sh -c 'dpkg -i /guilink*.deb'
    [[ -L $root/etc/systemd/system/multi-user.target.wants/guilinkd.service ]] ||
        fail "guilinkd is not enabled after its installation"

    # The arm64 viewer must show the same picture that CORE draws.
    "$3" --still --frames 1 --dump "$scratch/expected"
    "${inside[@]}" guilinkd
    "${inside[@]}" guilink-core --still --dump /drawn &
    local core=$! try snapshot=(guilink-viewer --timeout 300 --frames 1 --snapshot /picture.png --raw)
    "${inside[@]}" "${snapshot[@]}" /menu
    cmp "$scratch/expected" "$root/menu" || fail "the picture differs from this machine's"

    # A press must change the picture.
    "${inside[@]}" "${snapshot[@]}" /pressed --press 1
    for ((try = 0; try < 20; ++try)); do
        cmp -s "$root/menu" "$root/pressed" || break
        "${inside[@]}" "${snapshot[@]}" /pressed
    done
    ((try < 20)) || fail "a press does not change the picture"
    kill $core
    wait $core
    cmp "$root/drawn" "$root/pressed" || fail "the picture is not what the core has drawn"

    # The measurements must run. Their figures mean nothing under emulation.
    "${inside[@]}" guilink-bench --benchmark_min_time=0
    "${inside[@]}" guilink-measure 0x10000000:2457600 | tee "$scratch/measured"
    grep -q RssAnon "$scratch/measured" || fail "guilink-measure does not find the service"
}

if [[ ${1-} == --inside ]]; then
    "${@:2}"
    exit
fi

# --- outside the sandbox ---------------------------------------------------------------------------

packages=$(realpath "$1")
base=$2
core=$(realpath "$3")
((EUID == 0)) || fail "cannot install packages into a throw-away system without root; run this with sudo"

# Runs the rest of this script in a private mount namespace. Mounts the overlay outside the sandbox, because
# older kernels cannot mount an overlay in a user namespace.
if [[ ${4-} != --private ]]; then
    exec unshare --mount "$0" "$packages" "$base" "$core" --private
fi
scratch=$(mktemp -d)
mount -t tmpfs throw-away "$scratch"
mkdir "$scratch"/{changes,work,system}

# The packages' files belong to several users, so map all user and group ids into the user namespace.
unshare --user sleep infinity &
namespace=$!
trap 'kill $namespace; wait $namespace 2>/dev/null || true
      umount --recursive "$scratch"; rm -rf "$scratch"' EXIT
until echo 0 0 65536 2>/dev/null >"/proc/$namespace/uid_map"; do
    kill -0 $namespace || fail "cannot create a user namespace"
    sleep 0.1
done
echo 0 0 65536 >"/proc/$namespace/gid_map"
sandbox() { nsenter --user --target $namespace "$here/../scripts/sandbox" "$0" --inside "$@"; }

needs=libcairo2,libpng16-16,libturbojpeg0,libhwy-dev,libbenchmark1debian,fonts-dejavu-core,procps
if [[ $(cat "$base/needs" 2>/dev/null) != "$needs" ]]; then
    rm -rf "$base" "$base.new"
    debootstrap --foreign --arch=arm64 --variant=minbase --include=$needs bookworm "$base.new" >&2
    sandbox configure "$(realpath "$base.new")" >&2
    echo $needs >"$base.new/needs"
    mv "$base.new" "$base"
fi
base=$(realpath "$base")
layers=lowerdir=$base,upperdir=$scratch/changes,workdir=$scratch/work
mount -t overlay -o "$layers" guilink "$scratch/system"
sandbox use "$scratch/system" "$packages" "$core" "$scratch"
echo "all passed"
