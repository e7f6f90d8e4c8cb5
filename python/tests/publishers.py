"""Publishers in other processes, for the tests: a child that publishes one
endpoint and holds it until told (multiprocessing, fork or spawn)."""

import multiprocessing

PATIENCE = 30


def hold(tag, first, ready, done):
    """Publishes (first, "1") under tag, says so, and holds it until told."""
    import endpointregistry

    with endpointregistry.publish(first, "1", tag):
        ready.set()
        done.wait(PATIENCE)


def start_holder(tag, first, method="spawn"):
    """A child holding (first, "1") under tag, returned once it is live, with
    the event that lets it withdraw and end."""
    context = multiprocessing.get_context(method)
    ready, done = context.Event(), context.Event()
    child = context.Process(target=hold, args=(tag, first, ready, done))
    child.start()
    assert ready.wait(PATIENCE)
    return child, done
