"""Trustees with a real, temporary group (needs root; skipped otherwise)."""

import grp
import multiprocessing
import os
import shutil
import subprocess
import time
import uuid

import pytest

import endpointregistry as er

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="making a group needs root")


def account_command(*words):
    """Runs groupadd/groupdel, again while another one holds the account files."""
    for _ in range(100):
        if subprocess.run(words, capture_output=True).returncode == 0:
            return
        time.sleep(0.05)
    raise RuntimeError("%s failed" % " ".join(words))


@pytest.fixture
def group():
    name = "ertpy" + uuid.uuid4().hex[:8]
    account_command("groupadd", name)
    gid = grp.getgrnam(name).gr_gid
    yield name, gid
    account_command("groupdel", name)
    shutil.rmtree("/dev/shm/g%d" % gid, ignore_errors=True)


def in_group(gid, tag, name, answers):
    """In a child whose only supplementary group is `gid`: trustees at work."""
    import endpointregistry

    os.setgroups([gid])
    found = {}
    with endpointregistry.publish("shared", "1", tag) as endpoint:
        endpoint.add_trustees({name})
        found["trustees"] = endpoint.trustees
        found["group"] = endpointregistry.filter(tag, {name})
        found["all"] = endpointregistry.filter_from_all_trustees(tag)
        try:
            endpoint.add_trustees({"root"})
        except ValueError as error:
            found["error"] = str(error)
        endpoint.clear_trustees()
        found["cleared"] = (endpoint.trustees, endpointregistry.filter(tag, {name}), endpointregistry.filter(tag))
        endpoint.trustees = [name]
        found["assigned"] = endpointregistry.filter(tag, {name})
    found["after"] = endpointregistry.filter(tag, {name, ""})
    answers.put(found)


def test_a_trustee_group_lists_the_endpoint(tag, group):
    name, gid = group
    context = multiprocessing.get_context("fork")
    answers = context.Queue()
    child = context.Process(target=in_group, args=(gid, tag, name, answers))
    child.start()
    found = answers.get(timeout=60)
    child.join(60)
    assert child.exitcode == 0
    assert found["trustees"] == {name}
    assert found["group"] == [("shared", "1")]
    assert found["all"] == [("shared", "1")]
    assert found["error"] == "Trustees can only be groups of the current user"
    assert found["cleared"] == (set(), [], [("shared", "1")])
    assert found["assigned"] == [("shared", "1")]
    assert found["after"] == []
