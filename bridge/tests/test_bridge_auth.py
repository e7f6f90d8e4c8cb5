"""The bridge against a cluster with authentication on."""

import os
import subprocess
import tempfile
import urllib.error

import pytest

from testbed import PATIENCE, b64, wait_until, withdraw


def test_a_bridge_authenticates_and_others_cannot_read(cluster, hosts, prefix):
    url = cluster.client[0]
    cluster.call("/v3/auth/user/add", {"name": "root", "password": "s3cret"})
    cluster.call("/v3/auth/user/grant", {"user": "root", "role": "root"})
    cluster.call("/v3/auth/enable", {})
    with pytest.raises(urllib.error.HTTPError):
        cluster.keys(prefix)
    with tempfile.NamedTemporaryFile("w", delete=False) as password:
        password.write("s3cret\n")
    try:
        a, b = hosts("hostA"), hosts("hostB")
        a.bridge(cluster.client, prefix, "--group", "web", "--user", "root", "--password-file", password.name)
        b.bridge(cluster.client, prefix, "--group", "web", "--user", "root", "--password-file", password.name)
        publisher = a.publish(b"10.0.0.1", b"80", "web")
        wait_until(lambda: b.listing("web") == [(b"10.0.0.1", b"80")], what="B to list A's endpoint")
        token = cluster.call("/v3/auth/authenticate", {"name": "root", "password": "s3cret"}, url=url)["token"]
        assert len(cluster.keys(prefix, token=token)) == 1
        withdraw(publisher)
        wait_until(lambda: b.listing("web") == [], what="B to drop it")
        # A wrong password: the bridge says so and carries nothing.
        with open(password.name, "w") as f:
            f.write("wrong\n")
        c = hosts("hostC")
        wrong = c.start(os.environ.get("ENDPOINTREGISTRY_TOOL", "endpointregistry"), "bridge", "--etcd", url,
                        "--prefix", prefix, "--host", "hostC", "--group", "web", "--user", "root",
                        "--password-file", password.name, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                        text=True)
        line = wait_until(lambda: _line_with(wrong, "etcd refused user root"), what="the refusal")
        assert "authentication failed" in line
    finally:
        os.unlink(password.name)


def _line_with(process, text):
    """A line of the process's output holding `text`, if one comes within 0.1 s."""
    import select

    if not select.select([process.stdout], [], [], 0.1)[0]:
        return None
    line = process.stdout.readline()
    return line if text in line else None
