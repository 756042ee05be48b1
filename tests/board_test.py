#!/usr/bin/python3 -B
"""Tests the service on the virtual board: `scripts/board ARCHITECTURE --run tests/board_test.py ARCHITECTURE`. Boots it
three times."""
import hashlib
import sys
import time

sys.path[:0] = ["devkit/python", "tests/support"]
import guilink  # noqa: E402
from board import LIMIT, Agent, Channel, wait_until  # noqa: E402

ARCHITECTURE = sys.argv[1]
# Memory that the kernel does not use itself, by its end. After the first comes memory of the kernel, which the service
# cannot map.
REGIONS = {"amd64": {0x60000000: "reserved on the kernel's command line"},
           "arm64": {0xA0000000: "reserved with no-map", 0xC0000000: "outside of all memory"}}[ARCHITECTURE]
OF_KERNEL = {"amd64": 0x2000000, "arm64": 0x42000000}[ARCHITECTURE]  # an address in its memory
BUFFER = 1280 * 960 * 2 + 4096  # bytes; the core has three
SETTINGS = "/tmp/FL0/kel.ini"


def case(what):
    print(f"{time.monotonic() - START:6.0f} s  {what}", flush=True)


START = time.monotonic()
qmp = Channel("qmp")
qmp.call("qmp_capabilities")
qmp.call("set_link", name="card", up=False)
agent = Agent("agent")


def linked_device():
    return guilink.connect(link_timeout=LIMIT, timeout=LIMIT)


def check_pictures(device):
    """The board's menu moves, so pictures must differ."""
    first = device.screen()
    wait_until(lambda: device.screen() != first, "another picture")


def expect(command, answer):
    found = agent.run(command)
    assert answer in found, f"{command}: {found}"


def succeed(command):
    found = agent.run(command + " 2>&1")
    assert agent.status == 0, f"{command}: status {agent.status}: {found}"


def restart_service():
    agent.run("systemctl restart guilinkd")


def main_pid():
    return agent.run("systemctl show --property MainPID --value guilinkd")


def logged(text):
    return agent.run(f"journalctl --quiet --unit guilinkd --grep '{text}'")


def wait_mapped(address=""):
    """Waits until the service has mapped the frame at this address, or else any frame."""
    pattern = f"rw-s {address and f'{address:08x}'}.* /dev/mem"
    wait_until(lambda: agent.run(f"grep '{pattern}' /proc/{main_pid()}/maps") or logged("cannot map"), "a mapped frame")
    assert not (line := logged("cannot map")), line


def show_journal(*error):
    sys.__excepthook__(*error)
    if agent.synchronise():
        print(agent.run("journalctl --no-pager --lines 30 --unit guilinkd --unit core --unit last"))


sys.excepthook = show_journal
case("the service starts at boot without a network, and links when the network comes")
wait_until(lambda: agent.run("systemctl is-active guilinkd core") == "active\nactive", "service and core")
wait_mapped()
assert not agent.run("ip -brief -4 address show dev eth0")
qmp.call("set_link", name="card", up=True)
device = linked_device()
check_pictures(device)

case("presses and texts arrive")
device.press("down")
device.text("hello")
wait_until(lambda: logged("BUTTON 1") and logged("USER hello"), "press and text in the journal")

case("the core is refused the kernel's memory")
agent.run("systemctl stop core; rm /run/guilink-core")  # only addresses above those in the file are unused
expect(f"guilink-core --frames 1 --memory {OF_KERNEL}:0x2000000 2>&1", f"the kernel refuses {OF_KERNEL:#x}")

for end, kind in REGIONS.items():
    case(f"frames up to the last page of memory {kind} arrive, byte for byte")
    at_end = f"guilink-core --still --dump /run/dump --memory {end - 3 * BUFFER}:{3 * BUFFER}"
    agent.run(f"systemd-run --unit last {at_end}")
    pid = main_pid()
    wait_mapped(end - BUFFER)
    previous = device.screen()
    device.press("down")
    wait_until(lambda: device.screen() != previous, "the press in the picture")
    picture = device.wait_stable()
    agent.run("systemctl stop last")
    expected = agent.run("head -c -2 /run/dump | sha256sum").split()[0]  # no companion receives the last pixel
    assert hashlib.sha256(picture.pixels.astype("<u2").tobytes()[:-2]).hexdigest() == expected
    assert main_pid() == pid, "the service ended"
    expect(at_end + " --frames 1 2>&1", "only 0 of the region are unused")
agent.run("rm /run/guilink-core")  # the service below is another one, which knows no address

for signal in "ABRT", "HUP":
    case(f"after SIG{signal}, systemd restarts the service")
    pid = main_pid()
    agent.run(f"kill -{signal} {pid}")
    wait_until(lambda: main_pid() not in ("0", pid), "another process")
agent.run("systemctl start core")
check_pictures(device)

case("systemctl stop ends it with status 0")
agent.run("systemctl stop guilinkd")
expect("systemctl show --property Result,ExecMainStatus --value guilinkd", "success\n0")
device.close()

case("an identity of the wrong length aborts it; the right one is used")
agent.run(f"mkdir -p /tmp/FL0; echo BODY_QR=123 >{SETTINGS}; systemctl start guilinkd")
wait_until(lambda: logged("ID size must be 5 bytes"), "the reason in the journal")
agent.run(f"echo BODY_QR=22222 >{SETTINGS}")
with linked_device() as device:
    assert device.identity == "22222"

case("a settings file that only another user may read is not read")
agent.run(f"chown nobody {SETTINGS}; chmod 600 {SETTINGS}")
restart_service()
with linked_device() as device:
    assert device.identity == "11111"
agent.run(f"chmod 644 {SETTINGS}")
restart_service()
with linked_device() as device:
    assert device.identity == "22222"
agent.run(f"rm {SETTINGS}")

case("it works within a drop-in that allows only /dev/mem")
agent.run("mkdir /etc/systemd/system/guilinkd.service.d; printf '%s\\n' '[Unit]' After=systemd-networkd.service "
          "'[Service]' DevicePolicy=closed 'DeviceAllow=/dev/mem rw' "
          ">/etc/systemd/system/guilinkd.service.d/image.conf; systemctl daemon-reload")
restart_service()
agent.run("systemctl restart core")
device = linked_device()
check_pictures(device)

for what, restart in {"a reboot": lambda: agent.run("systemd-run --on-active=1 systemctl reboot"),
                      "a power cut": lambda: qmp.call("system_reset")}.items():
    case(f"the waiting companion is linked again after {what}")
    restart()
    wait_until(lambda: not device.linked, "the end of the link")
    wait_until(lambda: device.linked, "the next link")
    check_pictures(device)
    agent.run("test -e /tmp/FL0")
    assert agent.status == 1, "a boot of Debian no longer clears /tmp"
device.close()

case("the other programs of the packages work")
picture = "/run/picture.png"
succeed(f"guilink-viewer --timeout {LIMIT} --press 1 --snapshot {picture} && test -s {picture}")
expect(f"guilink-measure {end - BUFFER}:2457600 2>&1", "| RssAnon |")
if ARCHITECTURE == "amd64":
    succeed("systemd-run --unit viewer guilink-viewer --device 11111")
    succeed("guilink snapshot /run/shared.png --viewer http://127.0.0.1:8080 && test -s /run/shared.png")

case("systemd finds no fault in the unit")
assert not (found := agent.run("systemd-analyze verify --man=no guilinkd.service 2>&1")), found
expect("systemd-analyze security guilinkd | tail -n 1", "OK")

case("an upgrade replaces the running service")
pid = main_pid()
succeed("cd /root && dpkg-deb -R guilinkd_*.deb new && sed -i 's/^Version: .*/&+1/' new/DEBIAN/control && "
        "dpkg-deb -Znone -b new new.deb && dpkg -i new.deb")
assert main_pid() not in ("0", pid), "the old service runs on"

case("a purge of the packages ends the service, and leaves nothing behind")
pid = main_pid()
agent.run("rm -r /etc/systemd/system/guilinkd.service.d; systemctl stop viewer core")
succeed("dpkg --purge guilinkd guilink-devkit python3-guilink")
assert not agent.run(f"ls -d /proc/{pid}")
expect("systemctl show --property LoadState guilinkd", "=not-found")
assert not (found := agent.run("find /etc /usr /var/lib -name '*guilink*'")), found

case("an installation enables the service, which starts as soon as it finds the inter-core library")
succeed("dpkg -i /root/guilinkd_*.deb")
expect("systemctl is-enabled guilinkd", "enabled")
succeed("dpkg -i /root/guilink-devkit_*.deb")
wait_until(lambda: agent.run("systemctl is-active guilinkd") == "active", "the service")

case("the service needs only packages that its own depends on, and the inter-core library")
succeed("dpkg --purge guilink-devkit && apt-get --yes autoremove")
expect("ldd /usr/sbin/guilinkd", "libambaipc.so => not found")
assert not (found := agent.run("ldd /usr/sbin/guilinkd | grep 'not found' | grep -v libambaipc")), found
case("all passed")
