"""endpointregistry bridge between hosts (namespaces) through a real etcd cluster."""

import signal
import subprocess
import time

from testbed import PATIENCE, stop_inside, wait_until, withdraw

TAG = "web"


def listed(host, pairs, tag=TAG):
    """Waits until `host` lists exactly `pairs` under `tag`."""
    wanted = sorted(pairs)
    wait_until(lambda: host.listing(tag) == wanted, what="%s to list %r" % (host.name, wanted))


def bridged(cluster, hosts, prefix, ttl=10):
    """Hosts A and B, each running a bridge of TAG."""
    made = hosts("hostA"), hosts("hostB")
    for host in made:
        host.bridge(cluster.client, prefix, "--group", TAG, ttl=ttl)
    return made


def test_publication_and_withdrawal_propagate(cluster, hosts, prefix):
    a, b, c = hosts("hostA"), hosts("hostB"), hosts("hostC")
    for host in (a, b, c):
        host.bridge(cluster.client, prefix, "--group", TAG)
    publisher = a.publish(b"10.0.0.1", b"80", TAG)
    other_tag = a.publish(b"10.0.0.9", b"99", "not-bridged")
    listed(b, [(b"10.0.0.1", b"80")])
    listed(c, [(b"10.0.0.1", b"80")])
    assert b.listing("not-bridged") == []
    # One key, the exporting host's: nothing echoed back by B or C.
    keys = cluster.keys(prefix)
    assert len(keys) == 1 and "/hostA/" in next(iter(keys))
    withdraw(publisher)
    listed(b, [])
    listed(c, [])
    listed(a, [])
    wait_until(lambda: cluster.keys(prefix) == {}, what="the key to go")
    withdraw(other_tag)


def test_a_killed_publisher_is_gone_on_the_other_host(cluster, hosts, prefix):
    a, b = bridged(cluster, hosts, prefix)
    publisher = a.publish(b"doomed", b"1", TAG)
    listed(b, [(b"doomed", b"1")])
    assert stop_inside(publisher, signal.SIGKILL) == -signal.SIGKILL
    listed(b, [])


def test_a_killed_bridge_drops_its_endpoints_after_the_ttl(cluster, hosts, prefix):
    a, b = hosts("hostA"), hosts("hostB")
    bridge_a = a.bridge(cluster.client, prefix, "--group", TAG, ttl=3)
    b.bridge(cluster.client, prefix, "--group", TAG)
    publisher = a.publish(b"10.0.0.1", b"80", TAG)
    listed(b, [(b"10.0.0.1", b"80")])
    killed = time.monotonic()
    assert stop_inside(bridge_a, signal.SIGKILL) == -signal.SIGKILL
    listed(b, [])
    waited = time.monotonic() - killed
    # The lease had to expire: not at once, and not much later than its TTL.
    assert 1.0 < waited < 3 + 5, waited
    withdraw(publisher)


def test_a_stopped_bridge_revokes_its_lease_at_once(cluster, hosts, prefix):
    a, b = hosts("hostA"), hosts("hostB")
    bridge_a = a.bridge(cluster.client, prefix, "--group", TAG, ttl=60)
    b.bridge(cluster.client, prefix, "--group", TAG)
    publisher = a.publish(b"10.0.0.1", b"80", TAG)
    listed(b, [(b"10.0.0.1", b"80")])
    stopped = time.monotonic()
    assert stop_inside(bridge_a, signal.SIGTERM) == 0
    listed(b, [])
    assert time.monotonic() - stopped < 10  # far below the 60 s lease
    withdraw(publisher)


def test_propagation_goes_on_when_a_member_dies(cluster, hosts, prefix):
    a, b = bridged(cluster, hosts, prefix)
    first = a.publish(b"before", b"1", TAG)
    listed(b, [(b"before", b"1")])
    cluster.kill(0)  # the member both bridges ask first
    second = a.publish(b"after", b"1", TAG)
    listed(b, [(b"after", b"1"), (b"before", b"1")])
    withdraw(first)
    listed(b, [(b"after", b"1")])
    withdraw(second)
    listed(b, [])


def test_everything_reconverges_after_the_whole_cluster_restarts(cluster, hosts, prefix):
    a, b = bridged(cluster, hosts, prefix, ttl=3)
    stays = a.publish(b"stays", b"1", TAG)
    goes = a.publish(b"goes", b"1", TAG)
    listed(b, [(b"goes", b"1"), (b"stays", b"1")])
    for i in range(3):
        cluster.kill(i, signal.SIGTERM)
    withdraw(goes)
    late = a.publish(b"late", b"1", TAG)
    # Unreachable for longer than the TTL: B's imports may be stale, and go.
    listed(b, [])
    for i in range(3):
        cluster.start(i)
    cluster.wait_healthy()
    listed(b, [(b"late", b"1"), (b"stays", b"1")])
    withdraw(late)
    withdraw(stays)
    listed(b, [])


def test_the_same_data_on_two_hosts_is_one_endpoint_on_each(cluster, hosts, prefix):
    a, b = bridged(cluster, hosts, prefix)
    on_a = a.publish(b"shared", b"1", TAG)
    listed(b, [(b"shared", b"1")])
    # The import holds the pair on B: a local publication of the same data
    # there is refused as a duplicate, as beside any local endpoint.
    refused = subprocess.run(b.command(*_probe_publish(b"shared", b"1")), capture_output=True, text=True,
                             timeout=PATIENCE, input="")
    assert refused.returncode == 1
    assert refused.stderr == "bridge_probe: Endpoint already exists in registry\n"
    withdraw(on_a)
    listed(b, [])


def _probe_publish(first, second):
    from testbed import PROBE

    return [PROBE, "publish", first.hex(), second.hex(), TAG]


def test_a_local_synonym_is_taken_up_when_the_local_one_goes(cluster, hosts, prefix):
    a, b = hosts("hostA"), hosts("hostB")
    # Both before anything is bridged: neither host can import the other's.
    on_b = b.publish(b"shared", b"1", TAG)
    on_a = a.publish(b"shared", b"1", TAG)
    a.bridge(cluster.client, prefix, "--group", TAG)
    b.bridge(cluster.client, prefix, "--group", TAG)
    wait_until(lambda: len(cluster.keys(prefix)) == 2, what="both hosts' keys")
    assert b.listing(TAG) == [(b"shared", b"1")]
    assert a.listing(TAG) == [(b"shared", b"1")]
    withdraw(on_b)  # A's copy is imported on B once B's own goes
    listed(b, [(b"shared", b"1")])
    wait_until(lambda: len(cluster.keys(prefix)) == 1, what="B's key to go")
    withdraw(on_a)
    listed(b, [])
    listed(a, [])


def test_any_bytes_cross(cluster, hosts, prefix):
    a, b = bridged(cluster, hosts, prefix)
    odd = [(b"nul\x00inside", b"\x00"), (b"\xff\xfe not utf-8", b"")]
    publishers = [a.publish(first, second, TAG) for first, second in odd]
    listed(b, odd)
    for publisher in publishers:
        withdraw(publisher)
    listed(b, [])


def test_imports_are_published_under_the_chosen_trustees(cluster, hosts, prefix):
    import grp
    import json
    import uuid

    from testbed import TOOL

    group = "ertbr" + uuid.uuid4().hex[:8]
    subprocess.run(["groupadd", group], check=True, timeout=PATIENCE)
    gid = grp.getgrnam(group).gr_gid
    try:
        member = ["setpriv", "--groups=%d" % gid]  # the group as a supplementary group
        a, b = hosts("hostA"), hosts("hostB")
        a.bridge(cluster.client, prefix, "--group", TAG)
        b.start(*member, TOOL, "bridge", "--etcd", ",".join(cluster.client), "--prefix", prefix, "--host",
                "hostB", "--group", TAG, "--trustee", "", "--trustee", group,
                stdout=open(b.log_path, "a"), stderr=subprocess.STDOUT)
        publisher = a.publish(b"10.0.0.1", b"80", TAG)
        listed(b, [(b"10.0.0.1", b"80")])

        def in_group():
            text = b.run(*member, TOOL, "list", "--group", TAG, "--trustee", group, "--json")
            return json.loads(text) == [{"first": "10.0.0.1", "second": "80"}]

        wait_until(in_group, what="the import under the trustee")
        withdraw(publisher)
        listed(b, [])
        assert b.run(*member, TOOL, "list", "--group", TAG, "--trustee", group, "--json").strip() == "[]"
    finally:
        # The group's folder was made on the hosts' own /dev/shm, gone with them.
        subprocess.run(["groupdel", group], timeout=PATIENCE)
