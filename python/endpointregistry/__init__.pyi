# Type stubs of the endpointregistry package. The contracts are those of the
# C++ header endpointregistry/endpoint.hpp and watcher.hpp; see the docstrings.
import datetime
from typing import AsyncIterator, Dict, Iterable, Iterator, List, NamedTuple, Optional, Set, Tuple, Union

Data = Union[str, bytes]
Pair = Tuple[Union[str, bytes], Union[str, bytes]]

class DuplicateEndpointError(RuntimeError):
    """A synonym (same group tag, same two strings joined together) is live or being published."""

class Endpoint:
    """A published endpoint; withdrawn by reset(), at the end of a `with` block, or when the process dies."""

    def __init__(self) -> None: ...
    def __bool__(self) -> bool: ...
    def reset(self) -> None:
        """Withdraws the endpoint under every trustee and returns once it is no longer listed. Never raises."""
    def __enter__(self) -> Endpoint: ...
    def __exit__(self, *exc: object) -> bool: ...
    @property
    def trustees(self) -> Set[str]:
        """The groups under which the endpoint is also published. ValueError on an empty endpoint."""
    @trustees.setter
    def trustees(self, trustees: Iterable[str]) -> None: ...
    def add_trustees(self, trustees: Iterable[str]) -> None:
        """ValueError "Trustees can only be groups of the current user"; DuplicateEndpointError."""
    def remove_trustees(self, trustees: Iterable[str]) -> None: ...
    def set_trustees(self, trustees: Iterable[str]) -> None: ...
    def clear_trustees(self) -> None: ...

def publish(first: Data, second: Data, group: Data) -> Endpoint:
    """Publishes (first, second) under `group`; returns once it is listed.

    ValueError "Endpoint data strings cannot be both empty" / "Endpoint group tag cannot be both empty";
    DuplicateEndpointError; RuntimeError "System error: ..."."""

def list(trustees: Optional[Iterable[str]] = None, *, as_bytes: bool = False) -> List[Pair]:
    """The live endpoints of every tag, sorted, each pair once. trustees: None is the user's own scope ("")."""

def filter(group: Data, trustees: Optional[Iterable[str]] = None, *, as_bytes: bool = False) -> List[Pair]:
    """list() for one group tag ("" matches every tag)."""

def list_from_all_trustees(*, as_bytes: bool = False) -> List[Pair]: ...
def filter_from_all_trustees(group: Data, *, as_bytes: bool = False) -> List[Pair]: ...
def collect_garbage(trustees: Optional[Iterable[str]] = None) -> Dict[str, int]:
    """Counts: stale_records, unnamed_segments, dangling_names, leftover_containers,
    rebuilt_directories, restored_names."""

def collect_garbage_from_all_trustees() -> Dict[str, int]: ...

class Change(NamedTuple):
    kind: str  # "appeared" or "disappeared"
    first: Data
    second: Data
    @property
    def data(self) -> Pair: ...

class RecordChange(NamedTuple):
    kind: str
    first: Data
    second: Data
    trustee: str
    record_name: str
    group_tag_hash: str
    publisher_pid: int
    appeared_at: datetime.datetime
    @property
    def data(self) -> Pair: ...

class Watcher:
    """Tells when endpoints of filter(group, trustees) appear, are withdrawn or die, without polling."""

    def __init__(self, group: Data = "", trustees: Optional[Iterable[str]] = None, *, all_trustees: bool = False) -> None: ...
    @classmethod
    def for_all_trustees(cls, group: Data = "") -> Watcher: ...
    def fileno(self) -> int:
        """Readable when something may have changed. ValueError once closed."""
    def changes(self, *, as_bytes: bool = False) -> List[Change]:
        """What changed since the previous call (the first: every live pair as "appeared"). Does not wait."""
    def wait(self, timeout: Optional[float] = None, *, as_bytes: bool = False) -> List[Change]:
        """changes(), waiting up to `timeout` seconds (None: until some come)."""
    def record_changes(self, *, as_bytes: bool = False) -> List[RecordChange]: ...
    def wait_records(self, timeout: Optional[float] = None, *, as_bytes: bool = False) -> List[RecordChange]: ...
    async def wait_async(self, *, as_bytes: bool = False) -> List[Change]:
        """The next changes, waited for in the running asyncio loop."""
    def __iter__(self) -> Iterator[Change]: ...
    def __aiter__(self) -> AsyncIterator[Change]: ...
    def close(self) -> None: ...
    @property
    def closed(self) -> bool: ...
    def __enter__(self) -> Watcher: ...
    def __exit__(self, *exc: object) -> bool: ...

def watch(group: Data = "", trustees: Optional[Iterable[str]] = None, *, as_bytes: bool = False) -> AsyncIterator[Change]:
    """The changes of filter(group, trustees) in the running asyncio loop, the live endpoints first."""
