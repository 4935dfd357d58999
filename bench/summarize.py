#!/usr/bin/env python3
"""Prints the one summary table of a benchmark run.

Reads the JSON outputs of the benchmark programs (--benchmark_out), takes the median of the
repetitions where there are some (the single run otherwise), and prints for every figure:
pendrel's value, the best peer of the same run (named), their ratio, the target and whether
it is met. Exits with 1 if a benchmark reported an error or a figure has no value, else 0:
a missed target is a finding, not a failure of the run.

    summarize.py [--markdown] [--smoke] RESULT.json...
"""

import json
import re
import sys

GB = 1e9


def load(paths):
    """{benchmark name: {field: value}}, medians preferred; and the names that failed."""
    values, failed = {}, []
    for path in paths:
        with open(path, encoding="utf-8") as stream:
            document = json.load(stream)
        singles, medians = {}, {}
        for entry in document.get("benchmarks", []):
            name = entry.get("run_name", entry["name"])
            # "Name/manual_time", "Name/real_time", "Name/iterations:1/manual_time": the
            # figure's own name.
            name = re.sub(r"(/iterations:\d+)?(/manual_time|/real_time)?(/repeats:\d+)?$", "",
                          name)
            if entry.get("error_occurred"):
                failed.append(f"{name}: {entry.get('error_message', 'error')}")
                continue
            if entry.get("run_type") == "aggregate":
                if entry.get("aggregate_name") == "median":
                    medians[name] = entry
            else:
                singles.setdefault(name, entry)
        values.update(singles)
        values.update(medians)
    return values, failed


class Table:
    def __init__(self, values):
        self.values = values
        self.rows = []
        self.missing = []

    def get(self, name, field):
        entry = self.values.get(name)
        if entry is None or field not in entry:
            return None
        return float(entry[field])

    def speed(self, name):
        value = self.get(name, "bytes_per_second")
        return None if value is None else value / GB

    def add(self, figure, ours, peer, ratio, target, met):
        """`met` is True or False, or None for a figure that is only reported."""
        self.rows.append((figure, ours, peer, ratio, target, met))

    def faster(self, figure, ours_name, peer_names, factor):
        """A throughput figure: pendrel at least `factor` times the best peer."""
        ours = self.speed(ours_name)
        peers = [(self.speed(name), name.rsplit("/", 1)[1]) for name in peer_names]
        peers = [(speed, name) for speed, name in peers if speed is not None]
        if ours is None or not peers:
            self.missing.append(figure)
            return
        best, who = max(peers)
        ratio = ours / best
        self.add(figure, f"{ours:.2f} GB/s", f"{who} {best:.2f} GB/s", f"{ratio:.2f}x",
                 f">= {factor}x best", ratio >= factor)

    def copy_like(self, figure, ours_name, writer_names, ceiling_name, memcpy_name, share):
        """Text with nothing to escape: writing it is a copy. Not below any peer writer, and,
        when `share` is set, at least that share of memcpy; the minifier is shown as the
        ceiling of a copy of finished text, not judged against."""
        ours = self.speed(ours_name)
        writers = [(self.speed(name), name.rsplit("/", 1)[1]) for name in writer_names]
        writers = [(speed, name) for speed, name in writers if speed is not None]
        ceiling = self.speed(ceiling_name)
        base = self.speed(memcpy_name)
        if ours is None or not writers or (share and not base):
            self.missing.append(figure)
            return
        best, who = max(writers)
        peer = f"{who} {best:.2f} GB/s"
        if ceiling is not None:
            peer += f" (minify {ceiling:.2f})"
        ratio = f"{ours / best:.2f}x"
        target = ">= 1x best writer"
        met = ours >= best
        if share:
            ratio += f", {ours / base:.0%} of memcpy"
            target += f", >= {share:.0%} of memcpy"
            met = met and ours >= share * base
        self.add(figure, f"{ours:.2f} GB/s", peer, ratio, target, met)

    def absolute(self, figure, ours_name, baseline_name, floor_gb):
        """A throughput figure with an absolute floor; memcpy of the run as the reference."""
        ours = self.speed(ours_name)
        base = self.speed(baseline_name)
        if ours is None:
            self.missing.append(figure)
            return
        peer = f"memcpy {base:.2f} GB/s" if base else "memcpy ?"
        ratio = f"{ours / base:.2f}x" if base else "-"
        self.add(figure, f"{ours:.2f} GB/s", peer, ratio, f">= {floor_gb} GB/s", ours >= floor_gb)

    def render(self, markdown, judge):
        header = ("figure", "pendrel", "best peer", "ratio", "target", "met?")
        cells = [header] + [
            (f, o, p, r, t, ("yes" if m else "NO") if judge and m is not None else "-")
            for f, o, p, r, t, m in self.rows
        ]
        if markdown:
            lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
            lines += ["| " + " | ".join(row) + " |" for row in cells[1:]]
            return "\n".join(lines)
        widths = [max(len(row[i]) for row in cells) for i in range(len(header))]
        rule = "-+-".join("-" * w for w in widths)
        out = []
        for index, row in enumerate(cells):
            out.append(" | ".join(cell.ljust(w) for cell, w in zip(row, widths)).rstrip())
            if index == 0:
                out.append(rule)
        return "\n".join(out)


def sizes_of(values, prefix):
    """The size names that appear after `prefix`, smallest first."""
    found = set()
    for name in values:
        if name.startswith(prefix):
            found.add(name[len(prefix):].split("/")[0])

    def key(size):
        number, unit = int(size[:-1]), size[-1]
        return number * {"K": 1 << 10, "M": 1 << 20}.get(unit, 1)

    return sorted(found, key=key)


def build(values):
    table = Table(values)
    writers = ["rapidjson", "boost.json", "nlohmann"]
    readers = ["rapidjson", "boost.json", "nlohmann", "simdjson"]

    for size in sizes_of(values, "ToJson/request/A/"):
        for form in ("request", "response"):
            stem = f"ToJson/{form}/A/{size}/"
            table.copy_like(f"ToJsonString {form} A {size}", stem + "pendrel",
                            [stem + peer for peer in writers], stem + "simdjson.minify",
                            f"Memcpy/{size}", 0.85 if size == "16M" else None)
            stem = f"ToJson/{form}/B/{size}/"
            table.faster(f"ToJsonString {form} B {size}", stem + "pendrel",
                         [stem + peer for peer in writers], 1.5)
            table.absolute(f"ToJsonString {form} C {size}", f"ToJson/{form}/C/{size}/pendrel",
                           f"Memcpy/{size}", 1.5)
        for form in ("request", "response"):
            for kind in ("A", "B"):
                stem = f"FromJson/{form}/{kind}/{size}/"
                table.faster(f"FromJsonString {form} {kind} {size}", stem + "pendrel",
                             [stem + peer for peer in readers], 1.2)
            table.absolute(f"FromJsonString {form} C {size}",
                           f"FromJson/{form}/C/{size}/pendrel", f"Memcpy/{size}", 2.0)

    for size in sizes_of(values, "HttpForm/"):
        stem = f"HttpForm/{size}/"
        table.faster(f"CResponse::ToHttpRequestData 2x{size}", stem + "pendrel",
                     [stem + "openssl.EncodeBlock+split", stem + "openssl.EncodeUpdate"], 1.5)

    ours = table.get("RoundTrip/pendrel", "p50_us")
    raw = table.get("RoundTrip/raw.seqpacket", "p50_us")
    zmq = table.get("RoundTrip/zeromq.ipc", "p50_us")
    if ours is not None and raw is not None:
        table.add("round trip p50 vs raw", f"{ours:.1f} us", f"raw.seqpacket {raw:.1f} us",
                  f"{ours / raw:.2f}x", "<= 3x raw", ours <= 3 * raw)
    else:
        table.missing.append("round trip p50 vs raw")
    if ours is not None and zmq is not None:
        table.add("round trip p50 vs ZeroMQ", f"{ours:.1f} us", f"zeromq.ipc {zmq:.1f} us",
                  f"{ours / zmq:.2f}x", "< 1x (faster)", ours < zmq)
    else:
        table.missing.append("round trip p50 vs ZeroMQ")
    ours99 = table.get("RoundTrip/pendrel", "p99_us")
    raw99 = table.get("RoundTrip/raw.seqpacket", "p99_us")
    zmq99 = table.get("RoundTrip/zeromq.ipc", "p99_us")
    if None not in (ours99, raw99, zmq99):
        best99, who99 = min((raw99, "raw.seqpacket"), (zmq99, "zeromq.ipc"))
        table.add("round trip p99 (report)", f"{ours99:.1f} us", f"{who99} {best99:.1f} us",
                  f"{ours99 / best99:.2f}x", "report", None)

    json_only = table.get("RoundTrip/json.only", "real_time")
    if ours is not None and json_only is not None:
        unit = values["RoundTrip/json.only"].get("time_unit", "us")
        json_us = json_only * {"ns": 1e-3, "us": 1.0, "ms": 1e3}.get(unit, 1.0)
        table.add("round trip: of which JSON (report)", f"{json_us:.1f} us",
                  "-", f"{json_us / ours:.2f} of p50", "report", None)

    for size in sizes_of(values, "Transfer/"):
        ours = table.speed(f"Transfer/{size}/pendrel")
        raw = table.speed(f"Transfer/{size}/raw.seqpacket")
        if ours is None or raw is None:
            table.missing.append(f"transfer {size}")
            continue
        table.add(f"{size} request + {size} answer", f"{ours:.2f} GB/s",
                  f"raw.seqpacket {raw:.2f} GB/s", f"{ours / raw:.2f}x", ">= 1 GB/s", ours >= 1.0)

    for name in values:
        match = re.match(r"Idle/(\d+)/([^/]+)/pendrel$", name)
        if not match:
            continue
        stem = name[: -len("pendrel")]
        count, span = match.groups()
        cpu = table.get(name, "cpu_pct")
        wake = table.get(name, "wakeups_per_handler_s")
        polls = [(table.get(stem + peer, "cpu_pct"), table.get(stem + peer, "wakeups_per_handler_s"),
                  peer) for peer in ("poll.blocking", "poll.sleep10ms")]
        peers_cpu = ", ".join(f"{p} {c:.3f} %" for c, _, p in polls if c is not None)
        peers_wake = ", ".join(f"{p} {w:.2f}/s" for _, w, p in polls if w is not None)
        best_cpu = min((c for c, _, _ in polls if c is not None), default=None)
        best_wake = min((w for _, w, _ in polls if w is not None), default=None)
        table.add(f"{count} idle handlers {span}: host CPU", f"{cpu:.4f} %", peers_cpu,
                  f"{cpu / best_cpu:.2f}x" if best_cpu else "-", "< 0.1 % of a core", cpu < 0.1)
        table.add(f"{count} idle handlers {span}: wake-ups", f"{wake:.3f}/s per handler",
                  peers_wake, f"{wake / best_wake:.2f}x" if best_wake else "-",
                  "<= 1/s per handler", wake <= 1.0)

    for size in sizes_of(values, "Memory/"):
        stem = f"Memory/{size}/"
        peers = [(table.get(stem + p, "extra_x_payload"), p) for p in ("rapidjson", "boost.json")]
        peers = [(v, p) for v, p in peers if v is not None]
        best = min(peers) if peers else None
        # Moved in is how the handler client calls it, and the figure. Copied in adds the
        # by-value parameter's copy of the whole text, which is the caller's choice: reported.
        for variant, label, judged in (("pendrel.moved", "text moved in", True),
                                       ("pendrel.copied", "text copied in", False)):
            ours = table.get(stem + variant, "extra_x_payload")
            if ours is None:
                table.missing.append(f"memory {size} {variant}")
                continue
            table.add(f"CResponse::FromJsonString {size} peak extra ({label})",
                      f"{ours:.2f}x payload",
                      f"{best[1]} {best[0]:.2f}x" if best else "-",
                      f"{ours / best[0]:.2f}x" if best else "-",
                      "<= 2x payload" if judged else "report (+1 text copy)",
                      ours <= 2.0 if judged else None)
    server_rows(table, values)
    return table


def server_rows(table, values):
    """`pendrel serve` + the echo handler against nginx + php-fpm (bench/server)."""
    peer = "nginx+php-fpm"
    cases = {}
    for name in values:
        match = re.match(r"Server/([^/]+)/(\d+)/pendrel$", name)
        if match:
            cases.setdefault(match.group(1), []).append(int(match.group(2)))

    def body_bytes(case):
        return min(table.get(f"Server/{case}/{c}/pendrel", "body_bytes") or 0
                   for c in cases[case])

    for case in sorted(cases, key=body_bytes):
        for connections in sorted(cases[case]):
            stem = f"Server/{case}/{connections}/"
            ours, theirs = stem + "pendrel", stem + peer
            label = f"server {case} x{connections}"
            rate, peer_rate = (table.get(ours, "requests_per_second"),
                               table.get(theirs, "requests_per_second"))
            if rate is None or peer_rate is None:
                table.missing.append(label)
                continue
            if table.get(ours, "transfer"):
                speed, peer_speed = table.speed(ours), table.speed(theirs)
                table.add(f"{label}: {case} up + {case} down", f"{speed:.2f} GB/s",
                          f"{peer} {peer_speed:.2f} GB/s", f"{speed / peer_speed:.2f}x",
                          ">= 1 GB/s", speed >= 1.0)
            else:
                table.add(f"{label}: requests/s", f"{rate:.0f}/s", f"{peer} {peer_rate:.0f}/s",
                          f"{rate / peer_rate:.2f}x", ">= 1x peer", rate >= peer_rate)
            p50, p99 = table.get(ours, "p50_us") / 1e3, table.get(ours, "p99_us") / 1e3
            peer50, peer99 = table.get(theirs, "p50_us") / 1e3, table.get(theirs, "p99_us") / 1e3
            table.add(f"{label}: p50 / p99", f"{p50:.2f} / {p99:.2f} ms",
                      f"{peer} {peer50:.2f} / {peer99:.2f} ms",
                      f"{p99 / peer99:.2f}x (p99)" if peer99 else "-", "p99 <= peer",
                      p99 <= peer99)


def main(argv):
    markdown = "--markdown" in argv
    smoke = "--smoke" in argv
    paths = [arg for arg in argv if not arg.startswith("--")]
    values, failed = load(paths)
    table = build(values)
    print(table.render(markdown, judge=not smoke))
    memcpy = [(name.split("/", 1)[1], values[name]["bytes_per_second"] / GB)
              for name in values if name.startswith("Memcpy/")]
    if memcpy:
        listed = ", ".join(f"{size} {speed:.2f} GB/s" for size, speed in memcpy)
        print(f"\nmemcpy in the same run: {listed}")
    judged = [row for row in table.rows if row[5] is not None]
    met = sum(1 for row in judged if row[5])
    if smoke:
        print("Smoke run: tiny sizes, one run each; no target is judged.")
    else:
        print(f"{met} of {len(judged)} judged figures meet their target.")
    for problem in failed:
        print(f"FAILED: {problem}", file=sys.stderr)
    for figure in table.missing:
        print(f"MISSING: {figure}", file=sys.stderr)
    return 1 if failed or table.missing else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
