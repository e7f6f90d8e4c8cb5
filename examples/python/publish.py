#!/usr/bin/env python3
"""Publishes an endpoint while a (pretend) server runs, then withdraws it.

    python3 publish.py 10.0.0.2 5432 db
"""

import signal
import sys

import endpointregistry as er


def main() -> int:
    if len(sys.argv) != 4:
        print("usage: publish.py FIRST SECOND GROUP", file=sys.stderr)
        return 2
    first, second, group = sys.argv[1:]
    # SIGTERM (as from kill or systemd) withdraws too: it ends the with block.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    try:
        endpoint = er.publish(first, second, group)
    except er.DuplicateEndpointError as error:
        print("already published: %s" % error, file=sys.stderr)
        return 1
    with endpoint:
        print("live: %s %s (group %s); Ctrl-C withdraws it" % (first, second, group), flush=True)
        try:
            signal.pause()
        except (KeyboardInterrupt, SystemExit):
            pass
    print("withdrawn")
    return 0


if __name__ == "__main__":
    sys.exit(main())
