"""The bridge's test bed, for its tests and its benchmark: a real etcd
cluster on loopback ports, and "hosts" made of a mount and a pid namespace
each, with a private tmpfs on /dev/shm and a /proc of their own, on this
machine. Needs root and etcd (Debian's etcd-server).
"""

import base64
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import urllib.request

TOOL = os.environ.get("ENDPOINTREGISTRY_TOOL", "endpointregistry")
PROBE = os.environ.get("BRIDGE_PROBE", "bridge_probe")
ETCD = shutil.which("etcd")
PATIENCE = 20.0


def free_ports(count):
    sockets = [socket.socket() for _ in range(count)]
    for s in sockets:
        s.bind(("127.0.0.1", 0))
    ports = [s.getsockname()[1] for s in sockets]
    for s in sockets:
        s.close()
    return ports


def wait_until(condition, timeout=PATIENCE, what="condition"):
    """Checks `condition` every 20 ms until it holds; fails after `timeout` s."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.02)


def stop(process, sig=signal.SIGTERM, timeout=10):
    if process.poll() is None:
        process.send_signal(sig)
        try:
            process.wait(timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    return process.returncode


class Cluster:
    """Three etcd members on loopback ports, each with a data directory of its own."""

    def __init__(self, size=3):
        self.dir = tempfile.mkdtemp(prefix="er-etcd-")
        ports = free_ports(2 * size)
        self.names = ["m%d" % i for i in range(size)]
        self.client = ["http://127.0.0.1:%d" % p for p in ports[:size]]
        self.peer = ["http://127.0.0.1:%d" % p for p in ports[size:]]
        self.processes = [None] * size
        self.initial = ",".join("%s=%s" % (n, p) for n, p in zip(self.names, self.peer))
        try:
            for i in range(size):
                self.start(i, "new")
            self.wait_healthy()
        except BaseException:
            self.close()
            raise

    def start(self, i, state="existing"):
        with open(os.path.join(self.dir, self.names[i] + ".log"), "a") as log:
            self._start(i, state, log)

    def _start(self, i, state, log):
        self.processes[i] = subprocess.Popen(
            [ETCD, "--name", self.names[i], "--data-dir", os.path.join(self.dir, self.names[i]),
             "--listen-client-urls", self.client[i], "--advertise-client-urls", self.client[i],
             "--listen-peer-urls", self.peer[i], "--initial-advertise-peer-urls", self.peer[i],
             "--initial-cluster", self.initial, "--initial-cluster-state", state,
             "--heartbeat-interval", "50", "--election-timeout", "500"],
            stdout=log, stderr=subprocess.STDOUT)

    def kill(self, i, sig=signal.SIGKILL):
        stop(self.processes[i], sig)

    def wait_healthy(self, members=None):
        for i in members if members is not None else range(len(self.names)):
            wait_until(lambda: self.healthy(i), what="etcd member %s" % self.names[i])

    def healthy(self, i):
        try:
            with urllib.request.urlopen(self.client[i] + "/health", timeout=1) as answer:
                return json.load(answer).get("health") in ("true", True)
        except Exception:
            return False

    def call(self, path, body, url=None, token=None):
        request = urllib.request.Request((url or self.client[0]) + path, data=json.dumps(body).encode(),
                                         headers={"Authorization": token} if token else {})
        with urllib.request.urlopen(request, timeout=5) as answer:
            return json.load(answer)

    def keys(self, prefix, token=None):
        """The keys under `prefix`, decoded, with their values."""
        end = prefix[:-1] + chr(ord(prefix[-1]) + 1)
        answer = self.call("/v3/kv/range", {"key": b64(prefix), "range_end": b64(end)}, token=token)
        return {base64.b64decode(kv["key"]).decode(): base64.b64decode(kv.get("value", "")).decode()
                for kv in answer.get("kvs", [])}

    def close(self):
        for process in self.processes:
            if process is not None:
                stop(process, signal.SIGKILL)
        shutil.rmtree(self.dir, ignore_errors=True)


def b64(text):
    return base64.b64encode(text.encode() if isinstance(text, str) else text).decode()


def child_of(pid):
    """The one child of process `pid` (unshare's or nsenter's, which fork)."""
    return int(wait_until(lambda: open("/proc/%d/task/%d/children" % (pid, pid)).read().split() or None)[0])


def signal_inside(process, sig):
    """Sends `sig` to the program that nsenter started (nsenter then ends as it
    does: with its status, or by the same signal)."""
    if process.poll() is None:
        try:
            os.kill(child_of(process.pid), sig)
        except (AssertionError, ProcessLookupError, FileNotFoundError):
            pass


def stop_inside(process, sig=signal.SIGTERM, timeout=10):
    signal_inside(process, sig)
    try:
        process.wait(timeout)
    except subprocess.TimeoutExpired:
        signal_inside(process, signal.SIGKILL)
        process.wait()
    return process.returncode


class Host:
    """A mount and pid namespace with a tmpfs of its own on /dev/shm (and its own /proc)."""

    def __init__(self, name):
        self.name = name
        self.holder = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "--propagation", "private", "sh", "-c",
             "mount -t tmpfs tmpfs /dev/shm && echo ready && exec sleep 3600"],
            stdout=subprocess.PIPE, text=True)
        assert self.holder.stdout.readline() == "ready\n"
        # The namespace's first process: the child of unshare.
        self.pid = child_of(self.holder.pid)
        self.processes = []
        self.log_path = tempfile.mkstemp(prefix="er-bridge-%s-" % name, suffix=".log")[1]

    def log(self):
        with open(self.log_path) as f:
            return f.read()

    def command(self, *words):
        return ["nsenter", "-t", str(self.pid), "-m", "-p", *words]

    def start(self, *words, **options):
        process = subprocess.Popen(self.command(*words), **options)
        self.processes.append(process)
        return process

    def run(self, *words):
        return subprocess.run(self.command(*words), capture_output=True, text=True, timeout=PATIENCE, check=True).stdout

    def bridge(self, cluster_urls, prefix, *extra, ttl=10):
        """Starts a bridge here; what it says goes to a log file shown by log()."""
        with open(self.log_path, "a") as log:
            return self.start(TOOL, "bridge", "--etcd", ",".join(cluster_urls), "--prefix", prefix, "--host",
                              self.name, "--ttl", str(ttl), *extra, stdout=log, stderr=subprocess.STDOUT)

    def publish(self, first, second, tag):
        """Publishes bytes through the probe; returns the process, live already."""
        process = self.start(PROBE, "publish", first.hex(), second.hex(), tag, stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE, text=True)
        words = process.stdout.readline().split()
        assert words[0] == "live" and len(words) == 2, words
        process.began_ns = int(words[1])  # CLOCK_MONOTONIC when it began to publish
        return process

    def listing(self, tag):
        """The pairs listed here under `tag`, as bytes; None when the probe failed (tried again by waits)."""
        try:
            text = self.run(PROBE, "list", tag)
        except subprocess.SubprocessError:
            return None
        pairs = []
        for line in text.splitlines():
            first, second = line.split(" ")
            pairs.append((b"" if first == "-" else bytes.fromhex(first), b"" if second == "-" else bytes.fromhex(second)))
        return pairs

    def close(self):
        # The namespace's first process takes every other one with it.
        stop(self.holder, signal.SIGKILL)
        for process in self.processes:
            try:
                process.wait(PATIENCE)
            except subprocess.TimeoutExpired:
                process.kill()
        os.unlink(self.log_path)


def withdraw(publisher):
    """Ends a probe's publication by closing its input, as it waits for."""
    publisher.stdin.close()
    assert publisher.wait(PATIENCE) == 0
