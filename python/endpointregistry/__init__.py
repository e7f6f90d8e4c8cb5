"""Serverless publication and discovery of endpoints in shared memory.

An endpoint is a pair of data strings published under a group tag. It stays
listed exactly as long as its Endpoint object lives (or until the process
dies); any process of the same user finds it with list() or filter(), and
processes of other users find it once a group they share is a trustee.

    import endpointregistry as er
    with er.publish("10.0.0.2", "5432", "db") as endpoint:
        print(er.filter("db"))          # [('10.0.0.2', '5432')]

Data: str or bytes in; str out, decoded as UTF-8 with "surrogateescape" so
that every byte string survives the round trip. For the bytes, pass
as_bytes=True, or call s.encode("utf-8", "surrogateescape").

Errors: DuplicateEndpointError (a RuntimeError) for a synonym that is already
published, ValueError for bad arguments, RuntimeError for system failures,
each with the library's text.

Every call that may wait releases the GIL.
"""

from __future__ import annotations

import asyncio
import datetime
from typing import AsyncIterator, Iterator, List, NamedTuple, Optional, Union

from ._core import (
    DuplicateEndpointError,
    Endpoint,
    collect_garbage,
    collect_garbage_from_all_trustees,
    filter,
    list,
    list_from_all_trustees,
    filter_from_all_trustees,
    publish,
)
from ._core import Watcher as _CoreWatcher

__all__ = [
    "Change",
    "DuplicateEndpointError",
    "Endpoint",
    "RecordChange",
    "Watcher",
    "collect_garbage",
    "collect_garbage_from_all_trustees",
    "filter",
    "filter_from_all_trustees",
    "list",
    "list_from_all_trustees",
    "publish",
    "watch",
]

Data = Union[str, bytes]


class Change(NamedTuple):
    """A pair that appeared or disappeared: kind is "appeared" or "disappeared"."""

    kind: str
    first: Data
    second: Data

    @property
    def data(self) -> tuple:
        return (self.first, self.second)


class RecordChange(NamedTuple):
    """A record that appeared or disappeared: one publication under one trustee and tag.

    trustee is "" for the user's own scope; group_tag_hash is the tag's hash as
    the record's name holds it (tags are not stored); publisher_pid is the
    publisher's process id in its own pid namespace; appeared_at is when this
    watcher first listed the record (an aware datetime in UTC).
    """

    kind: str
    first: Data
    second: Data
    trustee: str
    record_name: str
    group_tag_hash: str
    publisher_pid: int
    appeared_at: datetime.datetime

    @property
    def data(self) -> tuple:
        return (self.first, self.second)


def _records(found) -> List[RecordChange]:
    return [
        RecordChange(*row[:7], datetime.datetime.fromtimestamp(row[7], datetime.timezone.utc)) for row in found
    ]


class Watcher(_CoreWatcher):
    """Tells when endpoints appear, are withdrawn or die, without polling.

    Watcher(group="", trustees=None) follows filter(group, trustees). Use
    fileno() with selectors or an event loop, or iterate: `for change in
    watcher` blocks for each next change; `async for change in watcher` waits
    in the running asyncio loop. A context manager: `with` closes it.
    """

    @classmethod
    def for_all_trustees(cls, group: Data = "") -> "Watcher":
        """A watcher of the user's own scope and of every group it belongs to now."""
        return cls(group, all_trustees=True)

    def changes(self, *, as_bytes: bool = False) -> List[Change]:
        return [Change(*row) for row in super().changes(as_bytes=as_bytes)]

    def wait(self, timeout: Optional[float] = None, *, as_bytes: bool = False) -> List[Change]:
        return [Change(*row) for row in super().wait(timeout, as_bytes=as_bytes)]

    def record_changes(self, *, as_bytes: bool = False) -> List[RecordChange]:
        return _records(super().record_changes(as_bytes=as_bytes))

    def wait_records(self, timeout: Optional[float] = None, *, as_bytes: bool = False) -> List[RecordChange]:
        return _records(super().wait_records(timeout, as_bytes=as_bytes))

    async def wait_async(self, *, as_bytes: bool = False) -> List[Change]:
        """The next changes, waited for in the running asyncio loop (add_reader on fileno())."""
        loop = asyncio.get_running_loop()
        while True:
            found = self.changes(as_bytes=as_bytes)
            if found:
                return found
            ready = loop.create_future()
            descriptor = self.fileno()
            loop.add_reader(descriptor, lambda: ready.done() or ready.set_result(None))
            try:
                await ready
            finally:
                loop.remove_reader(descriptor)

    def __iter__(self) -> Iterator[Change]:
        while True:
            yield from self.wait()

    async def __aiter__(self) -> AsyncIterator[Change]:
        while True:
            for change in await self.wait_async():
                yield change

    def __enter__(self) -> "Watcher":
        return self

    def __exit__(self, *exc) -> bool:
        self.close()
        return False

    def __repr__(self) -> str:
        return "<endpointregistry.Watcher %s>" % ("closed" if self.closed else "fd=%d" % self.fileno())


async def watch(group: Data = "", trustees=None, *, as_bytes: bool = False) -> AsyncIterator[Change]:
    """Yields the changes of filter(group, trustees) in the running asyncio loop, the live endpoints first.

        async for change in endpointregistry.watch("db"):
            print(change.kind, change.first, change.second)
    """
    with Watcher(group, trustees) as watcher:
        while True:
            for change in await watcher.wait_async(as_bytes=as_bytes):
                yield change
