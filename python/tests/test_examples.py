"""The examples in examples/python run as their docstrings say."""

import os
import pathlib
import signal
import subprocess
import sys

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples" / "python"
PATIENCE = 30


def run(name, *args, **options):
    return subprocess.Popen(
        [sys.executable, str(EXAMPLES / name), *args], stdout=subprocess.PIPE, text=True, **options
    )


def test_publish_list_and_watch(tag):
    watcher = run("watch_selectors.py", tag, stdin=subprocess.PIPE)
    publisher = run("publish.py", "10.0.0.2", "5432", tag)
    try:
        assert publisher.stdout.readline() == "live: 10.0.0.2 5432 (group %s); Ctrl-C withdraws it\n" % tag
        listing = subprocess.run(
            [sys.executable, str(EXAMPLES / "list.py"), tag], capture_output=True, text=True, timeout=PATIENCE
        )
        assert listing.stdout == "10.0.0.2 5432\nb'10.0.0.2' b'5432'\n"
        publisher.send_signal(signal.SIGTERM)
        assert publisher.stdout.readline() == "withdrawn\n"
        assert publisher.wait(PATIENCE) == 0
        assert watcher.stdout.readline() == "+ 10.0.0.2 5432\n"
        assert watcher.stdout.readline() == "- 10.0.0.2 5432\n"
        watcher.stdin.close()
        assert watcher.wait(PATIENCE) == 0
    finally:
        for process in (publisher, watcher):
            if process.poll() is None:
                process.kill()
                process.wait()
