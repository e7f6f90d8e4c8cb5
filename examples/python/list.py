#!/usr/bin/env python3
"""Lists the live endpoints of a group tag (all tags without one), as str and as bytes.

    python3 list.py [GROUP]
"""

import sys

import endpointregistry as er

group = sys.argv[1] if len(sys.argv) > 1 else ""
for first, second in er.filter(group):
    print(first, second)
# The exact bytes, whatever they are (str above decodes them with surrogateescape).
for first, second in er.filter(group, as_bytes=True):
    print(repr(first), repr(second))
