"""Shared fixtures of the Python package's tests: a group tag of each test's own.

Every test leaves nothing published under its tag: the fixture lists the tag
once the test is over (which also clears away the records of publishers that
the test killed) and fails the test if anything is still listed.
"""

import itertools
import os

import pytest

import endpointregistry as er

_serial = itertools.count()


@pytest.fixture
def tag():
    name = "pytest-%d-%d" % (os.getpid(), next(_serial))
    yield name
    assert er.filter(name) == [], "the test left endpoints published"
