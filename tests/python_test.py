"""Tests the Python package with the real service and the simulated core: the examples of the docs, the command
line, and a device that restarts."""
import json
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import xml.etree.ElementTree
from pathlib import Path

import pytest
from support.fake_device import LIMIT
from support.service import end_service, start_service

import guilink

ROOT = Path(__file__).parent.parent
BIN = Path(os.environ["GUILINK_BIN"])
PANEL, MOVING = (70, 260, 560, 630), [(540, 260, 60, 630)]


@pytest.fixture(scope="module", autouse=True)
def loop():
    start_service(BIN)
    with subprocess.Popen([BIN / "guilink-core"], stderr=subprocess.DEVNULL) as core:
        yield
        core.terminate()
    end_service()


def run(*arguments, status=0, **options):
    """Runs a Python module as a program, and returns its output."""
    environment = os.environ | {"PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1"}  # pytest must not load an installed guilink
    done = subprocess.run([sys.executable, "-m", *arguments], capture_output=True, text=True,
                          timeout=8 * LIMIT, env=environment, **options)
    assert done.returncode == status, done.stdout + done.stderr
    return done.stdout + done.stderr


def test_examples_pass_and_failures_are_reported(tmp_path):
    def written():
        return {path: path.stat().st_mtime_ns for path in (tmp_path / "screens").iterdir()}

    for example in (ROOT / "docs/examples").glob("test_*.py"):
        shutil.copy(example, tmp_path)
    tests = ["pytest", "-q", "-p", "no:cacheprovider", "-p", "guilink.pytest_plugin",
             "--guilink-device=11111", f"--guilink-timeout={LIMIT}"]
    assert "there is no " in run(*tests, "test_menu.py", status=1, cwd=tmp_path)
    assert "second_row.png; look at it" in run(*tests, "--guilink-update", cwd=tmp_path)
    before = written()
    run(*tests, "--guilink-update", "test_menu.py", cwd=tmp_path)  # must not write unchanged pictures
    assert "10 passed" in run(*tests, cwd=tmp_path)
    assert written() == before

    # Make an example fail: give it a wrong reference picture.
    shutil.copy(tmp_path / "screens/first_row.png", tmp_path / "screens/second_row.png")
    said = run(*tests, "test_menu.py", "--guilink-timeout=5", "--junit-xml=report.xml", "--guilink-video",
               status=1, cwd=tmp_path)
    assert "did not become second_row.png within 5 s" in said and "device.press(\"down\")" in said
    report = xml.etree.ElementTree.parse(tmp_path / "report.xml").find(".//property")
    assert report.get("name") == "guilink-artifacts"
    folder = tmp_path / report.get("value")
    assert (folder / "difference.png").exists()
    assert (folder / "last-seconds.mp4").read_bytes()[4:8] == b"ftyp"
    with guilink.connect(timeout=LIMIT) as device:
        device.press("up")


def test_a_reference_has_one_meaning(tmp_path):
    (tmp_path / "test_twice.py").write_text("""
def test_twice(device, assert_screen):
    device.press("down")
    assert_screen("row", region=(70, 260, 460, 630))
    device.press("up")
    assert_screen("row", region=(70, 260, 460, 630))
""")
    said = run("pytest", "-q", "-p", "no:cacheprovider", "-p", "guilink.pytest_plugin", "--guilink-update",
               f"--guilink-timeout={LIMIT}", status=1, cwd=tmp_path)
    assert re.search(r"row.png has two meanings: \S+test_twice.py:6 .* than \S+test_twice.py:4 ", said), said


def test_pytest_says_what_it_waits_for_and_waits_once(tmp_path):
    (tmp_path / "test_three.py").write_text("""
def test_one(device): pass
def test_two(device): pass
def test_three(): pass
""")
    tests = ["pytest", "-p", "no:cacheprovider", "-p", "guilink.pytest_plugin"]
    said = run(*tests, "--guilink-viewer=http://127.0.0.1:9", "--guilink-link-timeout=5", status=1, cwd=tmp_path)
    why = "guilink: the viewer at http://127.0.0.1:9 cannot be reached: Connection refused; is it running?"
    assert said.splitlines().count(why) == 1 + 2 and "1 passed, 2 errors" in said and "Captured" not in said, said
    for option, words in (("--guilink-device=1", "neither the identity"), ("--guilink-labels=no", "labels in no: "),
                          ("--guilink-viewer=x:y://", "is not the URL"), ("--guilink-timeout=-1", "impossible")):
        said = run(*tests, option, status=4, cwd=tmp_path)
        assert words in said and said.strip().count("\n") == 0, said


def test_shell_completes_and_saves_a_recording_at_its_end(tmp_path):
    terminal, its_terminal = os.openpty()
    with subprocess.Popen([sys.executable, "-m", "guilink", "shell", "--device", "11111"], cwd=tmp_path,
                          stdin=its_terminal, stdout=its_terminal, stderr=its_terminal) as shell:
        def enter(text, expected):
            os.write(terminal, text)
            said = b""
            while expected not in said:
                assert select.select([terminal], [], [], LIMIT)[0], said
                said += os.read(terminal, 4096)

        try:
            enter(b"", b">>> ")
            enter(b"recording = device.rec\t", b"device.record(")
            enter(b"'shell.gif'); print(device.identity)\n", b"11111\r\n>>> ")
            shell.terminate()  # often before readline waits for a key
            assert shell.wait(LIMIT) == 128 + signal.SIGTERM
        finally:
            shell.kill()
    os.close(terminal)
    os.close(its_terminal)
    assert (tmp_path / "shell.gif").exists()


def test_command_line(tmp_path):
    def guilink_json(name, *arguments, status=0):
        said = run("guilink", name, "--json", *arguments, status=status, cwd=tmp_path)
        return json.loads(next(line for line in said.splitlines() if line.startswith("{")))

    assert guilink_json("devices")["devices"][0]["identity"] == "11111"
    assert guilink_json("snapshot", "now.png", "--device", "10.77.0.1")["size"] == [1280, 960]
    where = ["--device", "11111", "--region", "70,260,560,630", "--mask", "540,260,60,630"]
    for reference in ((), ("now.png",)):
        assert guilink_json("wait", *reference, *where)["device"] == "11111"
    assert guilink_json("press", "down")["pressed"] == [1]
    failed = guilink_json("wait", "now.png", *where, "--timeout", "5", status=1)
    assert (tmp_path / failed["artifacts"] / "actual.png").exists()
    assert guilink_json("press", "up", "info", "5")["pressed"] == [0, 15, 5]
    assert guilink_json("record", "run.mp4", "--seconds", "1")["file"] == "run.mp4"
    assert (tmp_path / "run.mp4").read_bytes()[4:8] == b"ftyp"


@pytest.mark.parametrize("arguments, words", [
    (["press", "dwn"], "no button 'dwn'"), (["wait", "absent.png"], "cannot read absent.png: No such file"),
    (["wait", "--region", "1,2"], "is no box"), (["wait", "--mask", "1,2,0,4"], "is no box"),
    (["wait", "--tolerance", "16"], "invalid"),
    (["record", "/no/y.mp4"], "no folder /no"), (["record", "y.txt"], "must end in .png, .apng"),
    (["record", "y.gif", "--seconds", "-1"], "no number"), (["snapshot", "y.jpg"], "must end in .png"),
    (["press", "up", "--labels", "absent"], "labels in absent: No such file"),
    (["press", "up", "--artifacts", "/dev/null/x"], "/dev/null is no folder"),
    (["press", "up", "--viewer", "ftp://x/?token=secret"], "ftp://x is not the URL"),
    (["press", "up", "--device", "10.77.0.256"], "neither the identity"), (["doctor", "--device", "1"], "neither the"),
], ids=lambda value: "-".join(value) if isinstance(value, list) else "")
def test_wrong_arguments_are_refused_before_there_is_a_link(arguments, words):
    said = run("guilink", arguments[0], "--device", "22222", *arguments[1:], status=2)
    assert words in said and "no link" not in said and said.count("\n") == 1


def test_wait_outlives_a_restart_and_ends_by_interrupt(tmp_path):
    with guilink.connect("11111", timeout=2 * LIMIT, artifacts=tmp_path) as device:
        shown = device.wait_stable(region=PANEL, mask=MOVING)
        end_service()
        with pytest.raises(guilink.WaitTimeoutError, match="no link at the moment"):
            while True:  # the device may stay linked for a moment after the service has ended
                device.wait_for(shown, region=PANEL, mask=MOVING, timeout=0.2)
        assert device.last_screen() is not None
        with pytest.raises(guilink.LinkError, match="cannot send the text.*has not come back"):
            device.text("still there?", timeout=0.2)
        start_service(BIN)
        device.wait_for(shown, region=PANEL, mask=MOVING)

    for wait, words, number, status in (
            (["snapshot", "x.png", "--device", "22222"], "heard: 11111", signal.SIGINT, 130),
            (["record", "run.gif"], "Ctrl-C", signal.SIGTERM, 0)):
        with subprocess.Popen([sys.executable, "-m", "guilink", *wait], stderr=subprocess.PIPE, text=True,
                              cwd=tmp_path) as waiting:
            assert any(words in line for line in waiting.stderr)
            waiting.send_signal(number)
            assert waiting.wait(LIMIT) == status
    assert (tmp_path / "run.gif").exists()


def test_minimal_companion_links_to_the_service(tmp_path):
    said = subprocess.check_output([sys.executable, ROOT / "docs/examples/minimal_companion.py", "--press", "15",
                                    "--timeout", str(LIMIT), tmp_path / "shown.png"], text=True)
    assert said.startswith("device 11111, firmware fw1.1\n") and "\n1280 x 960, " in said
    assert guilink.Screen.load(tmp_path / "shown.png").width == 1280


@pytest.mark.parametrize("bench", ["scripts/device 2", "./demo --devices 2"])
def test_one_test_uses_two_devices(bench, tmp_path):
    document = (ROOT / "docs/testing.md").read_text()
    example = re.search(r"\n(def test_a_press_reaches_one_device.*?)```", document, re.S)[1]
    (tmp_path / "test_two.py").write_text(example)
    command, options = [ROOT / "scripts/device", "2"], []
    if bench.startswith("./demo"):  # what it runs after the build
        command = [BIN / "guilink-viewer", "--exec", "scripts/sandbox", "scripts/loop"]
        options = ["--guilink-viewer", "http://127.0.0.1:8080"]
    assert f"`{bench}" in document
    with subprocess.Popen(command, cwd=ROOT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          env=os.environ | {"GUILINK_DEVICES": "2"}) as devices:
        try:
            assert "1 passed" in run("pytest", "-q", "-p", "no:cacheprovider", "-p", "guilink.pytest_plugin",
                                     f"--guilink-timeout={LIMIT}", *options, cwd=tmp_path)
        finally:
            devices.terminate() if options else devices.kill()


def test_installs_without_a_network(tmp_path):
    source = tmp_path / "source"
    shutil.copytree(ROOT / "devkit/python", source)
    subprocess.run(["/usr/bin/python3", "-m", "venv", "--system-site-packages", "--without-pip",
                    tmp_path / "venv"], check=True)
    build = "from setuptools import build_meta; build_meta.build_sdist('dist')"
    subprocess.run(["/usr/bin/python3", "-c", build], check=True, cwd=source, stdout=subprocess.DEVNULL)
    run("pip", "-q", "--python", str(tmp_path / "venv"), "install", "--no-build-isolation", "--no-index",
        *map(str, (source / "dist").glob("*.tar.gz")))
    environment = {name: value for name, value in os.environ.items() if name != "PYTHONPATH"}
    for tool, words in (("guilink", "snapshot"), ("pytest", "--guilink-update")):
        help_of = [tmp_path / "venv/bin/python", "-m", tool, "--help"]
        assert words in subprocess.check_output(help_of, text=True, env=environment, cwd=tmp_path)
    version = subprocess.check_output([tmp_path / "venv/bin/guilink", "--version"], text=True, env=environment)
    assert f"VERSION {version.split()[1]} " in (ROOT / "CMakeLists.txt").read_text()
