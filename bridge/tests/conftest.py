"""Fixtures of the bridge's tests (testbed.py): a three-member etcd cluster,
hosts, and a key prefix of each test's own.

Needs root (namespaces) and etcd (Debian's etcd-server); skips otherwise.
Every process started here is stopped at the end of its test, and every
host's /dev/shm goes with its mount namespace.
"""

import os

import pytest

from testbed import ETCD, Cluster, Host


@pytest.fixture(autouse=True)
def root_and_etcd():
    """Skips a test that cannot run here (before any other fixture is made)."""
    if os.geteuid() != 0:
        pytest.skip("hosts are namespaces, which need root")
    if ETCD is None:
        pytest.skip("etcd is not installed (etcd-server)")


@pytest.fixture
def cluster():
    made = Cluster()
    yield made
    made.close()


@pytest.fixture
def hosts():
    made = []

    def make(name):
        made.append(Host(name))
        return made[-1]

    yield make
    for host in made:
        print("--- bridge log of %s:\n%s" % (host.name, host.log()))  # shown when the test fails
    for host in made:
        try:
            host.close()
        except Exception as error:  # the others are closed all the same
            print("closing %s: %s" % (host.name, error))


_serial = iter(range(1000000))


@pytest.fixture
def prefix():
    return "/er-test-%d-%d/" % (os.getpid(), next(_serial))
