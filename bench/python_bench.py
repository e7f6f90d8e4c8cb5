#!/usr/bin/env python3
"""The Python package's calls, timed as endpoint_bench times the same calls in C++.

- python/publish+withdraw/beside: publish and withdraw one endpoint while the
  process holds another (as publish+withdraw/beside in C++);
- python/list/own:N: list() with N (10 and 1,000; 10 in a smoke run) live
  endpoints held by this process (as list/own:N in C++).

Writes Google Benchmark's JSON layout (run_name, iterations, median_ns, p99_ns,
items),
so that bench/report.py reads it beside the C++ figures of the same run.

Usage: python_bench.py [--smoke] --benchmark_out=FILE
"""

import json
import os
import sys
import time

import endpointregistry as er


def quantiles(samples):
    ordered = sorted(samples)
    return ordered[len(ordered) // 2], ordered[min(len(ordered) - 1, int(len(ordered) * 0.99))]


def figure(name, samples, items=1):
    median, p99 = quantiles(samples)
    print("%-40s median %9.1f us  p99 %9.1f us" % (name, median / 1e3, p99 / 1e3), flush=True)
    return {"run_name": name, "name": name, "iterations": len(samples), "median_ns": median, "p99_ns": p99,
            "items": items}


def publish_withdraw(iterations):
    """As endpoint_bench's: the other endpoint under the same tag, and data of
    one length, so that the directory keeps its row width."""
    tag = "erBenchPy-%d" % os.getpid()
    samples = []
    with er.publish("cycle-beside", "4711", tag):
        for serial in range(iterations):
            first = "cycle%08d" % serial
            start = time.perf_counter_ns()
            with er.publish(first, "4711", tag):
                pass
            samples.append(time.perf_counter_ns() - start)
    return figure("python/publish+withdraw/beside", samples)


def list_own(n, iterations):
    tag = "erBenchPyList-%d" % os.getpid()
    held = [er.publish("10.9.9.9", str(i), tag) for i in range(n)]
    samples = []
    try:
        for _ in range(iterations):
            start = time.perf_counter_ns()
            listed = er.list()
            samples.append(time.perf_counter_ns() - start)
            if len(listed) < n:
                raise RuntimeError("listed %d of %d" % (len(listed), n))
    finally:
        for endpoint in held:
            endpoint.reset()
    return figure("python/list/own:%d" % n, samples, n)


def main():
    smoke = "--smoke" in sys.argv
    out = next((a.split("=", 1)[1] for a in sys.argv if a.startswith("--benchmark_out=")), None)
    results = [publish_withdraw(5 if smoke else 1000)]
    results.append(list_own(10, 3 if smoke else 400))
    if not smoke:
        results.append(list_own(1000, 200))
    if out:
        with open(out, "w") as f:
            json.dump({"context": {"program": "python_bench"}, "benchmarks": results}, f, indent=1)


if __name__ == "__main__":
    main()
