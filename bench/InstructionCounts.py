#!/usr/bin/env python3
"""Instructions a message, counted by callgrind: the same on every run, where seconds are not.

    InstructionCounts.py PROGRAM_FOLDER linear      twice the work over once, for header lines,
                                                    parts, chunks and body bytes: about 2
    InstructionCounts.py PROGRAM_FOLDER compare     the small workloads, beside the closest peer
    InstructionCounts.py PROGRAM_FOLDER hardened    the small messages by default and under
                                                    HTTPReadPolicy::hardened(), there also asked
                                                    for Content-Type and an attribute
    InstructionCounts.py PROGRAM_FOLDER profile     `small` and `headers`, and the functions that
                                                    they are spent in

PROGRAM_FOLDER holds postwire_once and peer_once of the preset `bench`. A count is the difference
of two runs, divided by the difference of their messages, so that the start cancels out.
"""
import collections
import os
import re
import subprocess
import sys
import tempfile
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus"))
import make_corpus as corpus    # noqa: E402


# A block copied by `rep movsb` or filled by `rep stosb` would count one instruction a byte.
ENVIRONMENT = {**os.environ, "GLIBC_TUNABLES": "glibc.cpu.x86_rep_movsb_threshold=1000000000:"
                                               "glibc.cpu.x86_rep_stosb_threshold=1000000000"}


def run(program, folder, case, count):
    """Instructions in all, and by function (its own, without those it calls)."""
    with tempfile.TemporaryDirectory() as scratch:
        out = os.path.join(scratch, "out")
        subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out,
                        program, folder, case, str(count)],
                       check=True, capture_output=True, env=ENVIRONMENT)
        text = subprocess.run(["callgrind_annotate", "--threshold=100", out], check=True,
                              capture_output=True, text=True).stdout
    functions = collections.Counter()
    for line in text.splitlines():
        m = re.match(r"\s*([\d,]+) \([ \d.]+%\)\s+(\S.*)$", line)
        if m:
            functions[m[2]] += int(m[1].replace(",", ""))
    total = functions.pop("PROGRAM TOTALS")
    return total, functions


def per_message(program, folder, case, few, many):
    total_few, functions_few = run(program, folder, case, few)
    total_many, functions_many = run(program, folder, case, many)
    functions_many.subtract(functions_few)
    n = many - few
    return (total_many - total_few) / n, {f: c / n for f, c in functions_many.items() if c}


def name_of(function):
    """Without the file, template arguments and parameters."""
    name = re.sub(r"^[^:]*:(?!:)|'\d+|\[[^\[]*\]|\(anonymous namespace\)::", "", function)
    while True:
        shorter = re.sub(r"<[^<>]*>|\([^()]*\)( const)?", "", name)
        if shorter == name:
            return name.strip().rpartition(" ")[2]
        name = shorter


# ---- linear ------------------------------------------------------------------------------------

HOST = ("Host", "localhost")


def header_lines(n):
    headers = [("X-Field-%05d" % (i * 7919 % 100000), "value %d; a=%d" % (i, i)) for i in range(n)]
    headers += [HOST, corpus.length(b"12")]
    return corpus.start(headers) + b"12", len(headers), b"12", 0, 0


def parts(n):
    tree = corpus.Multi("=_outer", [corpus.binary_part(i, 64) for i in range(n)])
    headers = [HOST, *tree.headers]
    return (corpus.start(headers) + tree.entity(), len(headers), tree.leaves(), tree.parts(),
            tree.part_headers())


def chunks(n):
    body = corpus.noise("chunks", 64 * n)
    headers = [HOST, ("Transfer-Encoding", "chunked")]
    return corpus.start(headers) + corpus.chunked(body, 64), len(headers), body, 0, 0


def lines_skipped(n):
    tree = corpus.Multi("=_outer", [corpus.binary_part(1, 64)])
    body = b"a line that is no delimiter\r\n" * n + tree.entity()
    headers = [HOST, tree.headers[0], corpus.length(body)]
    return (corpus.start(headers) + body, len(headers), tree.leaves(), 1, tree.part_headers())


def body_bytes(n):
    body = corpus.noise("body", 1024 * n)
    headers = [HOST, corpus.length(body)]
    return corpus.start(headers) + body, len(headers), body, 0, 0


def write_corpus(folder, name, shape):
    wire, headers, leaves, part_count, part_headers = shape
    with open(os.path.join(folder, name + ".http"), "wb") as f:
        f.write(wire)
    row = (name, 1, headers, len(leaves), zlib.crc32(leaves), part_count, part_headers,
           len(leaves), zlib.crc32(leaves))
    with open(os.path.join(folder, "manifest.tsv"), "w", encoding="ascii") as f:
        f.write("columns as in make_corpus.py\n" + "\t".join(map(str, row)) + "\n")


def linear(programs):
    print("%-16s %8s %14s %14s %7s" % ("", "n", "for n", "for 2n", "ratio"))
    once = os.path.join(programs, "postwire_once")
    for make, n in ((header_lines, 1000), (parts, 250), (chunks, 1000), (lines_skipped, 1000),
                    (body_bytes, 1000)):
        counts = []
        for size in (n, 2 * n):
            with tempfile.TemporaryDirectory() as folder:
                write_corpus(folder, "shape", make(size))
                counts.append(per_message(once, folder, "postwire/shape", 1, 5)[0])
        print("%-16s %8d %14.0f %14.0f %7.3f" % (
            make.__name__.replace("_", " "), n, *counts, counts[1] / counts[0]))


# ---- small messages ---------------------------------------------------------------------------

CLOSEST = {"tiny": "beast_read", "small": "beast_read", "headers": "beast_read",
           "chunked-small": "beast_read", "multipart-small": "poco_istream",
           "nested": "poco_istream", "write-small": "beast"}


def small_corpus(folder):
    """The corpus without its large files: every peer is checked on all of it at the start."""
    rows = []
    for name, wire, messages, headers, entity, n, part_headers, leaves in corpus.workloads():
        if name in CLOSEST:
            with open(os.path.join(folder, name + ".http"), "wb") as f:
                f.write(wire)
            rows.append("\t".join(map(str, (
                name, messages, headers, len(entity), zlib.crc32(entity), n, part_headers,
                len(leaves), zlib.crc32(leaves)))))
    with open(os.path.join(folder, "manifest.tsv"), "w", encoding="ascii") as f:
        f.write("\n".join(["columns as in make_corpus.py"] + rows) + "\n")


def compare(programs):
    print("%-16s %10s %10s %10s %7s" % ("", "postwire", "asked", "peer", "ratio"))
    with tempfile.TemporaryDirectory() as folder:
        small_corpus(folder)
        for workload, peer in CLOSEST.items():
            def count(program, name):
                return per_message(os.path.join(programs, program), folder,
                                   name + "/" + workload, 100, 300)[0]
            ours, theirs = count("postwire_once", "postwire"), count("peer_once", peer)
            asked = 0 if workload == "write-small" else count("postwire_once", "postwire_asked")
            print("%-16s %10.0f %10.0f %10.0f %7.2f  (%s)" % (
                workload, ours, asked, theirs, theirs / ours, peer))


def profile(programs):
    with tempfile.TemporaryDirectory() as folder:
        small_corpus(folder)
        for workload in ("small", "headers"):
            total, functions = per_message(os.path.join(programs, "postwire_once"), folder,
                                           "postwire/" + workload, 100, 300)
            print("\n%s: %.0f instructions a message" % (workload, total))
            for function, count in sorted(functions.items(), key=lambda f: -f[1]):
                if count >= 0.01 * total:
                    print("  %8.0f  %4.1f %%  %s" % (count, 100 * count / total, name_of(function)))


def hardened(programs):
    print("%-16s %10s %10s %7s %10s" % ("", "default", "hardened", "ratio", "asked"))
    once = os.path.join(programs, "postwire_once")
    with tempfile.TemporaryDirectory() as folder:
        small_corpus(folder)
        for workload in CLOSEST:
            if workload != "write-small":
                default, policy, asked = (
                    per_message(once, folder, peer + "/" + workload, 100, 300)[0]
                    for peer in ("postwire", "postwire_hardened", "postwire_hardened_asked"))
                print("%-16s %10.0f %10.0f %7.3f %10.0f" % (workload, default, policy,
                                                            policy / default, asked))


MODES = {"linear": linear, "compare": compare, "hardened": hardened, "profile": profile}

if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[2] not in MODES:
        sys.exit(__doc__)
    MODES[sys.argv[2]](sys.argv[1])
