#!/usr/bin/env python3
"""Scale-out: nginx with examples/nginx/pendrel.conf in front of two `pendrel serve` instances.

Shows that requests without a session are spread over both instances, that every request of
a session reaches the instance that opened it, and that once an instance is killed, new
requests go to the other one. Which instance served a request is read from the instances'
own access logs (one JSON line per request on standard error), found by the request's
unique X-Request-Id, which nginx passes through.

    nginx_test.py --pendrel PATH --handler PATH --config examples/nginx/pendrel.conf

Exits 77 (CTest's SKIP_RETURN_CODE) when nginx is not installed. Everything listens on
127.0.0.1; every process started is killed and reaped before the program ends.
"""

import argparse
import http.client
import json
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.parse
import uuid

SKIP = 77
START_LIMIT_S = 30  # an instance or nginx must be ready within this
LOG_LIMIT_S = 10  # a served request's access-log line must appear within this
HTTP_LIMIT_S = 30  # one HTTP exchange
MOUNT = "/textstats"
LISTENING = re.compile(r"pendrel serve: listening on (127\.0\.0\.1:\d+)")

ARGS = None


def find_nginx():
    return shutil.which("nginx") or shutil.which("nginx", path="/usr/sbin:/sbin")


class Output:
    """The lines a process writes to a pipe, read by a thread; waits are bounded."""

    def __init__(self, name, stream, changed):
        self.name = name
        self.lines = []
        self.closed = False
        self.changed = changed  # shared by every process's output, so one wait sees all
        self.thread = threading.Thread(target=self._read, args=(stream,), daemon=True)
        self.thread.start()

    def _read(self, stream):
        for raw in stream:
            with self.changed:
                self.lines.append(raw.decode("utf-8", "replace").rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.closed = True
            self.changed.notify_all()

    def wait_for(self, predicate, limit_s):
        """The first line for which predicate(line) is true, or None after limit_s."""
        deadline = time.monotonic() + limit_s
        with self.changed:
            checked = 0
            while True:
                for line in self.lines[checked:]:
                    if predicate(line):
                        return line
                checked = len(self.lines)
                left = deadline - time.monotonic()
                if left <= 0 or self.closed:
                    return None
                self.changed.wait(left)

    def text(self):
        with self.changed:
            return "\n".join(self.lines)


class Process:
    """A started program with its standard error read line by line."""

    def __init__(self, name, command, changed, **options):
        self.name = name
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                        **options)
        self.output = Output(name, self.process.stderr, changed)

    def kill(self, graceful_signal=None):
        """Ends the process (graceful_signal first, if given, for a bounded time) and reaps it."""
        if graceful_signal is not None and self.process.poll() is None:
            self.process.send_signal(graceful_signal)
            try:
                self.process.wait(timeout=START_LIMIT_S)
            except subprocess.TimeoutExpired:
                pass
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(timeout=START_LIMIT_S)
        self.output.thread.join(timeout=START_LIMIT_S)
        self.process.stderr.close()


class Cluster:
    """Two instances mounting the example handler, and nginx in front of them."""

    def __init__(self, folder):
        self.folder = folder
        self.instances = []
        self.nginx = None
        self.port = None
        self.changed = threading.Condition()

    def start(self):
        for index in range(2):
            instance = Process(f"instance {index}", [
                ARGS.pendrel, "serve", "--listen", "127.0.0.1:0",
                "--mount", f"{MOUNT}={ARGS.handler}",
                "--pool-min", "1", "--pool-max", "2", "--workers", "2", "--timeout", "20"],
                self.changed)
            self.instances.append(instance)
            line = instance.output.wait_for(LISTENING.search, START_LIMIT_S)
            if line is None:
                raise AssertionError(f"{instance.name} did not say where it listens:\n"
                                     + instance.output.text())
            instance.address = LISTENING.search(line).group(1)

        # nginx gets its listening socket from us (the NGINX variable lists inherited
        # sockets), so that the port is known before it starts and nobody can take it.
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            listener.bind(("127.0.0.1", 0))
            listener.listen(64)
            # nginx takes an inherited socket as it is: a blocking one could leave its worker
            # asleep in accept() when a connection goes away before it is accepted.
            listener.setblocking(False)
            self.port = listener.getsockname()[1]
            config = self._config()
            os.makedirs(os.path.join(self.folder, "temp"))
            environment = dict(os.environ, NGINX=f"{listener.fileno()};")
            self.nginx = Process("nginx", [
                ARGS.nginx, "-p", self.folder + "/", "-c", config, "-e", "stderr"], self.changed,
                pass_fds=(listener.fileno(),), env=environment)
        finally:
            listener.close()
        if self.nginx.output.wait_for(lambda line: "start worker process" in line,
                                      START_LIMIT_S) is None:
            raise AssertionError("nginx did not start:\n" + self.nginx.output.text())

    def _config(self):
        """The example configuration with this run's addresses."""
        with open(ARGS.config, encoding="utf-8") as stream:
            text = stream.read()
        replacements = {"127.0.0.1:8080": f"127.0.0.1:{self.port}",
                        "127.0.0.1:8081": self.instances[0].address,
                        "127.0.0.1:8082": self.instances[1].address}
        for old in replacements:
            if old not in text:
                raise AssertionError(f"{ARGS.config} has no {old}")
        # One pass, so that a new address is never replaced again.
        text = re.sub("|".join(map(re.escape, replacements)),
                      lambda match: replacements[match.group(0)], text)
        path = os.path.join(self.folder, "nginx.conf")
        with open(path, "w", encoding="utf-8") as stream:
            stream.write(text)
        return path

    def stop(self):
        # nginx's master stops its workers on SIGTERM; killed, it would leave them behind.
        if self.nginx is not None:
            self.nginx.kill(signal.SIGTERM)
        for instance in self.instances:
            instance.kill(signal.SIGTERM)

    def request(self, method, path, body=None, headers=None):
        """(status, body, request id) of one exchange through nginx."""
        request_id = uuid.uuid4().hex
        fields = {"X-Request-Id": request_id}
        fields.update(headers or {})
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=HTTP_LIMIT_S)
        try:
            connection.request(method, path, body=body, headers=fields)
            response = connection.getresponse()
            return response.status, response.read(), request_id
        finally:
            connection.close()

    def served_by(self, request_id):
        """The index of the instance whose access log has the request, waiting for the line."""
        deadline = time.monotonic() + LOG_LIMIT_S
        with self.changed:
            while True:
                found = [index for index, instance in enumerate(self.instances)
                         if any(request_id in line for line in instance.output.lines)]
                if len(found) > 1:
                    raise AssertionError(f"request {request_id} was logged by both instances")
                if found:
                    return found[0]
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError(f"no instance logged request {request_id}")
                self.changed.wait(left)


def handler_pids(output):
    """The handler process ids named by an instance's access-log lines."""
    pids = set()
    with output.changed:
        for line in output.lines:
            if line.startswith("{"):
                pid = json.loads(line).get("handler_pid", 0)
                if pid:
                    pids.add(pid)
    return pids


def wait_for_end(pid, limit_s):
    """True once the process `pid` has ended (a pidfd becomes readable), False after limit_s."""
    try:
        descriptor = os.pidfd_open(pid)
    except ProcessLookupError:
        return True
    try:
        return bool(select.select([descriptor], [], [], limit_s)[0])
    finally:
        os.close(descriptor)


def stats_request(cluster, session=""):
    """A STATS request of the example handler with a small text file, in a session or none."""
    return cluster.request("POST", f"{MOUNT}/STATS/{session}", body=b"one two\nthree\n",
                           headers={"Content-Type": "text/plain; name=\"notes\"",
                                    "Content-Disposition": "inline; filename=\"notes.txt\""})


class NginxInFront(unittest.TestCase):
    """One cluster for the class; the tests run in order, the last one kills an instance."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="pendrel-nginx-")
        cls.cluster = Cluster(cls.folder)
        try:
            cls.cluster.start()
        except BaseException:
            cls.cluster.stop()
            shutil.rmtree(cls.folder, ignore_errors=True)
            raise

    @classmethod
    def tearDownClass(cls):
        cls.cluster.stop()
        shutil.rmtree(cls.folder, ignore_errors=True)
        # The instance that was not killed stops cleanly on SIGTERM.
        survivor = cls.cluster.instances[0]
        if survivor.process.returncode != 0:
            raise AssertionError(f"{survivor.name} ended with {survivor.process.returncode}:\n"
                                 + survivor.output.text()[-4000:])

    def check(self, status, body, expected=200):
        self.assertEqual(status, expected, body.decode("utf-8", "replace"))

    def test_1_requests_without_a_session_are_spread_over_both_instances(self):
        servers = []
        for _ in range(8):
            status, body, request_id = stats_request(self.cluster)
            self.check(status, body)
            self.assertIn(b"LINES", body)
            servers.append(self.cluster.served_by(request_id))
        self.assertEqual(set(servers), {0, 1}, servers)

    def test_2_every_request_of_a_session_reaches_the_instance_that_opened_it(self):
        # The last key is UTF-8: plain in the JSON body, percent-encoded in the URL.
        keys = [f"s{number}-{uuid.uuid4().hex[:8]}" for number in range(6)] + ["сессия-7"]
        for key in keys:
            opening = json.dumps({"key": key, "user": "tester", "task_id": "1",
                                  "handler_code": "text", "task_code": "STATS",
                                  "log_file": "", "timeout_s": 60}, ensure_ascii=False)
            status, body, request_id = self.cluster.request(
                "POST", f"{MOUNT}/_sessions", body=opening.encode("utf-8"),
                headers={"Content-Type": "application/json"})
            self.check(status, body, 201)
            owner = self.cluster.served_by(request_id)
            segment = urllib.parse.quote(key, safe="")
            for _ in range(4):
                status, body, request_id = stats_request(self.cluster, segment)
                self.check(status, body)
                self.assertIn(json.dumps(key).encode("ascii") if key.isascii()
                              else key.encode("utf-8"), body)
                self.assertEqual(self.cluster.served_by(request_id), owner, key)
            status, body, request_id = self.cluster.request(
                "GET", f"{MOUNT}/_sessions/{segment}/files")
            self.check(status, body)
            self.assertEqual(self.cluster.served_by(request_id), owner, key)
            status, body, request_id = self.cluster.request(
                "DELETE", f"{MOUNT}/_sessions/{segment}")
            self.check(status, body, 204)
            self.assertEqual(self.cluster.served_by(request_id), owner, key)

    def test_3_with_one_instance_killed_new_requests_go_to_the_other(self):
        victim = self.cluster.instances[1]
        handlers = handler_pids(victim.output)
        self.assertTrue(handlers, "the instance to kill has served nothing")
        victim.process.send_signal(signal.SIGKILL)
        victim.process.wait(timeout=START_LIMIT_S)
        # Its handlers end with it (they are told when their parent dies).
        for pid in handlers:
            self.assertTrue(wait_for_end(pid, START_LIMIT_S), f"handler {pid} still runs")
        for _ in range(6):
            status, body, request_id = stats_request(self.cluster)
            self.check(status, body)
            self.assertEqual(self.cluster.served_by(request_id), 0)
        # A new session whose key hashed to the dead instance opens on the living one.
        for number in range(4):
            key = f"after-{number}"
            opening = json.dumps({"key": key, "user": "tester", "task_id": "1",
                                  "handler_code": "text", "task_code": "STATS",
                                  "log_file": "", "timeout_s": 60})
            status, body, request_id = self.cluster.request(
                "POST", f"{MOUNT}/_sessions", body=opening.encode(),
                headers={"Content-Type": "application/json"})
            self.check(status, body, 201)
            self.assertEqual(self.cluster.served_by(request_id), 0)
            status, body, request_id = self.cluster.request("DELETE", f"{MOUNT}/_sessions/{key}")
            self.check(status, body, 204)


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    parser.add_argument("--pendrel", required=True)
    parser.add_argument("--handler", required=True)
    parser.add_argument("--config", required=True)
    parser.add_argument("--nginx", default=None)
    ARGS, rest = parser.parse_known_args()
    ARGS.nginx = ARGS.nginx or find_nginx()
    if not ARGS.nginx:
        print("nginx is not installed (Debian: nginx-light): skipped")
        return SKIP
    program = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2)
    return 0 if program.result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
