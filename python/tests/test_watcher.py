"""The Watcher from Python: its descriptor in selectors and asyncio, blocking
waits, iteration, record changes, a killed publisher, closing."""

import asyncio
import datetime
import os
import selectors
import signal

import pytest

import endpointregistry as er

from publishers import PATIENCE, start_holder


def test_first_call_lists_every_live_endpoint_then_nothing(tag):
    with er.publish("before", "1", tag), er.Watcher(tag) as watcher:
        assert watcher.changes() == [er.Change("appeared", "before", "1")]
        assert watcher.changes() == []
        assert watcher.wait(0.05) == []


def test_selectors_see_publication_and_withdrawal(tag):
    with er.Watcher(tag) as watcher, selectors.DefaultSelector() as selector:
        assert watcher.changes() == []
        selector.register(watcher, selectors.EVENT_READ)
        endpoint = er.publish("10.0.0.2", "80", tag)
        assert selector.select(PATIENCE)
        changes = watcher.wait(PATIENCE)
        assert changes == [er.Change("appeared", "10.0.0.2", "80")]
        assert changes[0].data == ("10.0.0.2", "80")
        endpoint.reset()
        assert selector.select(PATIENCE)
        assert watcher.wait(PATIENCE) == [er.Change("disappeared", "10.0.0.2", "80")]


def test_a_killed_publisher_is_an_event(tag):
    child, _ = start_holder(tag, "doomed")
    with er.Watcher(tag) as watcher:
        assert watcher.changes() == [er.Change("appeared", "doomed", "1")]
        os.kill(child.pid, signal.SIGKILL)
        child.join(PATIENCE)
        assert watcher.wait(PATIENCE) == [er.Change("disappeared", "doomed", "1")]
    assert er.filter(tag) == []


def test_iteration_yields_each_change(tag):
    with er.Watcher(tag) as watcher:
        with er.publish("a", "1", tag), er.publish("b", "1", tag):
            seen = []
            for change in watcher:
                seen.append(change)
                if len(seen) == 2:
                    break
        assert seen == [er.Change("appeared", "a", "1"), er.Change("appeared", "b", "1")]


def test_record_changes_tell_who_published(tag):
    with er.Watcher("") as watcher:
        watcher.record_changes()
        with er.publish("same", "1", tag), er.publish("same", "1", tag + "-b"):
            records = [r for r in watcher.wait_records(PATIENCE) if r.first == "same"]
            while len(records) < 2:
                more = watcher.wait_records(PATIENCE)
                assert more, "a record never appeared"
                records += [r for r in more if r.first == "same"]
        assert [r.kind for r in records] == ["appeared", "appeared"]
        assert {r.publisher_pid for r in records} == {os.getpid()}
        assert {r.trustee for r in records} == {""}
        assert len({r.group_tag_hash for r in records}) == 2
        assert all(r.record_name.startswith("qzER" + r.group_tag_hash) for r in records)
        now = datetime.datetime.now(datetime.timezone.utc)
        assert all(abs((now - r.appeared_at).total_seconds()) < PATIENCE for r in records)


def test_data_in_events_may_be_bytes(tag):
    with er.Watcher(tag) as watcher, er.publish(b"\xff\x00", b"x", tag):
        assert watcher.changes(as_bytes=True) == [er.Change("appeared", b"\xff\x00", b"x")]


def test_asyncio_waits_in_the_loop(tag):
    async def scenario():
        watcher = er.Watcher(tag)
        assert watcher.changes() == []
        loop = asyncio.get_running_loop()
        loop.call_later(0.05, lambda: holder.append(er.publish("async", "1", tag)))
        changes = await asyncio.wait_for(watcher.wait_async(), PATIENCE)
        assert changes == [er.Change("appeared", "async", "1")]
        holder.pop().reset()
        async for change in watcher:
            assert change == er.Change("disappeared", "async", "1")
            break
        watcher.close()

    holder = []
    asyncio.run(asyncio.wait_for(scenario(), PATIENCE))


def test_the_watch_helper_yields_the_live_endpoints_first(tag):
    async def scenario():
        seen = []
        async for change in er.watch(tag):
            seen.append(change)
            if len(seen) == 1:
                endpoint.reset()
            else:
                break
        return seen

    endpoint = er.publish("first", "1", tag)
    seen = asyncio.run(asyncio.wait_for(scenario(), PATIENCE))
    assert seen == [er.Change("appeared", "first", "1"), er.Change("disappeared", "first", "1")]


def test_a_closed_watcher_refuses_calls(tag):
    watcher = er.Watcher(tag)
    assert not watcher.closed
    watcher.close()
    watcher.close()
    assert watcher.closed
    assert repr(watcher) == "<endpointregistry.Watcher closed>"
    with pytest.raises(ValueError) as raised:
        watcher.fileno()
    assert str(raised.value) == "I/O operation on a closed Watcher"
    with pytest.raises(ValueError):
        watcher.changes()


def test_all_trustees_and_trustees_exclude_each_other(tag):
    with er.Watcher.for_all_trustees(tag) as watcher:
        assert watcher.changes() == []
    with pytest.raises(ValueError) as raised:
        er.Watcher(tag, {""}, all_trustees=True)
    assert str(raised.value) == "trustees and all_trustees=True exclude each other"
    with pytest.raises(ValueError) as raised:
        er.Watcher(tag).wait(-1)
    assert str(raised.value) == "timeout must not be negative"


def test_a_waiting_thread_lets_others_run(tag):
    import threading
    import time

    with er.Watcher(tag) as watcher:
        got = []
        waiter = threading.Thread(target=lambda: got.extend(watcher.wait(PATIENCE)))
        waiter.start()
        time.sleep(0.05)  # the waiter is in wait(): this thread must still run
        with er.publish("meanwhile", "1", tag):
            waiter.join(PATIENCE)
        assert got == [er.Change("appeared", "meanwhile", "1")]


class Interrupted(Exception):
    pass


def test_a_signal_ends_a_wait(tag):
    import time

    def interrupt(signum, frame):
        raise Interrupted()

    previous = signal.signal(signal.SIGALRM, interrupt)
    try:
        with er.Watcher(tag) as watcher:
            started = time.monotonic()
            signal.setitimer(signal.ITIMER_REAL, 0.1)
            with pytest.raises(Interrupted):
                watcher.wait()
            assert time.monotonic() - started < PATIENCE
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, previous)


def test_closing_from_another_thread_ends_a_wait(tag):
    import threading
    import time

    watcher = er.Watcher(tag)
    got = []

    def wait():
        try:
            got.append(watcher.wait(PATIENCE))
        except ValueError as error:  # closed before the wait began
            got.append(str(error))

    waiter = threading.Thread(target=wait)
    waiter.start()
    time.sleep(0.05)  # most likely in wait() by now; either order must end it
    started = time.monotonic()
    watcher.close()
    waiter.join(PATIENCE)
    assert not waiter.is_alive()
    assert got in ([[]], ["I/O operation on a closed Watcher"])
    assert time.monotonic() - started < 5
