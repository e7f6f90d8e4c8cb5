#!/usr/bin/env python3
"""Turns the JSON output of the benchmark programs into one table and one
JSON file.

Each figure is shown with its median and 99th percentile (per iteration),
its ratio to its floor (what the same work costs at the least, measured in
the same run) and its ratio to its counterpart on the system bus. The
targets are checked and listed under the table.

With --markdown PATH it also writes the same figures as a Markdown page:
the method, the machine, the tables and the targets (scripts/bench writes
docs/performance.md this way).

Usage: report.py --out results.json [--markdown PAGE.md] [--machine KEY=VALUE ...] [--smoke] FILE.json ...
Exit status: 1 when a benchmark failed or a figure is missing, else 0.
"""
import argparse
import json
import os
import re
import sys

READ = "floor/open+map+read+unmap+close"
CREATE = "floor/create+remove"
HANDOFF = "floor/promise+future hand-off"
THREAD = "floor/thread start+join"
COLD = "floor/thread+create+lock+remove"
BARE = "startup/bare process"
KILL = "floor/SIGKILL to reaped"
BUS_CYCLE = "bus/RequestName+ReleaseName"
SIZES = [10, 100, 1000, 10000]
PYTHON_SIZES = [10, 1000]
ETCD_FLOOR = "bridge/floor/etcd put to watch event"
LOCAL_NOTIFICATION = "bridge/floor/local notification"


def load(paths):
    """Figures by name, failures, and figures skipped for want of root."""
    figures, errors, skipped = {}, [], set()
    for path in paths:
        with open(path) as f:
            data = json.load(f)
        for entry in data.get("benchmarks", []):
            name = re.sub(r"/iterations:\d+.*$", "", entry["run_name"])
            if entry.get("error_occurred"):
                message = entry.get("error_message", "failed")
                if message.startswith("needs "):
                    skipped.add(name)
                else:
                    errors.append(f"{name}: {message}")
                continue
            figures[name] = entry
    return figures, errors, skipped


def median(figures, name):
    entry = figures.get(name)
    return entry["median_ns"] if entry else None


def scaled(figures, name, factor):
    value = median(figures, name)
    return None if value is None else value * factor


def listing_floor(figures, entry):
    """Records listed times the read floor, plus the directory read."""
    read = median(figures, READ)
    if read is None or "dir_median_ns" not in entry:
        return None
    return entry["items"] * read + entry["dir_median_ns"]


def paired_start(figures, entry):
    """The bare process start timed in the same iterations as the figure."""
    return entry.get("start_median_ns")


def rows():
    """(label, figure name, floor function, bus figure name)."""
    const = lambda name, factor=1: (lambda figures, entry: scaled(figures, name, factor))
    table = [
        ("publish+withdraw, beside another endpoint", "publish+withdraw/beside", const(CREATE), BUS_CYCLE),
        ("publish+withdraw, alone (thread start+join)", "publish+withdraw/alone", const(COLD), BUS_CYCLE),
        ("publish+withdraw, widening the directory", "publish+withdraw/widening", const(CREATE), BUS_CYCLE),
        ("publish+withdraw with 2 trustees", "publish+withdraw/2 trustees", const(CREATE, 3), BUS_CYCLE),
    ]
    dir_floor = lambda figures, entry: (median(figures, CREATE) or 0) + entry.get("dir_median_ns", 0)
    for n in SIZES:
        table.append((f"publish+withdraw beside N={n} own", f"publish+withdraw/own:{n}", dir_floor, BUS_CYCLE))
    for who, what in (("own", "this process"), ("four", "4 other processes")):
        for n in SIZES:
            bus = f"bus/ListNames:{n}"
            table.append((f"list N={n}, published by {what}", f"list/{who}:{n}", listing_floor, bus))
            if who == "four":
                table.append((f"list N={n}, published by {what}, first listing", f"list/{who} first:{n}",
                               listing_floor, bus))
            table.append((f"filter 1 tag of 10, N={n}, {what}", f"filter/{who}:{n}", listing_floor, bus))
    table += [
        ("listFromAllTrustees, 0 groups (100 records)", "listFromAllTrustees/0 groups", listing_floor,
         "bus/ListNames:100"),
        ("listFromAllTrustees, 2 groups (300 records)", "listFromAllTrustees/2 groups", listing_floor,
         "bus/ListNames:100"),
        ("new process: a bare C++ program", BARE, None, None),
        ("new process: links the library, never calls it", "startup/linked, never called", paired_start, None),
        ("new process publishes one endpoint", "startup/publishes one endpoint", paired_start,
         "startup/bus client owns a name"),
        ("SIGKILL of a publisher to gone from listing", "SIGKILL to gone from listing", const(KILL),
         "bus/SIGKILL to name gone"),
        ("watcher: publish to its event", "watch/publish to event", None, "bus/RequestName to NameOwnerChanged"),
        ("watcher: withdraw to its event", "watch/withdraw to event", None, "bus/ReleaseName to NameOwnerChanged"),
        ("watcher: SIGKILL of a publisher to its event", "watch/SIGKILL to event", const(KILL),
         "bus/SIGKILL to NameOwnerChanged"),
        ("watcher: CPU time while idle for 10 s", "watch/idle CPU", None, None),
    ]
    table += [(f"watcher: one re-read after an event, N={n}", f"watch/re-read:{n}", None, None)
              for n in SIZES if n != 100]
    # The etcd bridge: its floor is twice etcd's put-to-watch time (the
    # export's put, the import's watch) plus one local notification.
    bridge_floor = lambda figures, entry: (
        None if median(figures, ETCD_FLOOR) is None or median(figures, LOCAL_NOTIFICATION) is None
        else 2 * median(figures, ETCD_FLOOR) + median(figures, LOCAL_NOTIFICATION))
    table += [
        ("bridge: publish on A to listed on B", "bridge/publish on A to listed on B", bridge_floor, None),
        ("bridge: SIGKILL on A to gone on B", "bridge/SIGKILL on A to gone on B", bridge_floor, None),
        ("bridge floor: etcd put to watch event", ETCD_FLOOR, None, None),
        ("bridge floor: local publish to a watcher's event", LOCAL_NOTIFICATION, None, None),
    ]
    # The Python package against the same calls from C++ (the "floor" column).
    table.append(("Python: publish+withdraw, beside another endpoint", "python/publish+withdraw/beside",
                  const("publish+withdraw/beside"), BUS_CYCLE))
    table += [(f"Python: list N={n}, published by this process", f"python/list/own:{n}",
               const(f"list/own:{n}"), f"bus/ListNames:{n}") for n in PYTHON_SIZES]
    table += [
        ("record segments of 3 publishers removed to listed again", "healing/record segments removed", None, None),
        ("scope folder removed (rm -rf) to listed again", "healing/scope folder removed", None, None),
        ("hand-off to the work thread, back to back", "hand-off/held, back to back", const(HANDOFF), None),
        ("hand-off to the work thread, worker asleep", "hand-off/held, worker asleep", const(HANDOFF), None),
        ("hand-off with no guard held (start+join)", "hand-off/unheld, start+join",
         lambda figures, entry: (median(figures, THREAD) or 0) + (median(figures, HANDOFF) or 0), None),
        ("bus: RequestName+ReleaseName", BUS_CYCLE, None, None),
    ]
    table += [(f"bus: ListNames, {n} names owned", f"bus/ListNames:{n}", None, None) for n in SIZES]
    table += [
        ("bus: connection set-up", "bus/connection set-up", None, None),
        ("bus: new process owns a name", "startup/bus client owns a name", paired_start, None),
        ("bus: SIGKILL of an owner to name gone", "bus/SIGKILL to name gone", const(KILL), None),
        ("bus: RequestName to NameOwnerChanged", "bus/RequestName to NameOwnerChanged", None, None),
        ("bus: ReleaseName to NameOwnerChanged", "bus/ReleaseName to NameOwnerChanged", None, None),
        ("bus: SIGKILL of an owner to NameOwnerChanged", "bus/SIGKILL to NameOwnerChanged", const(KILL), None),
    ]
    table += [(f"floor: {name[len('floor/'):]}", name, None, None)
              for name in (READ, CREATE, COLD, HANDOFF, THREAD, KILL)]
    return table


def show_time(ns):
    if ns is None:
        return "—"
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e3:
        return f"{ns / 1e3:.1f} µs"
    return f"{ns:.0f} ns"


def show_ratio(value):
    return "—" if value is None else f"{value:.2f}×"


def build(figures, skipped, smoke):
    results, missing = [], []
    for label, name, floor_of, bus_name in rows():
        entry = figures.get(name)
        if entry is None:
            # A smoke run measures the sweeps at N=10 only.
            expected = not (smoke and re.search(r":\d+$", name) and not name.endswith(":10"))
            if expected and name not in skipped:
                missing.append(name)
            continue
        floor = floor_of(figures, entry) if floor_of else None
        bus = median(figures, bus_name) if bus_name else None
        items = entry.get("items", 1)
        results.append({
            "figure": label, "name": name, "median_ns": entry["median_ns"], "p99_ns": entry["p99_ns"],
            "iterations": entry["iterations"], "items": items,
            "per_record_ns": entry["median_ns"] / items if items > 1 else None,
            "floor_ns": floor, "ratio_floor": entry["median_ns"] / floor if floor else None,
            "bus_figure": bus_name, "bus_ns": bus, "ratio_bus": entry["median_ns"] / bus if bus else None,
            "counters": {k: v for k, v in entry.items() if k.endswith("_ns") or k in ("live", "trustees", "listings")},
        })
    return results, missing


def targets(figures):
    checks = []

    def check(text, value, limit):
        if value is not None:
            checks.append({"target": text, "value": round(value, 3), "limit": limit, "met": value <= limit})

    cycle, bus = median(figures, "publish+withdraw/beside"), median(figures, BUS_CYCLE)
    if cycle and bus:
        check("publish+withdraw ≤ 0.5× bus RequestName+ReleaseName", cycle / bus, 0.5)
    read = median(figures, READ)
    for who in ("own", "four", "four first"):
        for n in SIZES:
            entry = figures.get(f"list/{who}:{n}")
            if entry and read:
                # median ≤ 1.15 × (records × floor) + one directory read
                check(f"list N={n} ({who}): (median − directory read) / (records × read floor) ≤ 1.15",
                      (entry["median_ns"] - entry["dir_median_ns"]) / (entry["items"] * read), 1.15)
    for name, text, limit in (("startup/linked, never called", "linked, never called", 1.1),
                              ("startup/publishes one endpoint", "publishing one endpoint", 1.3)):
        entry = figures.get(name)
        if entry and entry.get("start_median_ns"):
            # Whole processes, against the bare ones timed in the same iterations.
            check(f"new process {text} ≤ {limit}× a bare process", entry["median_ns"] / entry["start_median_ns"],
                  limit)
    alone, cold = median(figures, "publish+withdraw/alone"), median(figures, COLD)
    if alone and cold:
        check("publish+withdraw alone ≤ 1.2× its floor (thread, create, lock, unlock, remove)", alone / cold, 1.2)
    if alone and bus:
        check("publish+withdraw alone ≤ 1.0× bus RequestName+ReleaseName", alone / bus, 1.0)
    again, names = median(figures, "list/four:1000"), median(figures, "bus/ListNames:1000")
    if again and names:
        check("list N=1000 again (4 other processes) ≤ 1.0× bus ListNames with 1000 names", again / names, 1.0)
    first = figures.get("publish+withdraw/own:10")
    for n in SIZES[1:]:
        entry = figures.get(f"publish+withdraw/own:{n}")
        if first and entry:
            # The publication may grow from N=10 by what its directory work grows, and 15% more.
            # More rows never make the directory work cheaper: a growth measured below zero is
            # noise between the two runs, and counts as none.
            growth = max(0.0, entry["dir_median_ns"] - first["dir_median_ns"])
            expected = first["median_ns"] + growth
            check(f"publication at N={n} ≤ 1.15× (publication at N=10 + growth of its directory work)",
                  entry["median_ns"] / expected, 1.15)
    for name, bus_name in (("watch/publish to event", "bus/RequestName to NameOwnerChanged"),
                           ("watch/withdraw to event", "bus/ReleaseName to NameOwnerChanged"),
                           ("watch/SIGKILL to event", "bus/SIGKILL to NameOwnerChanged")):
        mine, theirs = median(figures, name), median(figures, bus_name)
        if mine and theirs:
            check(f"{name[len('watch/'):]} ≤ 0.5× the bus's {bus_name[len('bus/'):]}", mine / theirs, 0.5)
    # What a call costs more from Python: a cycle is two calls (publish, and
    # withdraw at the end of the with block); a listing converts N pairs.
    for name, cpp, limit, text in (
            ("python/publish+withdraw/beside", "publish+withdraw/beside", 10,
             "Python publish+withdraw − the same from C++ (µs, two calls)"),
            ("python/list/own:1000", "list/own:1000", 250,
             "Python list N=1000 − the same from C++ (µs, one call and 1,000 tuples)")):
        mine, theirs = median(figures, name), median(figures, cpp)
        if mine and theirs:
            check(text, (mine - theirs) / 1e3, limit)
    etcd, local = median(figures, ETCD_FLOOR), median(figures, LOCAL_NOTIFICATION)
    for name in ("bridge/publish on A to listed on B", "bridge/SIGKILL on A to gone on B"):
        mine = median(figures, name)
        if mine and etcd and local:
            check(f"{name[len('bridge/'):]} ≤ 2× etcd's put-to-watch + one local notification",
                  mine / (2 * etcd + local), 1.0)
    idle = median(figures, "watch/idle CPU")
    if idle is not None:
        check("idle watcher: CPU time over its quiet spell (ms)", idle / 1e6, 1)
    for name in ("healing/record segments removed", "healing/scope folder removed"):
        healed = median(figures, name)
        if healed:
            check(f"{name[len('healing/'):]}: listed again within 50 ms (ms)", healed / 1e6, 50)
    return checks


def figure_table(results):
    lines = ["| Figure | median | p99 | × floor | × bus | per record |", "|---|---:|---:|---:|---:|---:|"]
    for r in results:
        lines.append(f"| {r['figure']} | {show_time(r['median_ns'])} | {show_time(r['p99_ns'])} | "
                     f"{show_ratio(r['ratio_floor'])} | {show_ratio(r['ratio_bus'])} | "
                     f"{show_time(r['per_record_ns'])} |")
    return lines


def curve_table(curve):
    lines = ["| N | publish+withdraw | its directory work | the rest | set-up per endpoint |",
             "|---:|---:|---:|---:|---:|"]
    for r in curve:
        c = r["counters"]
        lines.append(f"| {int(c.get('live', 0))} | {show_time(r['median_ns'])} | "
                     f"{show_time(c.get('dir_median_ns'))} | "
                     f"{show_time(r['median_ns'] - c.get('dir_median_ns', 0))} | "
                     f"{show_time(c.get('setup_per_endpoint_ns'))} |")
    return lines


def held_table(held):
    lines = ["| N | no guard held | guard held |", "|---:|---:|---:|"]
    for r in held:
        lines.append(f"| {int(r['items'])} | {show_time(r['median_ns'])} | "
                     f"{show_time(r['counters']['held_median_ns'])} |")
    return lines


def curve_of(results):
    return [r for r in results if r["name"].startswith("publish+withdraw/own:")]


def held_of(results):
    return [r for r in results if "held_median_ns" in r["counters"]]


CURVE_TITLE = "Publication curve (this process holding N endpoints):"
HELD_TITLE = ("Listing by a process that holds no endpoint, against the same listing with the work "
              "thread kept alive:")


def render(results, checks, machine):
    lines = figure_table(results)
    curve = curve_of(results)
    if curve:
        lines += ["", CURVE_TITLE, ""] + curve_table(curve)
    held = held_of(results)
    if held:
        lines += ["", HELD_TITLE, ""] + held_table(held)
    if checks:
        lines += ["", "Targets:", ""]
        lines += [f"- {'met   ' if c['met'] else 'MISSED'} {c['target']}: {c['value']:.2f}" for c in checks]
    if machine:
        lines += ["", "Machine: " + "; ".join(f"{k} {v}" for k, v in machine.items())]
    return "\n".join(lines)


METHOD = """\
`scripts/bench` builds the benchmarks (Release, in `build/bench`), runs them beside their floors
and a bus peer, prints the tables below, writes `build/bench/results.json` and writes this page.
`scripts/bench --smoke` (tiny sizes, run by CI) only checks that the benchmarks work, and leaves
this page alone.

Each figure is the median and the 99th percentile of its iterations; "per record" divides the
median by the records it handled. "× floor" divides the median by the figure's floor, what the
same work costs at the least, measured in the same run: one open+map+read+unmap+close per
record for listings (after taking off the directory read), one create+remove per record for
publications (plus the directory work when beside N endpoints; for a publication in a process
that holds no other endpoint, a thread started and joined that creates a segment, locks and
unlocks a robust mutex in it and removes it), a promise+future hand-off for
hand-offs to the work thread (plus a thread start+join when no guard keeps the thread), SIGKILL
of a child to its reaping for the death of a publisher, and for a new process a bare process (a
C++ program that links only the standard library) timed in the same iterations, from its spawn
to its reaping (each iteration starts a bare process and the other one in turn, so that the
machine's drift does not enter the ratio).

A listing is timed in a process that lists again and again: it reads the records that it keeps
mapped from its earlier listings. "First listing" forgets them before each one.

"× bus" divides the median by its counterpart on the bus peer: a private
`dbus-daemon --session` that the benchmark starts, with sd-bus as client, where a process
owning a well-known name while its connection lives stands for a published endpoint.
RequestName+ReleaseName faces publish+withdraw, ListNames with N names owned faces a listing of
N records, a new process owning a name faces one publishing an endpoint, and a name gone after
SIGKILL of its owner faces an endpoint gone from the listing.

The two healing figures time how long after three publishers' record segments, or the user's
whole scope folder (`rm -rf`), are removed a listing shows all three endpoints again, with no
call from the publishers.

Medians move from run to run, more so on a loaded or virtual machine; the ratios and the
targets are taken within one run."""


def markdown_table_of_targets(checks):
    lines = ["| Target | this run | limit | result |", "|---|---:|---:|---|"]
    for c in checks:
        lines.append(f"| {c['target']} | {c['value']:.2f} | {c['limit']:g} | {'met' if c['met'] else '**missed**'} |")
    return lines


def render_markdown(results, checks, machine, smoke, errors, missing, skipped):
    lines = ["# Performance", "",
             "<!-- Written by scripts/bench (bench/report.py --markdown); not to be edited by hand. -->", ""]
    if smoke:
        lines += ["This page comes from a smoke run (tiny sizes): its figures say nothing about speed.", ""]
    lines += ["## Method", "", METHOD, ""]
    if machine:
        lines += ["## Machine", "", "; ".join(f"{k} {v}" for k, v in machine.items()), ""]
    lines += ["## Figures", ""] + figure_table(results)
    curve = curve_of(results)
    if curve:
        lines += ["", "Publication beside N endpoints of the same process, against the directory work that "
                  "one publication does at that size (two directory reads, one insert and one erase):", ""]
        lines += curve_table(curve)
    held = held_of(results)
    if held:
        lines += ["", HELD_TITLE, ""] + held_table(held)
    if checks:
        lines += ["", "## Targets", ""] + markdown_table_of_targets(checks)
    gaps = ([f"- failed: {problem}" for problem in errors] + [f"- missing: {name}" for name in missing] +
            [f"- skipped (needs root or etcd): {name}" for name in sorted(skipped)])
    if gaps:
        lines += ["", "## Not measured in this run", ""] + gaps
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--out", required=True)
    parser.add_argument("--markdown", metavar="PATH", help="also write the results as a Markdown page")
    parser.add_argument("--machine", action="append", default=[])
    parser.add_argument("--smoke", action="store_true")
    parser.add_argument("files", nargs="+")
    args = parser.parse_args()
    machine = dict(item.split("=", 1) for item in args.machine)
    figures, errors, skipped = load(args.files)
    results, missing = build(figures, skipped, args.smoke)
    checks = targets(figures)
    print(render(results, checks, machine))
    with open(args.out, "w") as f:
        json.dump({"mode": "smoke" if args.smoke else "full", "machine": machine, "figures": results,
                   "targets": checks, "errors": errors, "missing": missing, "skipped": sorted(skipped)}, f,
                  indent=1, ensure_ascii=False)
    if args.markdown:
        folder = os.path.dirname(args.markdown)
        if folder:
            os.makedirs(folder, exist_ok=True)
        with open(args.markdown, "w", encoding="utf-8") as f:
            f.write(render_markdown(results, checks, machine, args.smoke, errors, missing, skipped))
    for name in sorted(skipped):
        print(f"bench: skipped (needs root or etcd): {name}", file=sys.stderr)
    for problem in errors:
        print(f"bench: failed: {problem}", file=sys.stderr)
    for name in missing:
        print(f"bench: missing figure: {name}", file=sys.stderr)
    return 1 if errors or missing else 0


if __name__ == "__main__":
    sys.exit(main())
