#!/usr/bin/env python3
"""The etcd bridge's propagation times, beside etcd's own floor, in one run.

A three-member etcd cluster on loopback ports and two hosts (mount and pid
namespaces, bridge/tests/testbed.py), each running a bridge:

- bridge/publish on A to listed on B: a probe on A publishes; a probe on B,
  watching, stamps the event (both with CLOCK_MONOTONIC, which pid
  namespaces share);
- bridge/SIGKILL on A to gone on B: the publisher on A is killed;
- bridge/floor/etcd put to watch event: a put on one connection until a
  watch on another connection sees it (etcd's own floor);
- bridge/floor/local notification: publish on A until a watcher on A sees
  it (the registry's own notification, which each propagation includes).

Needs root and etcd; otherwise each figure is reported as skipped.
Usage: bridge_bench.py [--smoke] --benchmark_out=FILE
"""

import base64
import http.client
import json
import os
import select
import signal
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "bridge", "tests"))

import testbed  # noqa: E402

NAMES = ["bridge/publish on A to listed on B", "bridge/SIGKILL on A to gone on B",
         "bridge/floor/etcd put to watch event", "bridge/floor/local notification"]


def figure(name, samples):
    ordered = sorted(samples)
    median, p99 = ordered[len(ordered) // 2], ordered[min(len(ordered) - 1, int(len(ordered) * 0.99))]
    print("%-45s median %9.1f us  p99 %9.1f us" % (name, median / 1e3, p99 / 1e3), flush=True)
    return {"run_name": name, "name": name, "iterations": len(samples), "median_ns": median, "p99_ns": p99,
            "items": 1}


def skipped(reason):
    return [{"run_name": name, "name": name, "error_occurred": True, "error_message": reason} for name in NAMES]


class StampedWatch:
    """A probe watching a tag on a host; yields (ns, sign, first, second)."""

    def __init__(self, host, tag):
        self.process = host.start(testbed.PROBE, "watch", tag, stdin=testbed.subprocess.PIPE,
                                  stdout=testbed.subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "ready\n"

    def next(self, timeout=testbed.PATIENCE):
        ready, _, _ = select.select([self.process.stdout], [], [], timeout)
        if not ready:
            raise RuntimeError("no event in %s s" % timeout)
        ns, sign, first, second = self.process.stdout.readline().split()
        return int(ns), sign, first, second


def etcd_floor(cluster, iterations):
    """A put on one connection until a watch on another sees it."""
    host, port = cluster.client[0][len("http://"):].split(":")
    prefix = "/er-bench-floor/"
    watch = http.client.HTTPConnection(host, int(port), timeout=testbed.PATIENCE)
    body = {"create_request": {"key": base64.b64encode(prefix.encode()).decode(),
                               "range_end": base64.b64encode(prefix[:-1].encode() + b"0").decode()}}
    watch.request("POST", "/v3/watch", json.dumps(body))
    stream = watch.getresponse()
    put_host, put_port = cluster.client[1][len("http://"):].split(":")
    put = http.client.HTTPConnection(put_host, int(put_port), timeout=testbed.PATIENCE)
    samples = []
    buffer = b""

    def next_object():
        nonlocal buffer
        while True:
            depth, start = 0, None
            for i, c in enumerate(buffer):
                if c == ord("{"):
                    depth += 1
                    start = i if start is None else start
                elif c == ord("}"):
                    depth -= 1
                    if depth == 0 and start is not None:
                        text, buffer = buffer[start:i + 1], buffer[i + 1:]
                        return json.loads(text)
            buffer += stream.read1(65536)

    next_object()  # created
    for serial in range(iterations):
        key = base64.b64encode(("%sk%d" % (prefix, serial)).encode()).decode()
        began = time.monotonic_ns()
        put.request("POST", "/v3/kv/put", json.dumps({"key": key, "value": key}))
        put.getresponse().read()
        while "events" not in next_object().get("result", {}):
            pass
        samples.append(time.monotonic_ns() - began)
    watch.close()
    put.close()
    return figure(NAMES[2], samples)


def main():
    smoke = "--smoke" in sys.argv
    out = next((a.split("=", 1)[1] for a in sys.argv if a.startswith("--benchmark_out=")), None)
    iterations = 3 if smoke else 50
    if os.geteuid() != 0:
        results = skipped("needs root (hosts are namespaces)")
    elif testbed.ETCD is None:
        results = skipped("needs etcd (etcd-server)")
    else:
        results = run(iterations)
    if out:
        with open(out, "w") as f:
            json.dump({"context": {"program": "bridge_bench"}, "benchmarks": results}, f, indent=1)


def run(iterations):
    cluster = testbed.Cluster()
    a, b = testbed.Host("hostA"), testbed.Host("hostB")
    try:
        prefix, tag = "/er-bench/", "bench"
        for host in (a, b):
            host.bridge(cluster.client, prefix, "--group", tag)
        on_a, on_b = StampedWatch(a, tag), StampedWatch(b, tag)
        publish, kill, local = [], [], []
        for serial in range(iterations):
            first = b"10.9.9.%d" % serial
            publisher = a.publish(first, b"1", tag)
            seen_a = on_a.next()
            seen_b = on_b.next()
            assert seen_b[1] == "+" and seen_b[2] == first.hex(), seen_b
            local.append(seen_a[0] - publisher.began_ns)
            publish.append(seen_b[0] - publisher.began_ns)
            killed = time.monotonic_ns()
            testbed.signal_inside(publisher, signal.SIGKILL)
            publisher.wait()
            on_a.next()
            gone = on_b.next()
            assert gone[1] == "-", gone
            kill.append(gone[0] - killed)
        results = [figure(NAMES[0], publish), figure(NAMES[1], kill)]
        results.append(etcd_floor(cluster, iterations * 4))
        results.append(figure(NAMES[3], local))
        return results
    finally:
        for host in (a, b):
            host.close()
        cluster.close()


if __name__ == "__main__":
    main()
