#!/usr/bin/env python3
"""A Watcher in a selectors loop beside other descriptors (here: standard input).

    python3 watch_selectors.py [GROUP]

Prints each change; a line on standard input prints the current listing;
end of input ends it.
"""

import selectors
import sys

import endpointregistry as er

group = sys.argv[1] if len(sys.argv) > 1 else ""
with er.Watcher(group) as watcher, selectors.DefaultSelector() as selector:
    selector.register(watcher, selectors.EVENT_READ, "watcher")
    selector.register(sys.stdin, selectors.EVENT_READ, "input")
    for change in watcher.changes():
        print("+", change.first, change.second, flush=True)
    while True:
        for key, _ in selector.select():
            if key.data == "watcher":
                for change in watcher.changes():
                    print("+" if change.kind == "appeared" else "-", change.first, change.second, flush=True)
            elif sys.stdin.readline():
                print(er.filter(group), flush=True)
            else:
                sys.exit(0)
