"""Publishers in other processes: multiprocessing with fork and with spawn,
and a publisher killed with SIGKILL, cleared away by the next listing."""

import multiprocessing
import os
import signal

import pytest

import endpointregistry as er

from publishers import PATIENCE, start_holder


def listing(tag):
    import endpointregistry

    return endpointregistry.filter(tag)


@pytest.mark.parametrize("method", ["fork", "spawn"])
def test_a_child_publishes_and_the_parent_lists(tag, method):
    child, done = start_holder(tag, method, method)
    try:
        assert er.filter(tag) == [(method, "1")]
    finally:
        done.set()
        child.join(PATIENCE)
    assert child.exitcode == 0
    assert er.filter(tag) == []


def test_the_parent_publishes_and_a_forked_child_lists(tag):
    context = multiprocessing.get_context("fork")
    with er.publish("parent", "1", tag):
        with context.Pool(1) as pool:
            assert pool.apply(listing, (tag,)) == [("parent", "1")]
        assert er.filter(tag) == [("parent", "1")]


def record_files():
    """The record segments in the user's own scope folder (directories left out)."""
    folder = "/dev/shm/u%d" % os.getuid()
    return {name for name in os.listdir(folder) if name.startswith("qzER")} if os.path.isdir(folder) else set()


def test_a_killed_publisher_is_cleared_by_the_next_listing(tag):
    before = record_files()
    child, _ = start_holder(tag, "doomed")
    assert er.filter(tag) == [("doomed", "1")]
    os.kill(child.pid, signal.SIGKILL)
    child.join(PATIENCE)
    assert child.exitcode == -signal.SIGKILL
    assert er.filter(tag) == []
    # Cleared, not merely skipped: its record segment is gone.
    assert record_files() - before == set()
