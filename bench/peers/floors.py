#!/usr/bin/env python3
"""floors.py RESULT.json: this library's rates over those of the named peers, in one run.

Medians over the repetitions. Fails when a ratio is below its floor; bodies of a megabyte and more
have 15 % tolerance, because their time is the memory's. Rows with "hardened" are what a server does:
read under HTTPReadPolicy::hardened(), and each message and part asked for its Content-Type and an
attribute, which the peers are not. The column "asked" is the ratio by default, asked the same.
"""
import json
import statistics
import sys

OURS = "postwire"
FLOORS = [      # workload, peer, at least, hoped for, tolerance
    ("tiny", "beast_read", 1.0, 1.5, 0),
    ("small", "beast_read", 1.0, 1.5, 0),
    ("pipelined", "beast_read", 1.0, 1.5, 0),
    ("headers", "beast_read", 2.0, 4.0, 0),
    ("big-length", "limit_copy_growing", 0.8, 1.0, 0.15),
    ("chunked-small", "beast_read", 1.5, 2.5, 0),
    ("chunked-big", "beast_read", 1.5, 2.5, 0.15),
    ("multipart", "gmime", 4, 8, 0.15),
    ("multipart-small", "poco_istream", 3, 6, 0),
    ("nested", "poco_istream", 3, 6, 0),
    ("write-small", "beast", 1.0, 2.0, 0),
    ("write-chunked", "beast", 1.0, 1.0, 0.15),
    ("write-multipart", "limit_memcpy", 0.3, 0.3, 0.15),
]
HARDENED = "postwire_hardened_asked"
HARDENED_FLOORS = [
    ("tiny", "beast_read", 1.0, 1.3, 0),
    ("small", "beast_read", 1.3, 1.6, 0),
    ("headers", "beast_read", 4.0, 5.0, 0),
    ("multipart", "gmime", 8.0, 9.0, 0),
    ("multipart-small", "poco_istream", 3.0, 4.0, 0),
    ("nested", "poco_istream", 3.0, 4.0, 0),
]
SMALL_HEADERS = 10
SMALL_ALLOCATIONS = 3 * SMALL_HEADERS + 8


def main():
    with open(sys.argv[1], encoding="utf-8") as f:
        runs = json.load(f)["benchmarks"]
    rates, heap = {}, {}
    for b in runs:
        if b.get("run_type") != "aggregate":
            rates.setdefault(b["run_name"], []).append(b["items_per_second"])
            heap[b["run_name"]] = b["malloc_per_msg"]
    median = {name: statistics.median(values) for name, values in rates.items()}
    missed = 0
    print("%-25s %-20s %8s %8s %8s %8s" % (
        "workload", "against", "ratio", "asked", "floor", "hoped"))
    for reader, (workload, peer, floor, hoped, tolerance) in [
            *((OURS, row) for row in FLOORS), *((HARDENED, row) for row in HARDENED_FLOORS)]:
        ours, theirs = reader + "/" + workload, peer + "/" + workload
        if ours not in median or theirs not in median:
            print("%-25s %-20s not in this run" % (workload, peer))
            missed += 1
            continue
        ratio = median[ours] / median[theirs]
        verdict = ("reached" if ratio >= hoped * (1 - tolerance) else
                   "pass" if ratio >= floor * (1 - tolerance) else "FAIL")
        missed += verdict == "FAIL"
        asked = median.get(OURS + "_asked/" + workload) if reader == OURS else None
        print("%-25s %-20s %8.2f %8s %8.2f %8.2f  %s" % (
            workload + (" hardened" if reader == HARDENED else ""), peer, ratio, "%.2f" % (asked / median[theirs]) if asked else "",
            floor, hoped, verdict))
    if OURS + "/small" in heap:
        count = heap[OURS + "/small"]
        verdict = "pass" if count <= SMALL_ALLOCATIONS else "FAIL"
        missed += verdict == "FAIL"
        print("heap calls for `small`: %.1f, at most %d  %s" % (count, SMALL_ALLOCATIONS, verdict))
    sys.exit(1 if missed else 0)


if __name__ == "__main__":
    main()
