"""Publication, listing and withdrawal in one process; the errors and their texts."""

import threading

import pytest

import endpointregistry as er


def test_published_endpoint_is_listed_until_reset(tag):
    endpoint = er.publish("10.0.0.2", "5432", tag)
    assert bool(endpoint)
    assert repr(endpoint) == "<endpointregistry.Endpoint published>"
    assert er.filter(tag) == [("10.0.0.2", "5432")]
    assert ("10.0.0.2", "5432") in er.list()
    endpoint.reset()
    assert not endpoint
    assert er.filter(tag) == []
    endpoint.reset()  # no effect on an empty endpoint


def test_with_block_withdraws(tag):
    with er.publish("a", "b", tag) as endpoint:
        assert isinstance(endpoint, er.Endpoint)
        assert er.filter(tag) == [("a", "b")]
    assert not endpoint
    assert er.filter(tag) == []


def test_an_empty_endpoint_is_false():
    assert not er.Endpoint()
    assert repr(er.Endpoint()) == "<endpointregistry.Endpoint empty>"


def test_listing_is_sorted_and_each_pair_once(tag):
    held = [er.publish(first, second, tag) for first, second in [("b", "1"), ("a", "2"), ("a", "10")]]
    other = er.publish("a", "2", tag + "-other")
    assert er.filter(tag) == [("a", "10"), ("a", "2"), ("b", "1")]
    both = [pair for pair in er.filter("") if pair in {("a", "2"), ("a", "10"), ("b", "1")}]
    assert both == [("a", "10"), ("a", "2"), ("b", "1")]
    assert er.filter(tag, {""}) == er.filter(tag, None) == er.filter(tag)
    assert er.filter(tag, set()) == []
    for endpoint in held + [other]:
        endpoint.reset()
    assert er.filter(tag + "-other") == []


def test_duplicate_is_refused_with_the_library_text(tag):
    with er.publish("10.0.0.2", "5432", tag):
        with pytest.raises(er.DuplicateEndpointError) as raised:
            er.publish("10.0.0.", "25432", tag)  # the same two strings joined together
        assert str(raised.value) == "Endpoint already exists in registry"
        assert isinstance(raised.value, RuntimeError)
        # Another tag is another endpoint.
        with er.publish("10.0.0.2", "5432", tag + "-b"):
            pass


def test_invalid_arguments_are_value_errors(tag):
    with pytest.raises(ValueError) as raised:
        er.publish("", "", tag)
    assert str(raised.value) == "Endpoint data strings cannot be both empty"
    with pytest.raises(ValueError) as raised:
        er.publish("a", "b", "")
    assert str(raised.value) == "Endpoint group tag cannot be both empty"
    with pytest.raises(ValueError) as raised:
        er.Endpoint().add_trustees({"root"})
    assert str(raised.value) != ""


def test_wrong_types_are_type_errors(tag):
    with pytest.raises(TypeError) as raised:
        er.publish(1, "b", tag)
    assert str(raised.value) == "first must be str or bytes, not int"
    with pytest.raises(TypeError) as raised:
        er.filter(tag, "root")
    assert str(raised.value) == "trustees must be an iterable of group names, not a single string"
    with pytest.raises(TypeError) as raised:
        er.list([b"root"])
    assert str(raised.value) == "a trustee must be a group name (str), not bytes"


def test_one_thread_publishes_while_another_lists(tag):
    stop = threading.Event()
    seen = set()
    failures = []

    def lister():
        try:
            while not stop.is_set():
                seen.update(er.filter(tag))
        except Exception as error:  # reported below
            failures.append(error)

    thread = threading.Thread(target=lister)
    thread.start()
    try:
        for round_ in range(50):
            with er.publish("thread", str(round_), tag):
                pass
    finally:
        stop.set()
        thread.join(timeout=30)
    assert not thread.is_alive()
    assert failures == []
    assert seen <= {("thread", str(n)) for n in range(50)}


def test_collect_garbage_reports_counts(tag):
    report = er.collect_garbage()
    assert set(report) == {
        "stale_records",
        "unnamed_segments",
        "dangling_names",
        "leftover_containers",
        "rebuilt_directories",
        "restored_names",
    }
    assert all(isinstance(count, int) for count in report.values())
    with er.publish("kept", "1", tag):
        er.collect_garbage({""})
        assert er.filter(tag) == [("kept", "1")]
