#!/usr/bin/env bash
# package_test.sh PACKAGES BASE [arm64]: tests the packages in the folder PACKAGES in a throw-away Debian. Packages for
# this machine are installed, used, upgraded and removed in a Debian that has its own network, its own /dev and its own
# systemd. Packages for arm64 are installed and used in a Debian without systemd, which an emulator runs in the sandbox.
# BASE is the folder of a plain Debian; the throw-away system is an overlay on BASE. If BASE is missing or lacks a
# package, the test creates BASE anew; otherwise, the test does not change BASE. Needs root.
set -euo pipefail
here=$(realpath "${BASH_SOURCE[0]%/*}")

fail() {
    echo "package_test: $1" >&2
    exit 1
}

# --- in namespaces of its own ----------------------------------------------------------------------

# Mounts the file systems of the throw-away Debian ROOT, and then becomes its systemd.
boot() {  # ROOT
    local root=$1 node
    mount -t proc proc "$root/proc"
    mount -t sysfs -o ro sysfs "$root/sys"
    mount -t cgroup2 cgroup "$root/sys/fs/cgroup"
    mount -t tmpfs run "$root/run"
    mount -t tmpfs -o mode=755 dev "$root/dev"
    for node in null zero full random urandom tty; do
        touch "$root/dev/$node"
        mount --bind /dev/$node "$root/dev/$node"
    done
    mkdir "$root"/dev/{pts,shm}
    truncate -s 4G "$root/dev/mem"
    ip link set lo up
    ip link add guilink0 type veth peer name guilink1
    ip address add 10.77.0.1/24 broadcast + dev guilink0
    ip link set guilink0 up
    ip link set guilink1 up
    exec chroot "$root" /usr/bin/env -i container=guilink PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        /lib/systemd/systemd --show-status=no
}

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

# Installs the arm64 packages in ROOT, and uses them.
use_arm64() {  # ROOT PACKAGE...
    enter "$1"
    cp "${@:2}" "$1"
    "${inside[@]}" sh -c 'dpkg -i /guilink*.deb'
    [[ -L $1/etc/systemd/system/multi-user.target.wants/guilinkd.service ]] ||
        fail "guilinkd is not enabled after its installation"
    "${inside[@]}" guilinkd
    "${inside[@]}" guilink-core --still &
    "${inside[@]}" guilink-viewer --timeout 300 --press 1 --snapshot /picture.png
    # The measuring programs must work. Their figures mean nothing under emulation.
    "${inside[@]}" guilink-bench --benchmark_min_time=0
    "${inside[@]}" guilink-measure 0x10000000:2457600 | tee "$1/measured"
    grep -q RssAnon "$1/measured" || fail "guilink-measure does not find the service"
}

if [[ ${1-} == --inside ]]; then
    "${@:2}"
    exit
fi

# --- outside ---------------------------------------------------------------------------------------

((EUID == 0)) || fail "cannot install packages into a throw-away system without root; run this with sudo"
# Start this script again in a private mount namespace.
[[ ${GUILINK_MOUNTS-} == private ]] || GUILINK_MOUNTS=private exec unshare --mount "$0" "$@"
packages=$(realpath "$1")
base=$2
scratch=$(mktemp -d)
mount -t tmpfs throw-away "$scratch"
mkdir "$scratch"/{changes,work,system,groups}
child=
# shellcheck disable=SC2317  # called by the trap
clean_up() {
    [[ ! $child ]] || kill -KILL $child || true
    wait 2>/dev/null || true
    [[ ! ${group-} ]] || wait_for "" rmdir_groups
    umount --recursive "$scratch"
    rm -rf "$scratch"
}
trap clean_up EXIT

wait_for() {  # MESSAGE COMMAND...: repeats COMMAND until it succeeds, 60 s at most
    local try
    for ((try = 0; try < 600; ++try)); do
        if "${@:2}" >/dev/null 2>&1; then return; fi
        sleep 0.1
    done
    fail "$1"
}

debs=("$packages"/*.deb)
needs=systemd-sysv
debootstrap=(debootstrap --variant=minbase)
arm64=${3-}
if [[ $arm64 ]]; then
    debs=("$packages"/*_arm64.deb)
    needs=procps
    debootstrap+=(--foreign --arch=arm64)
    # The packages' files belong to several users, so map all user and group ids into the user namespace.
    unshare --user sleep infinity &
    child=$!
    write_map() { echo 0 0 65536 >"/proc/$child/uid_map"; }
    wait_for "cannot create a user namespace" write_map
    echo 0 0 65536 >"/proc/$child/gid_map"
    sandbox() { nsenter --user --target $child "$here/../scripts/sandbox" "$0" --inside "$@"; }
fi

# The base is of this machine's release and contains what the packages depend on.
release=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
for package in "${debs[@]}"; do
    needs+=,$(dpkg-deb --field "$package" Depends | sed 's/ ([^)]*)//g; s/ |[^,]*//g; s/ //g')
done
if [[ $(cat "$base/needs" 2>/dev/null) != "$release $needs" ]]; then
    rm -rf "$base" "$base.new"
    "${debootstrap[@]}" "--include=$needs" "$release" "$base.new" >&2
    [[ ! $arm64 ]] || sandbox configure "$(realpath "$base.new")" >&2
    echo "$release $needs" >"$base.new/needs"
    mv "$base.new" "$base"
fi
root=$scratch/system
# Mounted here, because older kernels cannot mount an overlay in the sandbox's user namespace.
mount -t overlay -o "lowerdir=$(realpath "$base"),upperdir=$scratch/changes,workdir=$scratch/work" guilink "$root"

if [[ $arm64 ]]; then
    sandbox use_arm64 "$root" "${debs[@]}"
    echo "all passed"
    exit
fi

# --- packages for this machine ---------------------------------------------------------------------

mount -t cgroup2 groups "$scratch/groups"
# The control group of the throw-away Debian. The cleanup can remove it only when all its processes have ended.
group=$scratch/groups/guilink-package-test.$$
mkdir "$group"
rmdir_groups() { find "$group" -depth -type d -exec rmdir {} + 2>/dev/null; }
namespaces=(--mount --net --ipc --uts --pid --cgroup --fork --kill-child)
(
    echo $BASHPID >"$group/cgroup.procs"
    exec unshare "${namespaces[@]}" "$0" --inside boot "$root"
) &
child=$!
inside() { nsenter --all --root --wd --target "$(pgrep --parent $child)" "$@"; }
installs() { tar -C "${1%/*}" -c "${1##*/}" | inside tar -C /tmp -x && inside dpkg -i "/tmp/${1##*/}"; }
main_pid() { inside systemctl show --property=MainPID --value guilinkd; }
runs_anew() { # OLD_PID: succeeds if the service runs in a process other than OLD_PID
    inside systemctl is-active guilinkd && [[ $(main_pid) != "$1" ]]
}

wait_for "systemd does not start" inside systemctl is-active multi-user.target

# After the installation, the service must run and be enabled, and systemd must find no fault in the unit.
inside systemctl is-enabled guilinkd 2>/dev/null && fail "guilinkd is enabled before it is installed"
installs "$packages"/guilink-devkit_*.deb
installs "$packages"/guilinkd_*.deb
inside systemctl is-active guilinkd
inside systemctl is-enabled guilinkd
complaints=$(inside systemd-analyze verify --man=no guilinkd.service 2>&1) || true
[[ ! $complaints ]] || fail "$complaints"
[[ $(inside cat "/proc/$(main_pid)/comm") == guilinkd ]] || fail "the main process is not guilinkd"

# The service must work within the restrictions of its systemd unit.
inside systemd-run --quiet --unit=core guilink-core
inside guilink-viewer --snapshot /tmp/picture.png --press 1 --timeout 60
inside journalctl --quiet --unit=guilinkd --grep 'BUTTON 1' || fail "the press is not in the journal"

inside systemd-run --quiet --unit=viewer guilink-viewer --device 11111
installs "$packages"/python3-guilink_*.deb
inside guilink --help >/dev/null
inside guilink snapshot /tmp/picture.png --viewer http://127.0.0.1:8080
inside dpkg --purge python3-guilink
inside test ! -e /usr/lib/python3/dist-packages/guilink || fail "left behind: the Python package"
inside systemctl stop viewer

# systemd must restart the service after an abnormal end.
for signal in ABRT HUP; do
    old=$(main_pid)
    inside kill -$signal "$old"
    wait_for "it does not come back after SIG$signal" runs_anew "$old"
done

# An upgrade must replace the running service.
newer=$scratch/newer
dpkg-deb -R "$packages"/guilinkd_*.deb "$newer"
sed -i 's/^Version: .*/&+1/' "$newer/DEBIAN/control"
dpkg-deb -b "$newer" "$scratch/guilinkd_newer.deb" >/dev/null
old=$(main_pid)
installs "$scratch/guilinkd_newer.deb"
runs_anew "$old" || fail "the upgrade left the old service running"

# If systemd stops the service, it must end with status 0.
inside systemctl stop guilinkd
[[ $(inside systemctl show --property=Result,ExecMainStatus --value guilinkd) == $'success\n0' ]] ||
    fail "it does not stop with status 0"

# If the package is purged while the service runs, no process and no file may be left.
inside systemctl start guilinkd
inside dpkg --purge guilinkd
wait_for "it runs on after its removal" [ ! "$(inside pgrep -x guilinkd)" ]
left=$(inside find /etc /lib /usr /var/lib/systemd -name '*guilinkd*')
[[ ! $left ]] || fail "left behind: $left"

# Other projects must be able to use the devkit's companion library.
dpkg-deb -x "$packages"/guilink-devkit_*.deb "$scratch/devkit"
"$here/package/test.sh" "$scratch/devkit/usr" "$scratch/build"
echo "all passed"
