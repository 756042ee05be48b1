#!/usr/bin/env bash
# arm64_package_test.sh PACKAGES BASE CORE: tests the arm64 packages in the folder PACKAGES. Installs and uses
# them in a throw-away arm64 Debian, which an emulator runs in the sandbox. BASE is the folder of a plain
# arm64 Debian; the throw-away system is an overlay on BASE. If BASE is missing or lacks a package, the test
# creates BASE anew; otherwise, the test does not change BASE. CORE is a guilink-core that was built for this
# machine; the arm64 packages must produce the same picture as CORE. Needs root.
set -euo pipefail
here=$(realpath "${BASH_SOURCE[0]%/*}")

fail() {
    echo "arm64_package_test: $1" >&2
    exit 1
}

# --- in the sandbox, as root of a user namespace ---------------------------------------------------

# Prepares the arm64 system ROOT, so that "${inside[@]}" COMMAND runs a command in it. Registers the arm64
# emulator qemu-aarch64 in this user namespace. Kernels before Linux 6.7 cannot do this, so they use the
# emulator that is registered on the host.
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

# Runs the second stage of debootstrap, which configures the packages in ROOT.
configure() {  # ROOT
    enter "$1"
    "${inside[@]}" /debootstrap/debootstrap --second-stage
}

# Installs PACKAGES in ROOT, and uses them.
use() {  # ROOT PACKAGES CORE SCRATCH
    local root=$1 scratch=$4
    enter "$root"
    cp "$2"/guilink*_arm64.deb "$root"
    "${inside[@]}" sh -c 'dpkg -i /guilink*.deb'
    [[ -L $root/etc/systemd/system/multi-user.target.wants/guilinkd.service ]] ||
        fail "guilinkd is not enabled after its installation"

    # The arm64 viewer must show the picture that this machine's guilink-core ($3) draws.
    "$3" --still --frames 1 --dump "$scratch/expected"
    "${inside[@]}" guilinkd
    "${inside[@]}" guilink-core --still --dump /drawn &
    local core=$! try
    snapshot() {  # FILE [ARGUMENT...]: writes the pixels to FILE, as the core's --dump does
        "${inside[@]}" guilink-viewer --timeout 300 --snapshot /picture.png "${@:2}"
        python3 - "$root/picture.png" "$1" <<'EOF'
import sys
import numpy
from PIL import Image
red, green, blue, alpha = numpy.moveaxis(numpy.asarray(Image.open(sys.argv[1]), "<u2") // 17, 2, 0)
(alpha << 12 | red << 8 | green << 4 | blue).tofile(sys.argv[2])
EOF
    }
    snapshot "$root/menu"
    cmp "$scratch/expected" "$root/menu" || fail "the picture differs from this machine's"

    # A press must change the picture.
    snapshot "$root/pressed" --press 1
    for ((try = 0; try < 20; ++try)); do
        cmp -s "$root/menu" "$root/pressed" || break
        snapshot "$root/pressed"
    done
    ((try < 20)) || fail "a press does not change the picture"
    kill $core
    wait $core
    cmp "$root/drawn" "$root/pressed" || fail "the picture is not what the core has drawn"

    # The measuring programs must work. Their figures mean nothing under emulation.
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

# Start this script again in a private mount namespace. The script mounts the overlay here, because older
# kernels cannot mount an overlay in the sandbox's user namespace.
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

# The base is of this machine's release and contains what the packages depend on.
release=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
needs=procps
for package in "$packages"/guilink*_arm64.deb; do
    needs+=,$(dpkg-deb --field "$package" Depends | sed 's/ ([^)]*)//g; s/ |[^,]*//g; s/ //g')
done
if [[ $(cat "$base/needs" 2>/dev/null) != "$release $needs" ]]; then
    rm -rf "$base" "$base.new"
    debootstrap --foreign --arch=arm64 --variant=minbase "--include=$needs" "$release" "$base.new" >&2
    sandbox configure "$(realpath "$base.new")" >&2
    echo "$release $needs" >"$base.new/needs"
    mv "$base.new" "$base"
fi
base=$(realpath "$base")
layers=lowerdir=$base,upperdir=$scratch/changes,workdir=$scratch/work
mount -t overlay -o "$layers" guilink "$scratch/system"
sandbox use "$scratch/system" "$packages" "$core" "$scratch"
echo "all passed"
