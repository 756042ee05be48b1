#!/usr/bin/python3 -B
"""Tests the service on the virtual board: `scripts/board ARCHITECTURE --run tests/board_test.py ARCHITECTURE`. Boots it
three times."""
import hashlib
import sys
import time

sys.path[:0] = ["devkit/python", "tests/support"]
import guilink  # noqa: E402
from board import LIMIT, Agent, Channel, wait_until  # noqa: E402

REGION_END = {"amd64": 0x60000000, "arm64": 0xC0000000}[sys.argv[1]]
OF_KERNEL = {"amd64": 0x2000000, "arm64": 0x42000000}[sys.argv[1]]  # an address in its memory
BUFFERS = 3 * (1280 * 960 * 2 + 4096)  # bytes; what the core needs in the region
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


def restart_service():
    agent.run("systemctl restart guilinkd")


def main_pid():
    return agent.run("systemctl show --property MainPID --value guilinkd")


def logged(text):
    return agent.run(f"journalctl --quiet --unit guilinkd --grep '{text}'")


case("the service starts at boot without a network, and links when the network comes")
wait_until(lambda: agent.run("systemctl is-active guilinkd guilink-core") == "active\nactive", "service and core")
assert not agent.run("ip -brief -4 address show dev eth0")
qmp.call("set_link", name="card", up=True)
device = linked_device()
check_pictures(device)
assert agent.run(f"grep 'rw-s.* /dev/mem' /proc/{main_pid()}/maps"), "no frame is mapped from /dev/mem"

case("presses and texts arrive")
device.press("down")
device.text("hello")
wait_until(lambda: logged("BUTTON 1") and logged("USER hello"), "press and text in the journal")

case("the core is refused the kernel's memory")
agent.run("systemctl stop guilink-core; rm /run/guilink-core")  # only addresses above those in the file are unused
expect(f"guilink-core --frames 1 --memory {OF_KERNEL}:0x2000000 2>&1", f"the kernel refuses {OF_KERNEL:#x}")

case("frames up to the last page of the region arrive, byte for byte")
# After the region of the amd64 board comes the kernel's memory, which the service cannot map.
at_end = f"guilink-core --still --dump /run/dump --memory {REGION_END - BUFFERS}:{BUFFERS}"
agent.run(f"systemd-run --unit last {at_end}")
wait_until(lambda: agent.run("systemctl is-active last") == "active", "the core at the region's end")
pid = main_pid()
previous = device.screen()
device.press("down")
wait_until(lambda: device.screen() != previous, "the press in the picture")
picture = device.wait_stable()
agent.run("systemctl stop last")
expected = agent.run("head -c -2 /run/dump | sha256sum").split()[0]  # no companion receives the last pixel
assert hashlib.sha256(picture.pixels.astype("<u2").tobytes()[:-2]).hexdigest() == expected
assert main_pid() == pid, "the service ended"
expect(at_end + " 2>&1", "only 0 of the region are unused")
agent.run("rm /run/guilink-core")  # the service below is another one, which knows no address

case("after SIGABRT, systemd restarts the service")
agent.run(f"kill -ABRT {pid}")
wait_until(lambda: main_pid() not in ("0", pid), "another process")
agent.run("systemctl start guilink-core")
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
agent.run("systemctl restart guilink-core")
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
case("all passed")
