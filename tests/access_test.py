"""Tests who may look at a viewer's page and press its buttons, from where, and what the viewer's log says about it."""
import http.client
import json
import os
import re
import resource
import select
import shutil
import socket
import ssl
import subprocess
import time
from contextlib import ExitStack, contextmanager
from pathlib import Path

import pytest
import websockets
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from support.fake_device import LIMIT
from support.service import end_service, start_service
from support.visitor import PORT, Page, ask, until

import guilink

BIN = Path(os.environ["GUILINK_BIN"])
DOCS = Path(__file__).resolve().parent.parent / "docs"
HAPROXY = shutil.which("haproxy", path=f"{os.environ['PATH']}:/usr/sbin")
FULL, VIEW, WRONG = "f" * 32, "v" * 32, "w" * 32
ROUTES = ("/", "/style.css", "/labels.json", "/state", "/metrics", "/snapshot.png?after=0", "/stream.mjpg", "/link",
          "/no")
ORDERS = ("/press/1", "/text", "/device/11111")


@pytest.fixture(scope="module", autouse=True)
def device():
    start_service(BIN)
    with subprocess.Popen([BIN / "guilink-core", "--still"], stderr=subprocess.DEVNULL) as core:
        yield
        core.terminate()
    end_service()


@contextmanager
def viewer(folder, *options, tokens=(FULL, VIEW), **environment):
    """Runs a viewer until it is linked. Yields a function that returns what it has printed and logged."""
    (folder / "tokens").write_text("".join(f"{token}\n" for token in tokens))
    (folder / "tokens").chmod(0o600)
    files = [folder / "out", folder / "err"]
    if tokens:
        options = "--token-file", folder / "tokens", *options
    with ExitStack() as stack:
        out, err = [stack.enter_context(file.open("w")) for file in files]
        journal = os.fstat(err.fileno())
        names = {"JOURNAL_STREAM": f"{journal.st_dev}:{journal.st_ino}"} if environment.get("journal") else {}
        process = subprocess.Popen([BIN / "guilink-viewer", *options], stdout=out, stderr=err, env=os.environ | names)
        try:
            until(lambda: files[0].read_text() and "device 11111 at" in files[1].read_text())
            yield lambda: [file.read_text() for file in files]
        finally:
            process.terminate()
            assert process.wait(LIMIT) == 0


def bearer(token):
    return {"Authorization": f"Bearer {token}"} if token else {}


def raw(*pieces, source="127.0.0.1"):
    """Sends bytes, and returns the status and the text of the answer."""
    with socket.create_connection(("127.0.0.1", PORT), LIMIT, (source, 0)) as connection:
        for piece in pieces:
            connection.sendall(piece)
        answer = b""
        while (more := connection.recv(65536)) and b"\r\n\r\n" not in answer:
            answer += more
        return int(answer.split()[1]), answer + more


def upgrade(**headers):
    return ask("GET", "/link", Connection="upgrade", Upgrade="websocket", Sec_WebSocket_Version="13",
               Sec_WebSocket_Key="AAAAAAAAAAAAAAAAAAAAAA==", **headers)[0]


def test_each_route_needs_a_token(tmp_path):
    with viewer(tmp_path, "--listen", "0.0.0.0:8080") as said:
        assert [f"http://{host}:8080/?token={FULL}" in said()[0] for host in ("localhost", "10.77.0.1")] == [True] * 2
        assert f"only look: http://10.77.0.1:8080/?token={VIEW}\n" in said()[0]
        for token in "", WRONG:
            for path in ROUTES:
                assert ask("GET", path, **bearer(token))[0] == ask("HEAD", path, **bearer(token))[0] == 401, path
            for path in ORDERS:
                assert ask("POST", path, b"text", **bearer(token))[0] == 401, path
            assert upgrade(**bearer(token)) == 401
            assert ask("GET", f"/?token={token}")[0] == 401
            assert ask("GET", f"/state?token={FULL}")[0] == 401
        for token, may, status in ((VIEW, "view", 403), (FULL, "press", 204)):
            status_of = {path: ask("HEAD", path, **bearer(token))[0] for path in ROUTES}
            assert status_of == dict.fromkeys(ROUTES, 200) | {"/link": 426, "/no": 404}
            assert json.loads(ask("GET", "/state", **bearer(token))[1])["may"] == may
            for path in ORDERS:
                assert ask("POST", path, b"text", **bearer(token))[0] == status, path
            for headers in ({"Host": "evil.example"}, {"Origin": "http://evil.example"},
                            {"Origin": "https://127.0.0.1:8080"}, {"Sec_Fetch_Site": "same-site"}):
                assert upgrade(**bearer(token), **headers) == 403, headers
                assert ask("POST", "/press/1", b"", **bearer(token), **headers)[0] == 403, headers
            with Page(headers=bearer(token)) as page:
                assert page.first["may"] == may
                page.send(press=1, id=1)
                assert ("delivered" in page.said()) == (may == "press")
        assert "pressed by 127.0.0.1 (page)" in said()[1] and "pressed by 127.0.0.1 (program)" in said()[1]


def test_programs_use_the_printed_url(tmp_path, caplog):
    caplog.set_level("DEBUG")
    with viewer(tmp_path, "--listen", "0.0.0.0:8080"):
        page = "http://10.77.0.1:8080/"
        with guilink.connect("11111", viewer=f"{page}?token={FULL}") as device:
            device.press("down")
        with guilink.connect(viewer=f"{page}?token={VIEW}", timeout=LIMIT) as device:
            device.wait_stable()
            with pytest.raises(guilink.LinkError, match="cannot press 'Down'.*only lets you look"):
                device.press("down")
        for query, words in (("", "asks for a token; use the URL"), (f"?token={WRONG}", "does not know this token")):
            with pytest.raises(guilink.AccessError, match=words) as error:
                guilink.connect(viewer=page + query)
            assert WRONG not in str(error.value)
        with pytest.raises(guilink.LinkError, match="no link to device 22222"):
            guilink.connect("22222", viewer=f"{page}?token={VIEW}", link_timeout=5)
    assert not [secret for secret in (FULL, VIEW, WRONG) if secret in caplog.text]


def test_the_browser_keeps_the_token_in_a_cookie(tmp_path):
    with viewer(tmp_path, "--listen", "0.0.0.0:8080"):
        status, _, headers = ask("GET", f"/?token={VIEW}")
        assert (status, headers["Location"]) == (303, "/")
        assert headers["Set-Cookie"] == f"guilink_token_8080={VIEW}; Path=/; HttpOnly; SameSite=Strict"
        cookie = headers["Set-Cookie"].split(";")[0]
        assert ask("GET", "/", Cookie=f"guilink_token_8081={WRONG}; {cookie}")[0] == 200
        with Page(headers={"Cookie": cookie}) as page:
            assert page.first["may"] == "view"
        assert ask("GET", "/", Cookie=cookie.replace("8080", "8081"))[0] == 401
        # A link on another site gets no cookie at first.
        for path, again in (("/", "0; url=/?again"), ("/?again", None), ("/?token=x", "0; url=/?wrong"),
                            ("/?wrong", None)):
            status, page, headers = ask("GET", path, Accept="text/html,*/*")
            assert (status, headers.get("Refresh")) == (401, again) and b"<form" in page


def test_links_on_other_sites_find_the_cookie(tmp_path):
    options = webdriver.ChromeOptions()
    for argument in "headless=new", "no-sandbox", "disable-gpu", f"user-data-dir={tmp_path}/profile":
        options.add_argument(f"--{argument}")
    with viewer(tmp_path, "--listen", "0.0.0.0:8080"), \
            webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options) as browser:
        for query in f"?token={VIEW}", "":
            browser.get(f"data:text/html,<a href='http://10.77.0.1:{PORT}/{query}'>the device</a>")
            browser.find_element(By.TAG_NAME, "a").click()
            until(lambda: [each.text for each in browser.find_elements(By.ID, "link")]
                  == ["Linked to 10.77.0.1, view only"])


def test_without_tokens(tmp_path):
    with viewer(tmp_path, tokens=()) as said:  # on loopback
        assert said()[0] == f"Open this page to see the device: http://127.0.0.1:{PORT}/\n"
        assert ask("GET", f"/?token={WRONG}")[0] == 200 and ask("POST", "/press/1", b"")[0] == 204
    with viewer(tmp_path, "--listen", "10.77.0.1:8080", "--no-token", tokens=()) as said:
        assert "everybody who can reach this page" in said()[1]
        assert ask("POST", "/press/1", b"", host="10.77.0.1")[0] == 204
    with viewer(tmp_path, "--listen", "10.77.0.1:8080", tokens=()) as said:
        full, view = re.findall(r"http://10.77.0.1:8080/\?token=([0-9a-f]{32})\n", said()[0])
        assert ask("GET", "/state", host="10.77.0.1")[0] == 401
        assert [json.loads(ask("GET", "/state", host="10.77.0.1", **bearer(token))[1])["may"]
                for token in (full, view)] == ["press", "view"]
    # The viewer runs in a network without addresses, and its page is in this one.
    (tmp_path / "inside").write_text(f"#!/bin/sh\nexec unshare --net {BIN}/guilink-viewer\n")
    (tmp_path / "inside").chmod(0o755)
    with subprocess.Popen([BIN / "guilink-viewer", "--listen", "0.0.0.0:8080", "--exec", tmp_path / "inside"],
                          stdout=subprocess.PIPE, text=True) as process:
        assert [process.stdout.readline().split("?")[0] for _ in range(3)][2] == "  http://10.77.0.1:8080/"
        process.terminate()


def test_guesses_are_slowed(tmp_path):
    with viewer(tmp_path, "--listen", "0.0.0.0:8080"):
        def seconds(source, token):
            start = time.monotonic()
            status = ask("GET", "/state", source=source, **bearer(token))[0]
            return status, time.monotonic() - start

        for number in range(5):
            assert seconds("127.0.0.2", f"{number}")[0] == 401
        status, waited = seconds("127.0.0.2", FULL)  # no guesser learns sooner that a token is right
        assert status == 200 and waited >= 1
        for number in range(5, 7):
            seconds("127.0.0.2", f"{number}")

        def only_the_guesser_waits():
            guesser = http.client.HTTPConnection("127.0.0.1", PORT, LIMIT, ("127.0.0.2", 0))
            guesser.request("GET", "/", headers=bearer(FULL))
            assert seconds("127.0.0.3", FULL)[0] == 200
            waits = not select.select([guesser.sock], [], [], 0)[0]
            assert guesser.getresponse().status == 200
            return waits

        until(only_the_guesser_waits)


def test_nobody_takes_all_connections(tmp_path):
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    with viewer(tmp_path, "--listen", "0.0.0.0:8080") as said, ExitStack() as stack:
        def connect(source, text=b""):
            connection = socket.create_connection(("127.0.0.1", PORT), LIMIT, (source, 0))
            connection.sendall(text)
            return stack.enter_context(connection)

        for number in range(1500):
            connect(f"127.0.1.{number % 30}", b"GET / HTTP/1.1\r\n" if number % 2 else b"")
        for source in "127.0.1.1", "127.0.0.2":
            assert ask("GET", "/state", source=source, **bearer(FULL))[0] == 200
        stream = f"GET /stream.mjpg HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer {VIEW}\r\n\r\n".encode()
        streams = [connect("127.0.0.2", stream) for _ in range(64)]
        assert all(each.recv(12) == b"HTTP/1.1 200" for each in streams)
        # Streams that nobody reads end, so that on a busy machine it may take more of them.
        until(lambda: connect("127.0.0.2", stream) and "refused 127.0.0.2: too many connections" in said()[1])
        assert connect("127.0.0.2").recv(1) == b""
        assert ask("GET", "/state", source="127.0.0.3", **bearer(FULL))[0] == 200
        for _ in range(300):
            assert ask("GET", "/state", source="127.0.0.4")[0] == 401
        assert said()[1].count("refused 127.0.0.4") < 30  # one a minute; the others are only counted


def test_bad_requests_get_an_answer(tmp_path):
    with viewer(tmp_path, tokens=()):
        host = b"Host: localhost\r\n"
        for pieces, status in (
                ((b"GET / HTTP/1.1\r\n", host, b"X: " + 9000 * b"x", b"\r\n\r\n"), 431),
                ((b"GET / HTTP/1.1\r\n", host, b"X: " + 300000 * b"x", b"\r\n\r\n"), 431),
                ((b"GET / HTTP/1.1\r\n", host, host, b"\r\n"), 400),
                ((b"GET / HTTP/1.1\r\n\r\n",), 400), ((b"GET / HTTP/1.0\r\n\r\n",), 400),
                ((b"hello\r\n\r\n",), 400), ((b"GET / HTTP/9.9\r\n", host, b"\r\n"), 400),
                ((b"GET / HTTP/1.1\r\n", host, b"Content-Length: x\r\n\r\n"), 400),
                ((b"GET / HTTP/1.1\r\n", host, b"a b: c\r\n\r\n"), 400),
                ((b"POST /text HTTP/1.1\r\n", host, b"Content-Length: 99999\r\n\r\n", 99999 * b"x"), 413)):
            assert raw(*pieces)[0] == status, pieces
        for path in "/", "/state", "/metrics", "/snapshot.png?after=0", "/labels.json", "/no":
            (head, nothing, some), (got, _, others) = ask("HEAD", path), ask("GET", path)
            assert (head, nothing, some.keys()) == (got, b"", others.keys()), path
        assert ask("HEAD", "/stream.mjpg")[2].get_content_type() == "multipart/x-mixed-replace"


def test_the_stream_tells_when_each_picture_came(tmp_path):
    with viewer(tmp_path, tokens=()), socket.create_connection(("127.0.0.1", PORT), LIMIT) as connection:
        before = time.time()
        connection.sendall(b"GET /stream.mjpg HTTP/1.1\r\nHost: localhost\r\n\r\n")
        received = b""
        while len(times := re.findall(rb"\r\nX-Timestamp: (\d+\.\d{6})\r\n", received)) < 3:
            received += connection.recv(65536)
        times = [float(each) for each in times]
        assert times == sorted(set(times)) and before - LIMIT < times[0] < times[2] <= time.time()


def test_the_log(tmp_path):
    with viewer(tmp_path, "--listen", "0.0.0.0:8080") as said:
        assert ask("POST", "/text", b"one\ntwo", source="127.0.0.2", **bearer(FULL))[0] == 204
        assert ask("POST", "/device/11111", b"", **bearer(FULL), Origin=f"http://127.0.0.1:{PORT}")[0] == 204
        ask("GET", "/state", Host="evil.example")
        ask("POST", "/press/1", b"", **bearer(VIEW))
        end_service()
        until(lambda: "link to 10.77.0.1, device 11111 ended" in said()[1])
        lines = said()[1].splitlines()
        assert all(re.match(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4} \w", line) for line in lines), lines
        for line in ("linked to 10.77.0.1", "text of 7 bytes sent by 127.0.0.2 (program)",
                     "device 11111 chosen by 127.0.0.1 (page)", "refused 127.0.0.1: unknown Host",
                     "refused 127.0.0.1: may only look"):
            assert [each for each in lines if each.endswith(line)], line
    start_service(BIN)
    with viewer(tmp_path, tokens=(), journal=True) as said:
        assert said()[1].splitlines()[0] == "linked to 10.77.0.1"  # the journal adds the time


@pytest.mark.skipif(not HAPROXY, reason="the package haproxy is missing")
def test_behind_a_proxy_with_tls(tmp_path, monkeypatch):
    pem, name = tmp_path / "both.pem", "device.example.org"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-subj", f"/CN={name}", "-addext", f"subjectAltName=DNS:{name},DNS:localhost", "-days", "1",
                    "-keyout", tmp_path / "key", "-out", pem], check=True, capture_output=True)
    trust = ssl.create_default_context(cafile=pem)
    pem.write_text(pem.read_text() + (tmp_path / "key").read_text())
    documented = re.search(r"```\n(defaults\n.*?)```", (DOCS / "remote.md").read_text(), re.S)[1]
    assert f"/etc/haproxy/{name}.pem" in documented
    (tmp_path / "cfg").write_text(documented.replace(f"/etc/haproxy/{name}.pem", str(pem)))

    def exchange(method, path, **headers):
        """Sends a request from 127.0.0.5, and returns the status and the headers of the answer."""
        plain = socket.create_connection(("127.0.0.1", 443), LIMIT, ("127.0.0.5", 0))
        with trust.wrap_socket(plain, server_hostname=name) as connection:
            lines = [f"{method} {path} HTTP/1.1", *(f"{key.replace('_', '-')}: {value}" for key, value in
                                                    ({"Host": name, "Content-Length": 0} | headers).items())]
            connection.sendall("\r\n".join([*lines, "", ""]).encode())
            answer = b""
            while b"\r\n\r\n" not in answer:
                answer += connection.recv(65536)
            return int(answer.split()[1]), answer.decode(errors="replace")

    with viewer(tmp_path, "--allow-host", name) as said, \
            subprocess.Popen([HAPROXY, "-db", "-f", tmp_path / "cfg"]) as proxy:
        try:
            assert f"https://{name}/?token={FULL}" in said()[0]
            until(lambda: socket.socket().connect_ex(("127.0.0.1", 443)) == 0)
            assert exchange("GET", "/")[0] == exchange("GET", "/", **bearer(WRONG))[0] == 401
            status, answer = exchange("GET", f"/?token={FULL}")
            cookie = f"guilink_token={FULL}"
            assert status == 303 and f"{cookie}; Path=/; HttpOnly; SameSite=Strict; Secure\r\n" in answer
            press = {"Cookie": cookie, "Origin": f"https://{name}", "X_Forwarded_For": "10.1.1.1"}
            assert exchange("POST", "/press/1", **press)[0] == 204
            assert "button 1 pressed by 127.0.0.5 (page)" in said()[1]  # not by the address that the client invented
            for forged in ({"Origin": "https://evil.example"}, {"Host": "evil.example"},
                           {"Sec_Fetch_Site": "same-site"}, {"Origin": f"https://{name}:8443"}):
                assert exchange("POST", "/press/1", **press | forged)[0] == 403, forged
            assert exchange("POST", "/press/1", **bearer(VIEW))[0] == 403

            def page(token, origin):
                return Page(f"wss://{name}/link", origin, {"Cookie": f"guilink_token={token}"}, ssl=trust,
                            host="127.0.0.1", port=443, server_hostname=name)

            for token, may in (FULL, "press"), (VIEW, "view"):
                with page(token, f"https://{name}") as one:
                    assert one.first["may"] == may
            with pytest.raises(websockets.exceptions.InvalidHandshake):
                page(FULL, "https://evil.example")

            with pytest.raises(guilink.AccessError, match="does not trust: self-signed"):
                guilink.connect(viewer=f"https://localhost/?token={FULL}")
            monkeypatch.setenv("SSL_CERT_FILE", str(pem))
            with guilink.connect(viewer=f"https://localhost/?token={FULL}") as device:
                device.press("down")
        finally:
            proxy.terminate()


def test_wrong_token_files_are_refused(tmp_path):
    file = tmp_path / "tokens"
    file.write_text(f"{FULL}\n")
    file.chmod(0o644)
    for path, why in (file, "others can read it"), (tmp_path / "no", "umask 077"):
        ran = subprocess.run([BIN / "guilink-viewer", "--token-file", path], capture_output=True, text=True)
        assert ran.returncode == 1 and why in ran.stderr
