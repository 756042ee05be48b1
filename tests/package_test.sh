#!/usr/bin/env bash
# package_test.sh PACKAGES BASE: tests the packages in the folder PACKAGES. Installs, uses, upgrades and
# removes them in a throw-away Debian that has its own network, its own /dev and its own systemd. BASE is the
# folder of a plain Debian; the throw-away system is an overlay on BASE. If BASE is missing or lacks a package,
# the test creates BASE anew; otherwise, the test does not change BASE. Needs root.
set -euo pipefail
here=$(realpath "${BASH_SOURCE[0]%/*}")

fail() {
    echo "package_test: $1" >&2
    exit 1
}

# With --boot, this script runs in namespaces of its own. It mounts the file systems of the throw-away Debian,
# and then becomes systemd.
if [[ ${1-} == --boot ]]; then
    base=$2 root=$3
    mount -t tmpfs throw-away "$root"
    mkdir "$root"/{changes,work,system}
    layers=lowerdir=$base,upperdir=$root/changes,workdir=$root/work
    root+=/system
    mount -t overlay -o "$layers" guilink "$root"
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
fi

packages=$(realpath "$1")
base=$2
((EUID == 0)) || fail "cannot install packages into a throw-away system without root; run this with sudo"

# The base is of this machine's release and contains what the packages depend on.
release=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
needs=systemd-sysv
for package in "$packages"/*.deb; do
    needs+=,$(dpkg-deb --field "$package" Depends | sed 's/ ([^)]*)//g; s/ |[^,]*//g; s/ //g')
done
if [[ $(cat "$base/needs" 2>/dev/null) != "$release $needs" ]]; then
    rm -rf "$base" "$base.new"
    debootstrap --variant=minbase "--include=$needs" "$release" "$base.new" >&2
    echo "$release $needs" >"$base.new/needs"
    mv "$base.new" "$base"
fi
base=$(realpath "$base")

# Start this script again in a private mount namespace.
if [[ ${3-} != --private ]]; then
    exec unshare --mount "$0" "$packages" "$base" --private
fi
scratch=$(mktemp -d)
mkdir "$scratch"/{groups,root}
mount -t cgroup2 groups "$scratch/groups"
# The control group of the throw-away Debian. The cleanup can remove it only when all its processes have ended.
group=$scratch/groups/guilink-package-test.$$
mkdir "$group"
namespaces=(--mount --net --ipc --uts --pid --cgroup --fork --kill-child)
(
    echo $BASHPID >"$group/cgroup.procs"
    exec unshare "${namespaces[@]}" "$0" --boot "$base" "$scratch/root"
) &
launcher=$!
trap 'kill -KILL $launcher; wait $launcher 2>/dev/null || true
      wait_for "" rmdir_groups; umount "$scratch/groups"; rm -rf "$scratch"' EXIT
rmdir_groups() { find "$group" -depth -type d -exec rmdir {} + 2>/dev/null; }

wait_for() { # MESSAGE COMMAND...: repeats COMMAND until it succeeds, 60 s at most
    local try
    for ((try = 0; try < 600; ++try)); do
        if "${@:2}" >/dev/null 2>&1; then return; fi
        sleep 0.1
    done
    fail "$1"
}
inside() { nsenter --all --root --wd --target "$(pgrep --parent $launcher)" "$@"; }
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
