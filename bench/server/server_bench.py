#!/usr/bin/env python3
"""`pendrel serve` with the echo handler against nginx + php-fpm echoing in PHP, driven by wrk.

Both servers run at the same time on loopback with the same number of workers (handlers in
the pool and exchange threads; php-fpm children with `pm = static`). For every case, wrk
POSTs a body of the case's size for a fixed time over 1, 16 and 64 connections and the
server answers it back; wrk's script (post.lua) reports requests, duration and the latency
percentiles. Before timing, one request per server and size checks that the answer is the
body sent, and a case with any error or non-2xx answer is reported as failed.

The results are written in Google Benchmark's JSON shape (one entry per case and server:
`Server/<size>/<connections>/pendrel` and `.../nginx+php-fpm`, with requests_per_second,
p50_us, p99_us, bytes_per_second counting the body both ways, body_bytes, and transfer = 1
for the large transfer), so that bench/summarize.py prints them in the one table. Each entry
also says what a request cost the whole machine while wrk ran (cpu_us_per_request and
switches_per_request, from /proc/stat: every process, wrk's too), to explain the rates.

    server_bench.py --pendrel PATH --echo PATH --out FILE.json [--smoke] [--workers N]

--smoke runs every case for two seconds at tiny sizes. Every process started here is
stopped and reaped before the program ends, and its files are removed.
"""

import argparse
import http.client
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
START_LIMIT_S = 30
LISTENING = re.compile(r"pendrel serve: listening on (127\.0\.0\.1:\d+)")

KiB, MiB = 1 << 10, 1 << 20
# (name, body bytes, connection counts, seconds); the full run and the smoke run.
# The last case is the large transfer, judged by its speed rather than its requests/s.
FULL_CASES = [("small", 64, (1, 16, 64), 5), ("64K", 64 * KiB, (1, 16, 64), 5),
              ("1M", MiB, (1, 16, 64), 5), ("64M", 64 * MiB, (1,), 10)]
SMOKE_CASES = [("small", 64, (1, 16), 2), ("4K", 4 * KiB, (1, 16), 2),
               ("16K", 16 * KiB, (1, 16), 2), ("256K", 256 * KiB, (1,), 2)]


class Process:
    """A started program whose standard error is kept in memory, line by line."""

    def __init__(self, name, command, **options):
        self.name = name
        self.lines = []
        self.changed = threading.Condition()
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                        **options)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for raw in self.process.stderr:
            with self.changed:
                # The access log of a long run is not needed: keep the start-up lines only.
                if len(self.lines) < 200:
                    self.lines.append(raw.decode("utf-8", "replace").rstrip("\n"))
                    self.changed.notify_all()
        with self.changed:
            self.lines.append(None)  # end of output
            self.changed.notify_all()

    def wait_for(self, pattern):
        """The first match of the regular expression in a line; fails after START_LIMIT_S."""
        deadline = time.monotonic() + START_LIMIT_S
        with self.changed:
            while True:
                for line in self.lines:
                    if line is None:
                        break
                    match = re.search(pattern, line)
                    if match:
                        return match
                left = deadline - time.monotonic()
                if left <= 0 or (self.lines and self.lines[-1] is None):
                    text = "\n".join(line for line in self.lines if line is not None)
                    raise RuntimeError(f"{self.name} did not start:\n{text}")
                self.changed.wait(left)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=START_LIMIT_S)
            except subprocess.TimeoutExpired:
                self.process.kill()
        self.process.wait()
        self.reader.join(timeout=START_LIMIT_S)
        self.process.stderr.close()


def start_pendrel(options):
    workers = str(options.workers)
    server = Process("pendrel serve", [
        options.pendrel, "serve", "--listen", "127.0.0.1:0", "--mount", f"/echo={options.echo}",
        "--workers", workers, "--pool-min", workers, "--pool-max", workers,
        "--timeout", "120", "--max-body", str(256 * MiB)])
    address = server.wait_for(LISTENING.pattern).group(1)
    return server, f"http://{address}/echo/ECHO"


def start_php(options, folder):
    """php-fpm (pm = static) behind nginx, each with its files in `folder`."""
    socket_path = os.path.join(folder, "php-fpm.sock")
    pool = [
        "[global]", f"pid = {folder}/php-fpm.pid", "error_log = /proc/self/fd/2",
        "daemonize = no", "log_level = notice",
        "[echo]", f"listen = {socket_path}", "pm = static",
        f"pm.max_children = {options.workers}",
        # nginx's workers may run as another user (nginx started by root).
        "listen.mode = 0666",
        # The body is read raw from php://input, never parsed or limited by PHP.
        "php_admin_flag[enable_post_data_reading] = off",
        "php_admin_value[memory_limit] = 512M",
        "php_admin_value[output_buffering] = 0",
    ]
    arguments = [options.php_fpm, "--nodaemonize", "--fpm-config", f"{folder}/php-fpm.conf",
                 "--prefix", folder]
    if os.geteuid() == 0:
        # php-fpm refuses root unless told; its children then run as root too.
        pool += ["user = root", "group = root"]
        arguments.append("--allow-to-run-as-root")
    with open(f"{folder}/php-fpm.conf", "w", encoding="utf-8") as stream:
        stream.write("\n".join(pool) + "\n")
    php = Process("php-fpm", arguments)
    php.wait_for("ready to handle connections")

    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        listener.bind(("127.0.0.1", 0))
        listener.listen(511)
        # nginx takes an inherited socket as it is: a blocking one would leave a worker that
        # lost the race for a connection asleep in accept() with its other clients.
        listener.setblocking(False)
        port = listener.getsockname()[1]
        config = f"""
daemon off;
worker_processes auto;
pid nginx.pid;
error_log stderr notice;
events {{ worker_connections 1024; }}
http {{
  access_log access.log;
  client_body_temp_path temp/body;
  proxy_temp_path temp/proxy;
  fastcgi_temp_path temp/fastcgi;
  uwsgi_temp_path temp/uwsgi;
  scgi_temp_path temp/scgi;
  server {{
    listen 127.0.0.1:{port};
    client_max_body_size 0;
    client_body_buffer_size 2m;
    location / {{
      # As usually deployed (nginx's defaults): a connection to php-fpm per request, and
      # the whole body read before a php-fpm child is taken.
      fastcgi_pass unix:{socket_path};
      fastcgi_request_buffering on;
      fastcgi_buffering off;
      fastcgi_param SCRIPT_FILENAME {HERE}/echo.php;
      fastcgi_param REQUEST_METHOD $request_method;
      fastcgi_param CONTENT_TYPE $content_type;
      fastcgi_param CONTENT_LENGTH $content_length;
      fastcgi_param QUERY_STRING $query_string;
      fastcgi_param REQUEST_URI $request_uri;
      fastcgi_param SERVER_PROTOCOL $server_protocol;
    }}
  }}
}}
"""
        os.makedirs(f"{folder}/nginx/temp")
        with open(f"{folder}/nginx/nginx.conf", "w", encoding="utf-8") as stream:
            stream.write(config)
        # The listening socket is handed over (NGINX lists inherited sockets): the port is
        # known before nginx starts.
        nginx = Process("nginx", [options.nginx, "-p", f"{folder}/nginx/", "-c",
                                  f"{folder}/nginx/nginx.conf", "-e", "stderr"],
                        pass_fds=(listener.fileno(),),
                        env=dict(os.environ, NGINX=f"{listener.fileno()};"))
    finally:
        listener.close()
    try:
        nginx.wait_for("start worker process")
    except BaseException:
        nginx.stop()
        php.stop()
        raise
    return [php, nginx], f"http://127.0.0.1:{port}/echo.php"


def body_of(size):
    """The bytes post.lua sends for `size`."""
    block = b"0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+/"
    return block * (size // len(block)) + block[: size % len(block)]


def check_echo(url, size):
    """Fails unless one POST of `size` bytes is answered with 2xx and the same bytes."""
    host, _, path = url[len("http://"):].partition("/")
    name, port = host.rsplit(":", 1)
    connection = http.client.HTTPConnection(name, int(port), timeout=120)
    try:
        body = body_of(size)
        connection.request("POST", "/" + path, body=body,
                           headers={"Content-Type": "application/octet-stream"})
        response = connection.getresponse()
        answer = response.read()
    finally:
        connection.close()
    if response.status // 100 != 2 or answer != body:
        raise RuntimeError(f"{url} did not echo {size} bytes: HTTP {response.status}, "
                           f"{len(answer)} bytes: {answer[:200]!r}")


def machine_counters():
    """Busy CPU time (seconds, all cores) and context switches of the whole machine so far."""
    with open("/proc/stat") as stat:
        fields = {line.split()[0]: line.split()[1:] for line in stat}
    ticks = os.sysconf("SC_CLK_TCK")
    cpu = [int(value) for value in fields["cpu"]]
    idle = cpu[3] + cpu[4]  # idle and iowait
    return (sum(cpu[:8]) - idle) / ticks, int(fields["ctxt"][0])


def run_wrk(options, url, size, connections, seconds):
    threads = min(connections, 2)
    command = [options.wrk, "-t", str(threads), "-c", str(connections), "-d", f"{seconds}s",
               "--timeout", "60s", "-s", os.path.join(HERE, "post.lua"), url, "--", str(size)]
    cpu_before, switches_before = machine_counters()
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=seconds + 120, check=False)
    cpu_after, switches_after = machine_counters()
    lines = [line for line in result.stdout.splitlines() if line.startswith("{")]
    if result.returncode != 0 or not lines:
        raise RuntimeError(f"wrk failed ({result.returncode}): {result.stderr}{result.stdout}")
    report = json.loads(lines[-1])
    # What a request costs the whole machine (server, workers, wrk and all): CPU time and
    # context switches per request; reported beside the rates, to explain them.
    requests = max(report["requests"], 1)
    report["cpu_us_per_request"] = (cpu_after - cpu_before) * 1e6 / requests
    report["switches_per_request"] = (switches_after - switches_before) / requests
    return report


def entry(name, size, transfer, report):
    seconds = report["duration_us"] / 1e6
    errors = sum(report[key] for key in ("connect_errors", "read_errors", "write_errors",
                                         "status_errors", "timeouts"))
    item = {"name": name, "run_name": name, "run_type": "iteration",
            "requests": report["requests"], "body_bytes": size, "transfer": int(transfer),
            "requests_per_second": report["requests"] / seconds,
            "p50_us": report["p50_us"], "p99_us": report["p99_us"],
            "bytes_per_second": 2 * size * report["requests"] / seconds,
            "cpu_us_per_request": report["cpu_us_per_request"],
            "switches_per_request": report["switches_per_request"]}
    if errors or not report["requests"]:
        item["error_occurred"] = True
        item["error_message"] = (f"{errors} errors or non-2xx answers in "
                                 f"{report['requests']} requests: {report}")
    return item


def main(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("--pendrel", required=True)
    parser.add_argument("--echo", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("--smoke", action="store_true")
    parser.add_argument("--workers", type=int, default=4)
    parser.add_argument("--wrk", default=shutil.which("wrk"))
    parser.add_argument("--nginx", default=shutil.which("nginx", path="/usr/sbin:/usr/bin"))
    parser.add_argument("--php-fpm", default=(shutil.which("php-fpm")
                                              or shutil.which("php-fpm8.2", path="/usr/sbin")))
    options = parser.parse_args(argv)
    for tool in ("wrk", "nginx", "php_fpm"):
        if not getattr(options, tool):
            print(f"{tool.replace('_', '-')} is not installed", file=sys.stderr)
            return 1

    cases = SMOKE_CASES if options.smoke else FULL_CASES
    folder = tempfile.mkdtemp(prefix="pendrel-server-bench-")
    os.chmod(folder, 0o755)  # php-fpm's and nginx's workers may run as another user
    started = []
    results = []
    try:
        pendrel, pendrel_url = start_pendrel(options)
        started.append(pendrel)
        peers, php_url = start_php(options, folder)
        started.extend(peers)
        servers = [("pendrel", pendrel_url), ("nginx+php-fpm", php_url)]
        for name, url in servers:
            for _, size, _, _ in cases:
                check_echo(url, size)
        for index, (case, size, connection_counts, seconds) in enumerate(cases):
            for connections in connection_counts:
                for server, url in servers:
                    report = run_wrk(options, url, size, connections, seconds)
                    item = entry(f"Server/{case}/{connections}/{server}", size,
                                 index == len(cases) - 1, report)
                    results.append(item)
                    print(f"{item['name']}: {item['requests_per_second']:.1f} requests/s, "
                          f"p50 {item['p50_us'] / 1000:.2f} ms, p99 {item['p99_us'] / 1000:.2f} ms, "
                          f"machine per request: {item['cpu_us_per_request']:.0f} us CPU, "
                          f"{item['switches_per_request']:.1f} context switches"
                          + (f", FAILED: {item['error_message']}" if "error_occurred" in item
                             else ""), flush=True)
    finally:
        for process in reversed(started):
            process.stop()
        shutil.rmtree(folder, ignore_errors=True)

    document = {"context": {"workers": options.workers, "smoke": options.smoke,
                            "sizes": {case: size for case, size, _, _ in cases}},
                "benchmarks": results}
    with open(options.out, "w", encoding="utf-8") as stream:
        json.dump(document, stream, indent=1)
    return 1 if any("error_occurred" in item for item in results) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
