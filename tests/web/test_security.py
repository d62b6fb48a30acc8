"""zelisp-cam serve as an attacker and a careful operator try it, on the
simulated driver: names of other sites in the Host header (DNS rebinding),
other sites' requests, every form of the token and where it may come from,
a TLS reverse proxy's origin, HTTPS of its own, the access log, and
oversized or endless requests. Clients by the hundred live in
tests/web/test_load.py."""
import os
import re
import signal
import socket
import ssl
import subprocess
import time

import pytest

from console import CAM, LONG_WAIT_S, OUT, SIM_RUN, Console, open_stream, mjpeg_parts

TOKEN = "c2VjcmV0+dG9rZW4/Zm9y=dGVzdHM"  # base64, with the '+', '/' and '=' a shell user pastes
CHANGE = "/api/cameras/0/controls/hue"


def raw_request(port, data, wait=LONG_WAIT_S):
    """Sends bytes as they are; returns what came back until the server closed or answered."""
    with socket.create_connection(("127.0.0.1", port), timeout=wait) as s:
        try:
            s.sendall(data)
        except (BrokenPipeError, ConnectionResetError):
            pass  # the server answered and closed before taking it all
        received = b""
        try:
            while True:
                chunk = s.recv(1 << 16)
                if not chunk:
                    break
                received += chunk
                head, _, body = received.partition(b"\r\n\r\n")
                length = re.search(rb"Content-Length: (\d+)", head)
                if length and len(body) >= int(length.group(1)):
                    break
        except ConnectionResetError:
            pass
    return received


def status_of(answer):
    return int(answer.split(b" ", 2)[1]) if answer else None


def hue(console):
    status, details = console.json("GET", "/api/cameras/0")
    return next(c["value"] for c in details["controls"] if c["name"] == "hue")


@pytest.fixture(scope="module")
def console():
    with Console(["--cameras", "0", "--allow-host", "cam.local"]) as running:
        yield running


def test_hosts_of_other_names_are_misdirected(console):
    port = console.port
    refused = [f"127.attacker.example:{port}", f"attacker.example:{port}", f"localhost.attacker.example:{port}",
               f"127.0.0.2:{port}", f"127.0.0.1:{port + 1}", f"localhost:{port}.attacker.example",
               "127.0.0.1", f"cam.local.attacker.example:{port}", f"[::2]:{port}", f"::1:{port}"]
    for host in refused:
        for method, path, body in (("GET", "/", None), ("GET", "/api/stats", None),
                                   ("GET", "/stream/0/0.mjpg", None), ("GET", "/api/snapshot/0/0.png", None),
                                   ("PUT", CHANGE, '{"value": 200}')):
            headers = {"Host": host, "Origin": f"http://{host}", "Content-Type": "application/json"}
            status, answer = console.json(method, path, raw=body, headers=headers)
            assert (status, answer["error"]) == (
                421, f"the Host '{host}' is not a name of this console (allow a name with --allow-host)"), (host, path)
    assert hue(console) == [128]
    assert console.stats()["streams"]["served"] == 0
    # Its own names, and a name given with --allow-host (at any port).
    for host in (f"127.0.0.1:{port}", f"localhost:{port}", f"LOCALHOST:{port}", f"[::1]:{port}",
                 f"cam.local:{port}", "cam.local:443", "cam.local"):
        assert console.json("GET", "/api/stats", headers={"Host": host})[0] == 200, host
    status, answer = console.json("PUT", CHANGE, raw='{"value": 3}', headers={
        "Host": f"cam.local:{port}", "Origin": f"http://cam.local:{port}", "Content-Type": "application/json"})
    assert (status, answer["value"]) == (200, [3])


def test_other_sites_can_neither_embed_nor_change(console):
    origin = f"http://127.0.0.1:{console.port}"
    for headers in ({"Origin": "http://evil.example"}, {"Origin": "null"}, {"Origin": f"https://127.0.0.1:{console.port}"},
                    {"Sec-Fetch-Site": "cross-site"}, {"Origin": origin, "Sec-Fetch-Site": "same-site"}):
        status, answer = console.json("PUT", CHANGE, raw='{"value": 7}', headers=headers)
        assert status == 403 and answer["error"] in (
            "cross-origin request refused: changes come from this console's own page",
            "cross-site request refused: the console answers its own page only"), headers
    # An <img> of another site: the stream is refused before it takes a slot.
    for path in ("/stream/0/0.mjpg", "/api/snapshot/0/0.png", "/api/preview/0/0.jpg", "/api/stats"):
        status, answer = console.json("GET", path, headers={"Sec-Fetch-Site": "cross-site", "Sec-Fetch-Mode": "no-cors"})
        assert (status, answer["error"]) == (403, "cross-site request refused: the console answers its own page only")
    assert console.stats()["streams"]["served"] == 0
    # A link from another site to the page itself is a navigation: served.
    status, _, page = console.request("GET", "/", headers={"Sec-Fetch-Site": "cross-site", "Sec-Fetch-Mode": "navigate"})
    assert status == 200 and b"zelisp-cam console" in page
    assert hue(console) in ([128], [3])
    status, answer = console.json("PUT", CHANGE, raw='{"value": 9}', headers={"Origin": origin, "Sec-Fetch-Site": "same-origin"})
    assert (status, answer["value"]) == (200, [9])


def test_token_in_every_form(tmp_path):
    path = tmp_path / "token"
    path.write_text(TOKEN + "\n")
    path.chmod(0o600)
    with Console(["--cameras", "0", "--token-file", str(path)]) as console:
        need = "this console needs its token: open /login?token=TOKEN, or send the X-Zelisp-Token header"
        for headers, message in (({}, need), ({"X-Zelisp-Token": TOKEN[:-1]}, "wrong token"),
                                 ({"Authorization": "Bearer " + TOKEN + "x"}, "wrong token"),
                                 ({"Authorization": "Basic " + TOKEN}, need),
                                 ({"Cookie": "zelisp_token=" + TOKEN.lower()}, "wrong token")):
            for path_ in ("/api/stats", "/stream/0/0.mjpg", "/api/snapshot/0/0.png", "/api/preview/0/0.jpg"):
                status, headers_, body = console.request("GET", path_, headers=headers)
                assert (status, body) == (401, ('{"error":"%s"}' % message).encode()), (path_, headers)
                assert headers_["WWW-Authenticate"] == 'Bearer realm="zelisp-cam"'
        # The page itself holds no secret: it asks for the token.
        status, _, page = console.request("GET", "/")
        assert status == 200 and b'id="login-form"' in page
        quoted = TOKEN.replace("+", "%2B").replace("/", "%2F").replace("=", "%3D")
        for headers, path_ in (({"X-Zelisp-Token": TOKEN}, "/api/stats"),
                               ({"Authorization": "Bearer " + TOKEN}, "/api/stats"),
                               ({"Authorization": "bearer " + TOKEN}, "/api/stats"),
                               ({"Authorization": "BEARER  " + TOKEN}, "/api/stats"),
                               ({"Cookie": "theme=dark; zelisp_token=" + TOKEN}, "/api/stats"),
                               ({}, "/api/stats?token=" + quoted),
                               ({}, "/api/stats?token=" + TOKEN),  # pasted as it is: '+' reads as a blank
                               ({}, "/api/snapshot/0/2.png?token=" + quoted)):
            assert console.request("GET", path_, headers=headers)[0] == 200, (headers, path_)
        # Players cannot send headers: a stream takes ?token=.
        conn, response = open_stream(console, "/stream/0/2.mjpg?token=" + quoted)
        assert response.status == 200
        mjpeg_parts(response, 1)
        conn.close()
        # A change needs the header or the cookie: a URL is not enough.
        status, answer = console.json("PUT", CHANGE + "?token=" + quoted, {"value": 5})
        assert (status, answer["error"]) == (401, need)
        assert console.json("PUT", CHANGE, {"value": 5}, headers={"Authorization": "Bearer " + TOKEN})[0] == 200

        # /login as a link (303 to the page) and from the page's form (200).
        status, headers, _ = console.request("GET", "/login?token=" + TOKEN)
        assert (status, headers["Location"]) == (303, "/")
        cookie = "zelisp_token=" + TOKEN + "; Path=/; HttpOnly; SameSite=Strict"
        assert headers["Set-Cookie"] == cookie
        status, headers, body = console.request("POST", "/login", body="token=" + quoted,
                                                headers={"Content-Type": "application/x-www-form-urlencoded"})
        assert (status, headers["Set-Cookie"], body) == (200, cookie, b'{"ok":true}')
        status, answer = console.json("GET", "/login?token=" + TOKEN[:20])
        assert (status, answer["error"]) == (401, "wrong token")
        # A client trying tokens in a loop gets its 401s, but one line a minute in the events.
        for _ in range(30):
            assert console.request("POST", "/login", body="token=guess" + "x" * 16,
                                   headers={"Content-Type": "application/x-www-form-urlencoded"})[0] == 401
        lines = [e["text"] for e in console.events(headers={"X-Zelisp-Token": TOKEN})
                 if e["text"].startswith("a wrong token")]
        assert lines == ["a wrong token was given at /login from 127.0.0.1"]
        status, headers, _ = console.request("POST", "/logout")
        assert headers["Set-Cookie"] == "zelisp_token=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0"


def serve_once(*args, env=None):
    """Runs serve with a command line it should refuse at once."""
    return subprocess.run([SIM_RUN, "--", CAM, "serve", *args], capture_output=True, text=True, timeout=LONG_WAIT_S,
                          env={**os.environ, **(env or {})})


def test_where_the_token_may_come_from(tmp_path):
    run = serve_once("--token", "short")
    assert (run.returncode, run.stderr.splitlines()[0]) == (
        64, "zelisp-cam: a token needs at least 16 characters (it has 5)")
    run = serve_once("--token", "sixteen chars ok")
    assert (run.returncode, run.stderr.splitlines()[0]) == (
        64, "zelisp-cam: a token may hold visible ASCII characters except '\"', ',', ';' and '\\'")
    run = serve_once("--token", TOKEN, env={"ZELISP_CAM_TOKEN": TOKEN})
    assert (run.returncode, run.stderr.splitlines()[0]) == (
        64, "zelisp-cam: give the token one way only: --token-file, $ZELISP_CAM_TOKEN or --token")
    run = serve_once("--token-file", str(tmp_path / "missing"))
    assert (run.returncode, run.stderr.splitlines()[0]) == (
        64, f"zelisp-cam: cannot read the token from {tmp_path / 'missing'}: No such file or directory")

    # From the environment: nothing in ps, no warning.
    with Console(["--cameras", "0"], env={"ZELISP_CAM_TOKEN": TOKEN}) as console:
        assert console.request("GET", "/api/stats")[0] == 401
        assert console.request("GET", "/api/stats", headers={"X-Zelisp-Token": TOKEN})[0] == 200
        assert all(TOKEN not in line for line in console.output)
        status, out = console.stop()
        assert "warning" not in console.stderr()
    # On the command line it works, with a warning; a file others can read warns too.
    loose = tmp_path / "loose"
    loose.write_text(TOKEN)
    loose.chmod(0o644)
    for args, warning in ((["--token", TOKEN], "zelisp-cam: warning: --token shows the token to every user of this "
                                                "machine (ps); use --token-file or $ZELISP_CAM_TOKEN\n"),
                          (["--token-file", str(loose)], f"zelisp-cam: warning: {loose} can be read by other users: "
                                                         "chmod 600 it\n")):
        with Console(["--cameras", "0", *args]) as console:
            assert console.request("GET", "/api/stats", headers={"X-Zelisp-Token": TOKEN})[0] == 200
            console.stop()
            assert warning in console.stderr()


def in_namespace(namespace, *command, **kwargs):
    return subprocess.run(["ip", "netns", "exec", namespace, *command], capture_output=True, text=True,
                          timeout=LONG_WAIT_S, **kwargs)


GET_IN_NAMESPACE = """
import http.client, sys
conn = http.client.HTTPConnection(sys.argv[1], int(sys.argv[2]), timeout=60)
headers = {"X-Zelisp-Token": sys.argv[4]} if len(sys.argv) > 4 else {}
conn.request("GET", sys.argv[3], headers=headers)
print(conn.getresponse().status)
"""


def test_beyond_loopback_a_token_is_made_and_printed_once():
    # A network namespace of the test's own, with one address that is not
    # loopback: the console listens there, and only there.
    namespace = f"zcam-token-{os.getpid()}"
    subprocess.run(["ip", "netns", "add", namespace], check=True, timeout=LONG_WAIT_S)
    try:
        in_namespace(namespace, "ip", "link", "set", "lo", "up", check=True)
        in_namespace(namespace, "ip", "addr", "add", "10.77.0.1/32", "dev", "lo", check=True)
        process = subprocess.Popen(["ip", "netns", "exec", namespace, SIM_RUN, "--", CAM, "serve", "--cameras", "0",
                                    "--listen", "10.77.0.1:0"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   text=True)
        try:
            token_line = process.stdout.readline()
            serving = process.stdout.readline()
            made = re.fullmatch(r"zelisp-cam: this run's token \(the console listens beyond loopback\): open "
                                r"http://10\.77\.0\.1:(\d+)/login\?token=([A-Za-z0-9_-]{32})\n", token_line)
            assert made, token_line
            port, token = made.group(1), made.group(2)
            assert serving == f"zelisp-cam: serving 1 camera on http://10.77.0.1:{port}/\n"
            get = ["/usr/bin/python3", "-c", GET_IN_NAMESPACE, "10.77.0.1", port, "/api/stats"]
            assert in_namespace(namespace, *get).stdout == "401\n"
            assert in_namespace(namespace, *get, token).stdout == "200\n"
        finally:
            process.send_signal(signal.SIGINT)
            rest, _ = process.communicate(timeout=LONG_WAIT_S)
        assert rest == "zelisp-cam: stopped; every camera closed\n"  # the token was printed once
    finally:
        subprocess.run(["ip", "netns", "del", namespace], timeout=LONG_WAIT_S)


def test_a_tls_reverse_proxy_may_change_settings():
    with Console(["--cameras", "0", "--trusted-proxy", "https://cam.example.com"]) as console:
        proxied = {"Host": f"127.0.0.1:{console.port}", "Origin": "https://cam.example.com",
                   "Content-Type": "application/json", "X-Forwarded-Proto": "https"}
        status, answer = console.json("PUT", CHANGE, raw='{"value": 40}', headers=proxied)
        assert (status, answer["value"]) == (200, [40])
        # The proxy may pass the browser's Host on as it is.
        status, answer = console.json("PUT", CHANGE, raw='{"value": 41}', headers={**proxied, "Host": "cam.example.com"})
        assert (status, answer["value"]) == (200, [41])
        status, answer = console.json("PUT", CHANGE, raw='{"value": 42}', headers={**proxied, "Origin": "https://evil.example"})
        assert status == 403
        assert hue(console) == [41]
    run = serve_once("--trusted-proxy", "cam.example.com")
    assert (run.returncode, run.stderr.splitlines()[0]) == (
        64, "zelisp-cam: --trusted-proxy takes the origin the browser sees, such as https://cam.example.com (scheme "
            "and host, no path): 'cam.example.com'")
    # Without the option, a page served over https by a proxy cannot change anything.
    with Console(["--cameras", "0"]) as console:
        status, _ = console.json("PUT", CHANGE, raw='{"value": 40}', headers={"Origin": "https://cam.example.com"})
        assert status == 403


def test_https_of_its_own(tmp_path):
    key, certificate = tmp_path / "key.pem", tmp_path / "cert.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-keyout", str(key), "-out", str(certificate), "-days", "2", "-subj", "/CN=localhost"],
                   check=True, capture_output=True, timeout=LONG_WAIT_S)
    with Console(["--cameras", "0", "--tls-cert", str(certificate), "--tls-key", str(key), "--token", TOKEN]) as console:
        assert console.scheme == "https"
        status, headers, page = console.request("GET", "/")
        assert status == 200 and b"zelisp-cam console" in page
        status, answer = console.json("PUT", CHANGE, {"value": 77}, headers={
            "X-Zelisp-Token": TOKEN, "Origin": f"https://127.0.0.1:{console.port}"})
        assert (status, answer["value"]) == (200, [77])
        status, headers, _ = console.request("GET", "/login?token=" + TOKEN.replace("+", "%2B"))
        assert headers["Set-Cookie"].endswith("; Secure")
        # Plain HTTP on the TLS port gets no answer.
        assert not raw_request(console.port, b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n").startswith(b"HTTP/1.1 200")
    run = serve_once("--tls-cert", str(certificate))
    assert (run.returncode, run.stderr.splitlines()[0]) == (64, "zelisp-cam: --tls-cert and --tls-key go together")
    run = serve_once("--tls-cert", str(certificate), "--tls-key", str(certificate), "--listen", "127.0.0.1:0")
    assert run.returncode == 69
    assert "zelisp-cam: cannot serve on 127.0.0.1:0: the HTTP server did not start (is the TLS key or certificate " \
           "malformed?)\n" in run.stderr


def test_the_access_log_never_holds_the_token(tmp_path):
    log = tmp_path / "access.log"
    with Console(["--cameras", "0", "--token", TOKEN, "--access-log", str(log)]) as console:
        quoted = TOKEN.replace("+", "%2B").replace("/", "%2F").replace("=", "%3D")
        raw_request(console.port, b"GET /api/stats?token=%s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n"
                                  b"User-Agent: evil\"\x01agent\r\nConnection: close\r\n\r\n" % (quoted.encode(), console.port))
        console.request("GET", "/api/stats", headers={"Authorization": "Bearer " + TOKEN,
                                                      "Referer": f"http://127.0.0.1/?token={quoted}&x=1"})
        console.request("GET", "/api/stats", headers={"Cookie": "zelisp_token=" + TOKEN})
        console.request("GET", "/login?token=" + quoted)
        console.request("GET", "/api/stats", headers={"X-Zelisp-Token": "wrong" + TOKEN})
        console.stop()
    text = log.read_text()
    lines = text.splitlines()
    assert len(lines) == 5, text
    for secret in (TOKEN, quoted, TOKEN[:12], quoted[:12]):
        assert secret not in text
    pattern = (r'127\.0\.0\.1 - - \[\d\d/\w{3}/\d{4}:\d\d:\d\d:\d\d \+0000\] "GET (\S+) HTTP/1\.1" (\d{3}) (\d+) '
               r'"([^"]*)" "([^"]*)" \d+\.\dms')
    fields = [re.fullmatch(pattern, line).groups() for line in lines]
    assert [(f[0], f[1]) for f in fields] == [("/api/stats?token=*", "200"), ("/api/stats", "200"),
                                              ("/api/stats", "200"), ("/login?token=*", "303"),
                                              ("/api/stats", "401")]
    assert fields[0][4] == "evil\\x22\\x01agent"  # quotes and control characters cannot forge a line
    assert fields[1][3] == "http://127.0.0.1/?token=*&x=1"


def test_oversized_and_endless_requests(console):
    port = console.port
    host = b"Host: 127.0.0.1:%d\r\n" % port
    put = b"PUT " + CHANGE.encode() + b" HTTP/1.1\r\n" + host + b"Content-Type: application/json\r\n"
    before = console.stats()["http"]
    answer = raw_request(port, b"GET /api/stats HTTP/1.1\r\n" + host + b"X-Big: " + b"a" * 20000 + b"\r\n\r\n")
    assert status_of(answer) == 431 and answer.endswith(b'{"error":"request headers over 16384 bytes"}')
    # Beyond the connection's memory the library itself answers 431.
    assert status_of(raw_request(port, b"GET / HTTP/1.1\r\n" + host + b"X-Big: " + b"a" * 100000 + b"\r\n\r\n")) == 431
    assert status_of(raw_request(port, b"GET / HTTP/1.1\r\n" + host + b"X-A: b\r\n" * 100000 + b"\r\n")) == 431
    # Bodies over 4 KiB, whole or chunked, and a chunked one within it.
    answer = raw_request(port, put + b"Content-Length: 5000\r\n\r\n" + b"1" * 5000)
    assert status_of(answer) == 413 and answer.endswith(b'{"error":"request body over 4096 bytes"}')
    chunks = b"".join(b"%x\r\n%s\r\n" % (1000, b" " * 1000) for _ in range(10000))
    answer = raw_request(port, put + b"Transfer-Encoding: chunked\r\n\r\n" + b'4\r\n{"va\r\n' + chunks + b"0\r\n\r\n")
    assert status_of(answer) == 413 and answer.endswith(b'{"error":"request body over 4096 bytes"}')
    small = b'{"value": 61}'
    answer = raw_request(port, put + b"Transfer-Encoding: chunked\r\n\r\n" +
                         b"%x\r\n%s\r\n0\r\n\r\n" % (len(small), small))
    assert status_of(answer) == 200 and answer.endswith(b'"value":[61]}')
    assert hue(console) == [61]
    after = console.stats()["http"]
    assert after["headers_too_large"] - before["headers_too_large"] == 1  # the other two were the library's
    assert after["bodies_too_large"] - before["bodies_too_large"] == 2
