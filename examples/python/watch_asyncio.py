#!/usr/bin/env python3
"""Prints endpoints as they appear, are withdrawn or die, in an asyncio loop.

    python3 watch_asyncio.py [GROUP]

The live endpoints come first; then each change as it happens (a killed
publisher within milliseconds). Ctrl-C ends it.
"""

import asyncio
import sys

import endpointregistry as er


async def main(group: str) -> None:
    async for change in er.watch(group):
        sign = "+" if change.kind == "appeared" else "-"
        print(sign, change.first, change.second, flush=True)


if __name__ == "__main__":
    try:
        asyncio.run(main(sys.argv[1] if len(sys.argv) > 1 else ""))
    except KeyboardInterrupt:
        pass
