#!/usr/bin/env python3
"""`pendrel serve` driven as its users drive it: on loopback, with the test echo handler
mounted, through curl (a real client) and Python's own HTTP client and raw sockets.

The programs come from the environment (CTest sets them): PENDREL (the pendrel program),
PENDREL_ECHO_HANDLER (tests/server/echo_handler) and PENDREL_REQUEST_FORMS
(tests/server/request_forms.cpp). Every wait is bounded and waits for an event: a line the
server prints, an answer, a process ending. Each server's handlers are started through a link
in a folder of the test's own, so the test can tell its processes from any other and check
that none is left behind.
"""
import email
import email.policy
import http.client
import json
import os
import queue
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.parse

PENDREL = os.environ.get("PENDREL", "")
ECHO_HANDLER = os.environ.get("PENDREL_ECHO_HANDLER", "")
REQUEST_FORMS = os.environ.get("PENDREL_REQUEST_FORMS", "")

START_TIME_S = 20  # the server prints its listening line well within this


def processes_with(marker):
    """Ids of running processes whose command line holds `marker`."""
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/cmdline", "rb") as f:
                command = f.read()
            with open(f"/proc/{entry}/stat", "rb") as f:
                state = f.read().rsplit(b")", 1)[1].split()[0]
        except OSError:
            continue
        if marker.encode() in command and state != b"Z":
            found.append(int(entry))
    return found


def wait_until(condition, timeout_s, step_s=0.02):
    """Checks `condition` until it holds or `timeout_s` is over; returns its last value."""
    deadline = time.monotonic() + timeout_s
    while True:
        value = condition()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(step_s)


class Server:
    """One `pendrel serve` process with its stderr collected line by line."""

    def __init__(self, folder, arguments, expect_listening=True, address_space=None):
        self.folder = folder
        limit = None
        if address_space is not None:
            limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (address_space, address_space))
        self.process = subprocess.Popen(
            [PENDREL, "serve", *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            preexec_fn=limit)
        self.lines = []
        self.changed = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.port = None
        if expect_listening:
            line = self.wait_line(r"^pendrel serve: listening on 127\.0\.0\.1:(\d+)$", START_TIME_S)
            self.port = int(re.match(r".*:(\d+)$", line).group(1))

    def _read(self):
        for raw in self.process.stderr:
            with self.changed:
                self.lines.append(raw.decode("utf-8", "replace").rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.lines.append(None)  # end of output
            self.changed.notify_all()

    def wait_line(self, pattern, timeout_s, start=0):
        """The first line from index `start` matching `pattern`; fails after `timeout_s`."""
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout_s
        with self.changed:
            while True:
                for line in self.lines[start:]:
                    if line is not None and regex.search(line):
                        return line
                if None in self.lines[start:]:
                    raise AssertionError(f"the server ended without printing {pattern!r}:\n" +
                                         "\n".join(l for l in self.lines if l))
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError(f"no line {pattern!r} within {timeout_s} s:\n" +
                                         "\n".join(l for l in self.lines if l))
                self.changed.wait(left)

    def log_entry(self, request_id, timeout_s=10):
        line = self.wait_line(r'"request_id":"%s"' % re.escape(request_id), timeout_s)
        return json.loads(line)

    def url(self, path):
        return f"http://127.0.0.1:{self.port}{path}"

    def connection(self, timeout_s=30):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout_s)

    def stop(self, sig=signal.SIGTERM, timeout_s=30):
        if self.process.poll() is None:
            self.process.send_signal(sig)
        code = self.process.wait(timeout=timeout_s)
        self.reader.join(timeout=10)
        self.process.stderr.close()
        return code

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(timeout=10)
        self.reader.join(timeout=10)
        self.process.stderr.close()


def curl(*arguments, data=None, timeout_s=30):
    """Runs curl; returns (status, header fields as a list of (name, value), body bytes)."""
    with tempfile.NamedTemporaryFile() as headers:
        command = ["curl", "-sS", "--max-time", str(timeout_s), "-D", headers.name,
                   "-o", "-", *arguments]
        result = subprocess.run(command, input=data, capture_output=True, timeout=timeout_s + 10)
        if result.returncode != 0:
            raise AssertionError(f"curl {arguments} failed: {result.stderr.decode()}")
        with open(headers.name, "rb") as f:
            blocks = f.read().decode("latin-1").split("\r\n\r\n")
        block = [b for b in blocks if b.startswith("HTTP/")][-1]  # after "100 Continue"
        lines = block.split("\r\n")
        status = int(lines[0].split()[1])
        fields = [tuple(part.strip() for part in line.split(":", 1)) for line in lines[1:] if line]
        return status, fields, result.stdout


def field(fields, name):
    for key, value in fields:
        if key.lower() == name.lower():
            return value
    return None


def raw_exchange(port, data, timeout_s=10, shut=False):
    """Sends `data` on a fresh connection and returns everything read until it closes or
    an answer is complete (one answer, its length known)."""
    deadline = time.monotonic() + timeout_s
    with socket.create_connection(("127.0.0.1", port), timeout=timeout_s) as s:
        s.sendall(data)
        if shut:
            s.shutdown(socket.SHUT_WR)
        received = b""
        while time.monotonic() < deadline:
            head, sep, rest = received.partition(b"\r\n\r\n")
            if sep:
                match = re.search(rb"(?i)content-length:\s*(\d+)", head)
                if match and len(rest) >= int(match.group(1)):
                    return received
            try:
                chunk = s.recv(65536)
            except ConnectionResetError:
                return received
            if not chunk:
                return received
            received += chunk
        return received


def read_answers(s, count, timeout_s=30):
    """Reads `count` answers with a Content-Length from socket `s`: a list of (status, body)."""
    deadline = time.monotonic() + timeout_s
    received, answers = b"", []
    while len(answers) < count and time.monotonic() < deadline:
        head, sep, rest = received.partition(b"\r\n\r\n")
        match = re.search(rb"(?i)content-length:\s*(\d+)", head) if sep else None
        if match and len(rest) >= int(match.group(1)):
            length = int(match.group(1))
            answers.append((status_of(head), rest[:length]))
            received = rest[length:]
            continue
        chunk = s.recv(1 << 20)
        if not chunk:
            break
        received += chunk
    return answers


def status_of(answer):
    return int(answer.split(b" ", 2)[1]) if answer.startswith(b"HTTP/") else None


class ServerTest(unittest.TestCase):
    """Base: a folder with a link to the echo handler; servers started by the test are
    stopped and checked for leftover processes at its end."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="pendrel-serve-test-")
        self.handler = os.path.join(self.folder, "echo-handler")
        os.symlink(ECHO_HANDLER, self.handler)
        self.servers = []

    def tearDown(self):
        for server in self.servers:
            server.kill()
        try:
            left = wait_until(lambda: not processes_with(self.folder), 10)
            self.assertTrue(left, f"processes left running: {processes_with(self.folder)}")
        finally:
            shutil.rmtree(self.folder, ignore_errors=True)

    def serve(self, *arguments, config=None, expect_listening=True, address_space=None):
        arguments = list(arguments)
        if config is not None:
            path = os.path.join(self.folder, "serve.toml")
            with open(path, "w") as f:
                f.write(config)
            arguments += ["--config", path]
        if not any(a.startswith("--listen") for a in arguments) and "listen" not in (config or ""):
            arguments += ["--listen", "127.0.0.1:0"]
        server = Server(self.folder, arguments, expect_listening, address_space)
        self.servers.append(server)
        return server

    def echo_server(self, *arguments):
        return self.serve("--mount", f"/echo={self.handler}", *arguments)

    def config(self, mount="/echo", timeout_s=120, pool="", extra=""):
        return (f'listen = ["127.0.0.1:0"]\n{extra}\n[[handler]]\nmount = "{mount}"\n'
                f'program = "{self.handler}"\ntimeout_s = {timeout_s}\n' +
                (f"pool = {{ {pool} }}\n" if pool else ""))


class Routes(ServerTest):
    def test_url_request_is_read_into_the_request(self):
        server = self.echo_server()
        status, fields, body = curl(server.url("/echo/STATS/s1/k1/v1/k2/v2?lang=en&Mode=fast"))
        self.assertEqual(status, 200)
        self.assertEqual(field(fields, "X-Pendrel-Status"), "1")
        self.assertEqual(json.loads(body), {
            "Command": "STATS", "CommandAtribute": "", "CommandParams": {"k1": "v1", "k2": "v2"},
            "RequestParams": {"LANG": "en", "MODE": "fast"}, "InputData": []})
        status, _, body = curl(server.url("/echo/SDOC/plan/A/1"), "-X", "POST")
        self.assertEqual(json.loads(body)["CommandAtribute"], "plan")

    def test_one_file_body_comes_back_unchanged(self):
        server = self.echo_server()
        data = bytes(range(256)) * 40
        status, fields, body = curl(server.url("/echo/FILES/?x=1"), "--data-binary", "@-",
                                    "-H", "Content-Type: image/png; name=\"plot\"",
                                    "-H", "Content-Disposition: inline; filename=\"plot.png\"",
                                    data=data)
        self.assertEqual(status, 200)
        self.assertEqual(body, data)
        self.assertEqual(field(fields, "Content-Type"), 'image/png; name="plot"')
        self.assertEqual(field(fields, "Content-Disposition"), 'inline; filename="plot.png"')

    def test_form_data_files_and_fields(self):
        server = self.echo_server()
        upload = os.path.join(self.folder, "notes.txt")
        with open(upload, "wb") as f:
            f.write("hello, мир\n".encode())
        status, _, body = curl(server.url("/echo/STATS/"), "-F", f"doc=@{upload};type=text/plain",
                               "-F", "lang=ru")
        self.assertEqual(status, 200)
        request = json.loads(body)
        self.assertEqual(request["RequestParams"], {"LANG": "ru"})
        self.assertEqual(len(request["InputData"]), 1)
        self.assertEqual(request["InputData"][0]["FileName"], "notes.txt")
        self.assertEqual(request["InputData"][0]["Data"], "hello, мир\n")

    def test_multipart_answer_reads_with_the_email_package(self):
        server = self.echo_server()
        body = (b"--XB\r\nContent-Type: text/plain; name=\"a\"\r\nContent-Transfer-Encoding: base64\r\n"
                b"Content-Disposition: inline; filename=\"a.txt\"\r\n\r\naGk=\r\n"
                b"--XB\r\nContent-Type: application/octet-stream\r\n"
                b"Content-Disposition: inline; filename=\"b.bin\"\r\n\r\n\x00\x01\xff\r\n--XB--\r\n")
        status, fields, answer = curl(server.url("/echo/FILES/"), "--data-binary", "@-",
                                      "-H", 'Content-Type: multipart/mixed; boundary="XB"', data=body)
        self.assertEqual(status, 200)
        message = email.message_from_bytes(
            b"Content-Type: " + field(fields, "Content-Type").encode() + b"\r\n\r\n" + answer,
            policy=email.policy.HTTP)
        parts = list(message.iter_parts())
        self.assertEqual([p.get_filename() for p in parts], ["a.txt", "b.bin"])
        self.assertEqual(parts[0].get_payload(decode=True), b"hi")
        self.assertEqual(parts[1].get_payload(decode=True), b"\x00\x01\xff")

    def test_request_json_and_empty_json_bodies(self):
        server = self.echo_server()
        document = {"Command": "STATS", "CommandAtribute": "", "CommandParams": {"a": "1"},
                    "RequestParams": {"LANG": "en"},
                    "InputData": [{"Name": "n", "FileName": "n.txt", "Type": "text/plain",
                                   "Data": "text"}]}
        status, _, body = curl(server.url("/echo"), "--data-binary", "@-", "-H",
                               "Content-Type: application/vnd.pendrel.request+json",
                               data=json.dumps(document).encode())
        self.assertEqual(status, 200)
        echoed = json.loads(body)
        self.assertEqual(echoed["CommandParams"], {"a": "1"})
        self.assertEqual(echoed["InputData"][0]["Data"], "text")
        status, _, body = curl(server.url("/echo/STATS/"), "-X", "POST", "-H",
                               "Content-Type: application/json")
        self.assertEqual(json.loads(body)["InputData"], [])

    def test_management_routes(self):
        server = self.echo_server()
        status, _, body = curl(server.url("/echo/_info"))
        self.assertEqual(status, 200)
        info = json.loads(body)
        self.assertEqual((info["name"], info["version"], info["input_file_size"]),
                         ("Echo", "2.5", 4096))
        self.assertGreater(info["lib_version"], 0)
        status, _, body = curl(server.url("/echo/_tasks/ECHO"))
        self.assertEqual((status, json.loads(body)["name"]), (200, "Echo"))
        status, fields, body = curl(server.url("/echo/_tasks/NOPE"))
        self.assertEqual(status, 404)
        self.assertEqual(field(fields, "Content-Type"), "application/problem+json")
        self.assertIn("NOPE", json.loads(body)["detail"])
        status, _, body = curl(server.url("/_health"))
        self.assertEqual((status, json.loads(body)["status"]), (200, "ok"))
        # HEAD: the GET's length, no body: the next answer on the connection follows at once.
        with socket.create_connection(("127.0.0.1", server.port), timeout=10) as s:
            s.sendall(b"HEAD /_health HTTP/1.1\r\nHost: x\r\n\r\n"
                      b"GET /_health HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
            received = b""
            for _ in range(100):
                chunk = s.recv(65536)
                if not chunk:
                    break
                received += chunk
        head, _, rest = received.partition(b"\r\n\r\n")
        self.assertEqual(status_of(head), 200)
        self.assertIn(b"Content-Length: %d" % len(body), head)
        self.assertTrue(rest.startswith(b"HTTP/1.1 200 OK\r\n"), rest[:100])
        self.assertTrue(rest.endswith(body))
        status, fields, body = curl(server.url("/_metrics"))
        self.assertEqual(status, 200)
        text = body.decode()
        for name in ["pendrel_http_requests_total{mount=\"/echo\",status=\"200\"}",
                     "pendrel_http_requests_total{mount=\"/echo\",status=\"404\"}",
                     "pendrel_http_request_duration_seconds_bucket{mount=\"/echo\",le=\"+Inf\"}",
                     "pendrel_pool_idle_handlers{mount=\"/echo\"}",
                     "pendrel_pool_busy_handlers{mount=\"/echo\"}",
                     "pendrel_pool_handler_starts_total{mount=\"/echo\"} 1",
                     "pendrel_pool_queue_length{mount=\"/echo\"} 0",
                     "pendrel_http_received_bytes_total", "pendrel_http_sent_bytes_total",
                     "# TYPE pendrel_http_request_duration_seconds histogram"]:
            self.assertIn(name, text)

    def test_errors_are_problems(self):
        server = self.echo_server()
        for path, method, expected in [("/nothing/here", "GET", 404), ("/echo/_nope", "GET", 404),
                                       ("/echo/_info", "POST", 405), ("/echo/STATS/", "PUT", 405),
                                       ("/_metrics", "DELETE", 405)]:
            status, fields, body = curl(server.url(path), "-X", method)
            self.assertEqual(status, expected, path)
            self.assertEqual(field(fields, "Content-Type"), "application/problem+json")
            problem = json.loads(body)
            self.assertEqual(problem["status"], expected)
            self.assertTrue(problem["detail"])

    def test_absolute_form_target(self):
        server = self.echo_server()
        answer = raw_exchange(server.port, b"GET http://127.0.0.1/echo/STATS/-/k/v?a=1 HTTP/1.1\r\n"
                              b"Host: 127.0.0.1\r\n\r\n")
        self.assertEqual(status_of(answer), 200)
        echoed = json.loads(answer.partition(b"\r\n\r\n")[2])
        self.assertEqual((echoed["CommandParams"], echoed["RequestParams"]), ({"k": "v"}, {"A": "1"}))

    def test_request_id_is_passed_through_or_made(self):
        server = self.echo_server()
        status, fields, _ = curl(server.url("/echo/WHO/"), "-H", "X-Request-Id: abc-123")
        self.assertEqual(field(fields, "X-Request-Id"), "abc-123")
        entry = server.log_entry("abc-123")
        self.assertEqual((entry["method"], entry["path"], entry["status"]),
                         ("GET", "/echo/WHO/", 200))
        self.assertGreater(entry["handler_pid"], 0)
        self.assertGreater(entry["bytes_in"], 0)
        self.assertGreater(entry["bytes_out"], 0)
        self.assertIn("time", entry)
        self.assertIn("duration_s", entry)
        _, fields, _ = curl(server.url("/echo/WHO/"))
        made = field(fields, "X-Request-Id")
        self.assertRegex(made, r"^[0-9a-f]{16}$")
        server.log_entry(made)

    def test_percent_encoded_and_non_ascii_paths_and_queries(self):
        server = self.echo_server()
        quote = lambda text: urllib.parse.quote(text, safe="")
        path = ("/echo/STATS//" + quote("ж k") + "/" + quote("日本/x%") + "?" + quote("lang") +
                "=" + quote("é+b c&d=") + "&" + quote("Ж") + "=" + quote("?#"))
        status, _, body = curl(server.url(path))
        self.assertEqual(status, 200)
        echoed = json.loads(body)
        self.assertEqual(echoed["CommandParams"], {"ж k": "日本/x%"})
        self.assertEqual(echoed["RequestParams"], {"LANG": "é+b c&d=", "Ж": "?#"})

    def test_library_forms_come_back_equal(self):
        server = self.echo_server()
        lines = subprocess.run([REQUEST_FORMS, "7", "60"], capture_output=True, check=True,
                               timeout=30).stdout.decode().splitlines()
        self.assertEqual(len(lines), 60)
        for number, line in enumerate(lines):
            case = {k: bytes.fromhex(v) for k, v in json.loads(line).items()}
            url = "/echo/" + urllib.parse.quote(case["url"].decode(), safe="/?&=")
            headers = []
            for header in case["header"].decode("utf-8", "surrogateescape").split("\n"):
                headers += ["-H", header]
            status, _, body = curl(server.url(url), "--data-binary", "@-", *headers,
                                   data=case["body"])
            self.assertEqual(status, 200, f"case {number}: {case['url']!r}")
            self.assertEqual(body, case["expected"], f"case {number}: {case['url']!r}")


class Sessions(ServerTest):
    def test_session_life(self):
        server = self.echo_server("--pool-max", "3")
        created = {"key": "s-1", "user": "ann", "task_id": "42", "handler_code": "H1",
                   "task_code": "T7", "log_file": "run.log", "timeout_s": 600}
        status, fields, body = curl(server.url("/echo/_sessions"), "--data-binary", "@-",
                                    "-H", "Content-Type: application/json",
                                    data=json.dumps(created).encode())
        self.assertEqual(status, 201)
        self.assertEqual(field(fields, "Location"), "/echo/_sessions/s-1")
        answer = json.loads(body)
        self.assertEqual((answer["session"], answer["user"], answer["timeout"]),
                         ("s-1", "ann", "600"))
        session_pid = answer["pid"]
        status, _, _ = curl(server.url("/echo/_sessions"), "--data-binary", "@-",
                            data=json.dumps(created).encode())
        self.assertEqual(status, 409)
        # The session's requests reach its handler; others reach the pool's.
        for _ in range(3):
            _, _, body = curl(server.url("/echo/WHO/s-1"))
            self.assertEqual(json.loads(body), {"status": 0, "pid": session_pid, "session": "s-1"})
        _, _, body = curl(server.url("/echo/WHO/"))
        self.assertNotEqual(json.loads(body)["pid"], session_pid)
        status, fields, body = curl(server.url("/echo/_sessions/s-1/files"))
        self.assertEqual(status, 200)
        message = email.message_from_bytes(
            b"Content-Type: " + field(fields, "Content-Type").encode() + b"\r\n\r\n" + body,
            policy=email.policy.HTTP)
        parts = list(message.iter_parts())
        self.assertEqual([p.get_filename() for p in parts], ["a.txt", "b.bin"])
        self.assertEqual(parts[1].get_payload(decode=True), bytes(range(256)))
        status, _, _ = curl(server.url("/echo/_sessions/s-1"), "-X", "DELETE")
        self.assertEqual(status, 204)
        self.assertTrue(wait_until(lambda: not os.path.exists(f"/proc/{session_pid}/cmdline") or
                                   int(session_pid) not in processes_with(self.folder), 10))
        status, _, _ = curl(server.url("/echo/_sessions/s-1/files"))
        self.assertEqual(status, 404)
        status, _, _ = curl(server.url("/echo/_sessions/s-1"), "-X", "DELETE")
        self.assertEqual(status, 404)

    def test_failed_session_exchange_closes_the_session(self):
        server = self.echo_server()
        status, _, _ = curl(server.url("/echo/_sessions"), "--data-binary", "@-",
                            data=b'{"key":"doomed"}')
        self.assertEqual(status, 201)
        status, _, _ = curl(server.url("/echo/CRASH/doomed"))
        self.assertEqual(status, 502)
        status, _, _ = curl(server.url("/echo/_sessions/doomed/files"))
        self.assertEqual(status, 404)
        status, _, body = curl(server.url("/echo/WHO/doomed"))  # served by the pool now
        self.assertEqual((status, json.loads(body)["session"]), (200, ""))

    def test_bad_session_bodies(self):
        server = self.echo_server()
        for body in [b"not json", b"[]", b'{"user":"x"}', b'{"key":""}',
                     b'{"key":"k","timeout_s":"soon"}', b'{"key":"k","user":{}}']:
            status, fields, _ = curl(server.url("/echo/_sessions"), "--data-binary", "@-", data=body)
            self.assertEqual(status, 400, body)

    def test_unused_session_is_closed(self):
        server = self.echo_server()
        status, _, body = curl(server.url("/echo/_sessions"), "--data-binary", "@-",
                               data=b'{"key":"idle","timeout_s":1}')
        self.assertEqual(status, 201)
        pid = int(json.loads(body)["pid"])
        server.wait_line(r'session "idle" closed after 1 s unused', 10)
        status, _, _ = curl(server.url("/echo/_sessions/idle/files"))
        self.assertEqual(status, 404)
        self.assertTrue(wait_until(lambda: pid not in processes_with(self.folder), 10))


class Load(ServerTest):
    def test_64_clients_100_requests_each(self):
        server = self.echo_server("--pool-max", "4", "--workers", "16")
        failures = []
        generator = random.Random(16)
        seeds = [generator.randrange(1 << 30) for _ in range(64)]

        def client(seed):
            rng = random.Random(seed)
            connection = server.connection()
            try:
                for i in range(100):
                    data = rng.randbytes(rng.choice([0, 1, 100, 3000, 20000]))
                    name = f"c{seed}-{i}.bin"
                    connection.request("POST", f"/echo/FILES/?n={i}", body=data, headers={
                        "Content-Type": "application/octet-stream",
                        "Content-Disposition": f'inline; filename="{name}"'})
                    response = connection.getresponse()
                    body = response.read()
                    if (response.status != 200 or body != data or
                            f'filename="{name}"' not in response.getheader("Content-Disposition", "")):
                        failures.append((seed, i, response.status, len(body), len(data)))
                        return
            except Exception as e:  # reported below
                failures.append((seed, repr(e)))
            finally:
                connection.close()

        threads = [threading.Thread(target=client, args=(s,)) for s in seeds]
        for t in threads:
            t.start()
        for t in threads:
            t.join(timeout=120)
        self.assertFalse(any(t.is_alive() for t in threads), "clients still running")
        self.assertEqual(failures, [])

    def test_idle_keep_alive_connections_cost_no_thread(self):
        server = self.echo_server()
        self.assertEqual(curl(server.url("/echo/WHO/"))[0], 200)

        def threads():
            with open(f"/proc/{server.process.pid}/status") as f:
                return int(re.search(r"^Threads:\s+(\d+)", f.read(), re.M).group(1))

        before = threads()
        idle = []
        try:
            for _ in range(300):
                connection = server.connection(timeout_s=10)
                connection.request("GET", "/_health")
                response = connection.getresponse()
                response.read()
                self.assertEqual(response.status, 200)
                idle.append(connection)
            self.assertEqual(threads(), before)
            self.assertEqual(curl(server.url("/echo/WHO/"))[0], 200)
        finally:
            for connection in idle:
                connection.close()

    def test_slow_clients_do_not_delay_a_normal_request(self):
        server = self.echo_server()
        slow = []
        try:
            for _ in range(200):
                s = socket.create_connection(("127.0.0.1", server.port), timeout=10)
                s.sendall(b"GET /echo/WHO/ HTTP/1.1\r\nHost: x\r\n")  # never finished
                slow.append(s)
            started = time.monotonic()
            status, _, _ = curl(server.url("/echo/WHO/"))
            self.assertEqual(status, 200)
            self.assertLess(time.monotonic() - started, 2.0)
        finally:
            for s in slow:
                s.close()


class Failures(ServerTest):
    def test_killed_handler_gives_502_and_the_next_request_is_served(self):
        server = self.echo_server("--pool-min", "1", "--pool-max", "1")
        status, fields, body = curl(server.url("/echo/CRASH/"))
        self.assertEqual(status, 502)
        self.assertEqual(field(fields, "Content-Type"), "application/problem+json")
        self.assertIn("ChannelError", json.loads(body)["detail"])
        status, _, _ = curl(server.url("/echo/WHO/"))
        self.assertEqual(status, 200)

    def test_hung_handler_gives_504_at_the_time_out_and_is_stopped(self):
        server = self.serve(config=self.config(timeout_s=1, pool="min = 1, max = 2, stop_grace_ms = 300"))
        started = time.monotonic()
        status, fields, body = curl(server.url("/echo/HANG/"), "-H", "X-Request-Id: hang-1")
        elapsed = time.monotonic() - started
        self.assertEqual(status, 504)
        self.assertIn("ResponseTimeout", json.loads(body)["detail"])
        self.assertGreaterEqual(elapsed, 0.9)
        self.assertLess(elapsed, 5)
        pid = server.log_entry("hang-1")["handler_pid"]
        self.assertGreater(pid, 0)
        self.assertTrue(wait_until(lambda: pid not in processes_with(self.folder), 5),
                        "the hung handler is still running")
        status, _, _ = curl(server.url("/echo/WHO/"))
        self.assertEqual(status, 200)

    def test_no_free_handler_gives_503_with_retry_after(self):
        server = self.serve(config=self.config(pool="min = 1, max = 1, queue = 0, queue_wait_s = 0"))
        # With no queue, the first request must find the handler started.
        self.assertTrue(wait_until(lambda: 'pendrel_pool_idle_handlers{mount="/echo"} 1' in
                                   curl(server.url("/_metrics"))[2].decode(), 10))
        slow = threading.Thread(target=curl, args=(server.url("/echo/SLOW/?ms=1500"),))
        slow.start()
        try:
            busy = wait_until(lambda: 'pendrel_pool_busy_handlers{mount="/echo"} 1' in
                              curl(server.url("/_metrics"))[2].decode(), 10)
            self.assertTrue(busy)
            status, fields, _ = curl(server.url("/echo/WHO/"))
            self.assertEqual(status, 503)
            self.assertEqual(field(fields, "Retry-After"), "1")
        finally:
            slow.join(timeout=20)

    def test_no_free_worker_within_the_queue_wait_gives_503(self):
        server = self.serve(config=self.config(pool="min = 2, max = 2, queue_wait_s = 1",
                                               extra="workers = 1"))
        slow = threading.Thread(target=curl, args=(server.url("/echo/SLOW/?ms=2500"),))
        slow.start()
        try:
            self.assertTrue(wait_until(lambda: 'pendrel_pool_busy_handlers{mount="/echo"} 1' in
                                       curl(server.url("/_metrics"))[2].decode(), 10))
            status, fields, body = curl(server.url("/echo/WHO/"))
            self.assertEqual(status, 503)
            self.assertEqual(field(fields, "Retry-After"), "1")
            self.assertIn("worker", json.loads(body)["detail"])
        finally:
            slow.join(timeout=20)

    def test_handler_that_cannot_start(self):
        server = self.serve("--mount", f"/none={self.folder}/missing-program", "--pool-min", "0")
        status, _, body = curl(server.url("/none/WHO/"))
        self.assertEqual(status, 502)
        status, _, _ = curl(server.url("/_health"))
        self.assertEqual(status, 503)


class Limits(ServerTest):
    def test_413_before_the_body_is_read(self):
        server = self.echo_server("--max-body", "1024")
        # The declared length is over the limit: answered without sending the body.
        answer = raw_exchange(server.port, b"POST /echo/FILES/ HTTP/1.1\r\nHost: x\r\n"
                              b"Content-Length: 100000000\r\nExpect: 100-continue\r\n\r\n")
        self.assertEqual(status_of(answer), 413)
        self.assertNotIn(b"100 Continue", answer)
        answer = raw_exchange(server.port, b"POST /echo/FILES/ HTTP/1.1\r\nHost: x\r\n"
                              b"Content-Length: 100000000\r\n\r\n" + b"x" * 100)
        self.assertEqual(status_of(answer), 413)
        # A chunked body is stopped once it passes the limit.
        chunk = b"400\r\n" + b"y" * 1024 + b"\r\n"
        answer = raw_exchange(server.port, b"POST /echo/FILES/ HTTP/1.1\r\nHost: x\r\n"
                              b"Transfer-Encoding: chunked\r\n\r\n" + chunk * 2)
        self.assertEqual(status_of(answer), 413)
        # curl's own upload with "Expect: 100-continue" sees the 413.
        status, _, body = curl(server.url("/echo/FILES/"), "--data-binary", "@-",
                               "-H", "Expect: 100-continue", data=b"z" * 5000)
        self.assertEqual(status, 413)
        # At the limit it goes through, chunked too.
        status, _, body = curl(server.url("/echo/FILES/"), "--data-binary", "@-",
                               "-H", "Transfer-Encoding: chunked", data=b"q" * 1024)
        self.assertEqual((status, body), (200, b"q" * 1024))

    def test_malformed_requests_give_400_and_the_server_goes_on(self):
        server = self.echo_server()
        cases = [
            b"GARBAGE\r\n\r\n",
            b"GET /echo/WHO/ HTTP/1.1\r\nHost x\r\n\r\n",
            b"GET /echo/WHO/ HTTP/1.1\r\nHost: x\r\nContent-Length: nope\r\n\r\n",
            b"GET /echo/STATS/s/%ZZ HTTP/1.1\r\nHost: x\r\n\r\n",
            b"GET /echo/STATS/s/%FF%FE HTTP/1.1\r\nHost: x\r\n\r\n",
            b"GET /echo/STATS/s/key HTTP/1.1\r\nHost: x\r\n\r\n",
            b"GET /echo/STATS/s?a=%2 HTTP/1.1\r\nHost: x\r\n\r\n",
            b"GET /echo/STATS/s/k/%00 HTTP/1.1\r\nHost: x\r\n\r\n",
            b"GET http//bad HTTP/1.1\r\nHost: x\r\n\r\n",
            b"POST /echo/STATS/ HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/mixed\r\n"
            b"Content-Length: 4\r\n\r\nabcd",
            b"POST /echo/STATS/ HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/mixed; boundary=B\r\n"
            b"Content-Length: 10\r\n\r\n--B\r\nxx\r\n\r",
            b"POST /echo/STATS/ HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nZZ\r\nab\r\n",
            b"POST /echo/STATS/ HTTP/1.1\r\nHost: x\r\nContent-Type: application/vnd.pendrel.request+json\r\n"
            b"Content-Length: 2\r\n\r\n{}",
        ]
        for case in cases:
            answer = raw_exchange(server.port, case)
            self.assertEqual(status_of(answer), 400, (case, answer[:300]))
            self.assertIn(b"application/problem+json", answer)
        status, _, _ = curl(server.url("/echo/WHO/"))
        self.assertEqual(status, 200)
        self.assertIsNone(server.process.poll())

    def test_random_bytes_never_end_the_server(self):
        server = self.echo_server()
        rng = random.Random(9)
        starts = [b"", b"GET /echo/", b"POST /echo/FILES/ HTTP/1.1\r\nHost: x\r\n",
                  b"POST /echo/STATS/ HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"]
        for i in range(200):
            data = rng.choice(starts) + rng.randbytes(rng.randrange(1, 400))
            answer = raw_exchange(server.port, data, timeout_s=15, shut=True)
            self.assertIn(status_of(answer), (None, 400, 404, 405, 413, 431), (i, data[:80]))
        self.assertIsNone(server.process.poll())
        self.assertEqual(curl(server.url("/echo/WHO/"))[0], 200)

    def test_header_over_the_limit_gives_431(self):
        server = self.echo_server()
        answer = raw_exchange(server.port, b"GET /echo/WHO/ HTTP/1.1\r\nHost: x\r\nX-Big: " +
                              b"a" * 70000 + b"\r\n\r\n")
        self.assertEqual(status_of(answer), 431)

    def test_large_body_up_and_down(self):
        server = self.echo_server()
        data = random.Random(3).randbytes(16 << 20)
        connection = server.connection()
        connection.request("POST", "/echo/FILES/", body=data,
                           headers={"Content-Type": "application/octet-stream"})
        response = connection.getresponse()
        self.assertEqual(response.status, 200)
        self.assertEqual(response.read(), data)
        connection.close()

    def test_body_in_pieces_with_a_request_behind_it(self):
        server = self.echo_server()
        data = random.Random(5).randbytes(3 << 20)  # more than one step of the body's reading
        head = (b"POST /echo/FILES/ HTTP/1.1\r\nHost: x\r\nContent-Type: application/octet-stream"
                b"\r\nContent-Length: %d\r\n\r\n" % len(data))
        with socket.create_connection(("127.0.0.1", server.port), timeout=30) as s:
            s.sendall(head + data[:1000])  # the header with the body's first bytes
            s.sendall(data[1000:2 << 20])
            s.sendall(data[2 << 20:] + b"GET /echo/WHO/ HTTP/1.1\r\nHost: x\r\n\r\n")
            answers = read_answers(s, 2)
        self.assertEqual(len(answers), 2)
        self.assertEqual(answers[0], (200, data))
        self.assertEqual(answers[1][0], 200)
        self.assertIn("pid", json.loads(answers[1][1]))

    def test_announced_body_never_sent_takes_no_memory(self):
        server = self.echo_server("--max-body", str(64 << 20))

        def peak_kib():
            with open(f"/proc/{server.process.pid}/status") as f:
                return int(re.search(r"^VmHWM:\s+(\d+)", f.read(), re.M).group(1))

        self.assertEqual(curl(server.url("/echo/WHO/"))[0], 200)
        before = peak_kib()
        sockets = []
        try:
            # Each announces 64 MiB and sends 100 bytes; "100 Continue" says that the server
            # has taken the header and goes on to read the body.
            for _ in range(8):
                s = socket.create_connection(("127.0.0.1", server.port), timeout=10)
                sockets.append(s)
                s.sendall(b"POST /echo/FILES/ HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n"
                          b"Content-Length: %d\r\n\r\n" % (64 << 20))
                self.assertIn(b" 100 ", s.recv(4096))
                s.sendall(b"x" * 100)
        finally:
            for s in sockets:
                s.close()
        # Each one ends as a request the client left (499) once the server sees it gone.
        gone = lambda: sum(1 for l in list(server.lines) if l and '"status":499' in l)
        self.assertTrue(wait_until(lambda: gone() == 8, 10), server.lines[-10:])
        # Holding the bodies announced would take 512 MiB.
        self.assertLess(peak_kib() - before, 96 << 10)

    def test_a_body_there_is_no_room_for_gives_503(self):
        with open(PENDREL, "rb") as program:
            if b"__asan_init" in program.read():
                self.skipTest("AddressSanitizer reserves terabytes of address space")
        # The server's address space is limited to less than the body announced.
        server = self.serve("--mount", f"/echo={self.handler}", "--max-body", str(4 << 30),
                            address_space=3 << 30)
        answer = raw_exchange(server.port, b"POST /echo/FILES/ HTTP/1.1\r\nHost: x\r\n"
                              b"Content-Length: %d\r\n\r\n" % (3 << 30) + b"x" * 100)
        self.assertEqual(status_of(answer), 503, answer[:300])
        self.assertIn(b"Retry-After: 1", answer)
        self.assertIsNone(server.process.poll())
        self.assertEqual(curl(server.url("/echo/WHO/"))[0], 200)

    def test_every_listen_address_is_served(self):
        server = self.echo_server("--listen", "127.0.0.1:0", "--listen", "127.0.0.1:0")
        ports = lambda: {int(m) for m in re.findall(r"listening on 127\.0\.0\.1:(\d+)",
                                                    "\n".join(l for l in server.lines if l))}
        self.assertTrue(wait_until(lambda: len(ports()) == 2, 10))
        for port in ports():
            answer = raw_exchange(port, b"GET /_health HTTP/1.1\r\nHost: x\r\n\r\n")
            self.assertEqual(status_of(answer), 200)

    def test_keep_alive_serves_several_requests_on_one_connection(self):
        server = self.echo_server()
        connection = server.connection()
        pids = set()
        for _ in range(5):
            connection.request("GET", "/echo/WHO/")
            response = connection.getresponse()
            self.assertEqual(response.status, 200)
            pids.add(json.loads(response.read())["pid"])
        connection.close()
        self.assertEqual(len(pids), 1)


class Control(ServerTest):
    def test_sigterm_drains_requests_in_flight(self):
        server = self.echo_server()
        result = {}
        slow = threading.Thread(target=lambda: result.update(
            answer=curl(server.url("/echo/SLOW/?ms=1000"))))
        slow.start()
        try:
            self.assertTrue(wait_until(lambda: 'pendrel_pool_busy_handlers{mount="/echo"} 1' in
                                       curl(server.url("/_metrics"))[2].decode(), 10))
            self.assertEqual(server.stop(signal.SIGTERM), 0)
        finally:
            slow.join(timeout=20)
        self.assertEqual(result["answer"][0], 200)
        self.assertEqual(processes_with(self.folder), [])
        with self.assertRaises(OSError):
            socket.create_connection(("127.0.0.1", server.port), timeout=2).close()

    def test_stop_ends_idle_keep_alive_connections_at_once(self):
        server = self.echo_server()
        connection = server.connection()
        connection.request("GET", "/echo/WHO/")
        self.assertEqual(connection.getresponse().status, 200)
        started = time.monotonic()
        self.assertEqual(server.stop(signal.SIGTERM), 0)
        self.assertLess(time.monotonic() - started, 5)
        connection.close()

    def test_stop_past_the_drain_limit_ends_the_hung_request_and_its_handler(self):
        server = self.serve(config=self.config(timeout_s=60, extra="drain_s = 1"))
        result = {}

        def hang():
            try:
                result["answer"] = curl(server.url("/echo/HANG/"))
            except AssertionError as e:  # the connection ends without an answer
                result["error"] = str(e)

        client = threading.Thread(target=hang)
        client.start()
        try:
            self.assertTrue(wait_until(lambda: 'pendrel_pool_busy_handlers{mount="/echo"} 1' in
                                       curl(server.url("/_metrics"))[2].decode(), 10))
            started = time.monotonic()
            self.assertEqual(server.stop(signal.SIGTERM), 0)
            self.assertLess(time.monotonic() - started, 10)
        finally:
            client.join(timeout=30)
        self.assertIn("error", result)
        self.assertTrue(wait_until(lambda: not processes_with(self.folder), 10))

    def test_sigterm_right_after_the_listening_line(self):
        server = self.echo_server()
        self.assertEqual(server.stop(signal.SIGTERM), 0)

    def test_sigint_stops_with_status_0(self):
        server = self.echo_server()
        curl(server.url("/echo/WHO/"))
        self.assertEqual(server.stop(signal.SIGINT), 0)
        self.assertEqual(processes_with(self.folder), [])

    def test_sighup_reloads_the_configuration(self):
        server = self.serve(config=self.config(mount="/a"))
        status, _, body = curl(server.url("/a/WHO/"))
        self.assertEqual(status, 200)
        old_pid = int(json.loads(body)["pid"])
        with open(os.path.join(self.folder, "serve.toml"), "w") as f:
            f.write(self.config(mount="/b"))
        mark = len(server.lines)
        server.process.send_signal(signal.SIGHUP)
        server.wait_line(r"reload: the old pools are stopped", 15, start=mark)
        self.assertEqual(curl(server.url("/b/WHO/"))[0], 200)
        self.assertEqual(curl(server.url("/a/WHO/"))[0], 404)
        self.assertNotIn(old_pid, processes_with(self.folder))
        # A broken file keeps the configuration in use.
        with open(os.path.join(self.folder, "serve.toml"), "w") as f:
            f.write("listen = [")
        mark = len(server.lines)
        server.process.send_signal(signal.SIGHUP)
        server.wait_line(r"reload refused", 15, start=mark)
        self.assertEqual(curl(server.url("/b/WHO/"))[0], 200)

    def test_command_line_and_configuration_errors(self):
        cases = [(["--bogus"], 64), (["--mount", "nope"], 64), ([], 64),
                 (["--pool-min", "5", "--pool-max", "2", "--mount", "/x=y"], 64),
                 (["--config", os.path.join(self.folder, "missing.toml")], 66),
                 (["--listen", "not-an-address", "--mount", f"/x={self.handler}"], 71)]
        for arguments, code in cases:
            result = subprocess.run([PENDREL, "serve", *arguments], capture_output=True, timeout=30)
            self.assertEqual(result.returncode, code, (arguments, result.stderr))
            self.assertIn(b"pendrel serve: ", result.stderr)
        for text in ["listen = [", "[[handler]]\nmount = \"/x\"\n",
                     f"[[handler]]\nmount = \"/x\"\nprogram = \"{self.handler}\"\nspeed = 1\n",
                     f"[[handler]]\nmount = \"x\"\nprogram = \"{self.handler}\"\n"]:
            path = os.path.join(self.folder, "bad.toml")
            with open(path, "w") as f:
                f.write(text)
            result = subprocess.run([PENDREL, "serve", "--config", path], capture_output=True,
                                    timeout=30)
            self.assertEqual(result.returncode, 78, (text, result.stderr))


if __name__ == "__main__":
    missing = [n for n, v in [("PENDREL", PENDREL), ("PENDREL_ECHO_HANDLER", ECHO_HANDLER),
                              ("PENDREL_REQUEST_FORMS", REQUEST_FORMS)] if not v]
    if missing:
        raise SystemExit("set " + ", ".join(missing))
    unittest.main()
