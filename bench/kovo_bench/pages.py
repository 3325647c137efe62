"""The words and the order of docs/performance.md."""

INTRODUCTION = """# Performance

Written by `bench/run --save`; run it to measure on your machine. Here: a machine of two processors that
client and server share, nginx from the page cache, output to tmpfs, tools run in turn, medians of the
rounds (5, for the 1 GiB tables 3). Compare within a table, not between them. `kovo` is the program with
16 connections, `kovo-4` with 4; `bench_get`, `bench_put`, `bench_small` and `bench_many` are the library
called directly. Peers run with the options that suit the job; a tool that cannot do it is left out.

![The tables below as bars: what is ours in blue, shorter is better where seconds are shown](performance.svg)
"""

# Scenario -> the heading above it, where it begins a section.
ORDER = {
    "bulk": "Large files",
    "tls": "",
    "capped": "Slow and distant servers",
    "capped-1g": "",
    "distant": "",
    "flaky": "Broken connections and killed processes",
    "killed": "",
    "small": "Many small objects",
    "put": "Uploads",
    "s3": "",
    "capped-s3": "",
    "resume": "What it costs",
    "cache": "",
    "engines": "",
    "instructions": "",
    "curves": "Connections and chunk sizes",
}

# Scenario -> what the table does not say by itself.
REMARKS = {}

PICTURE = [
    ("bulk", "wall", "seconds"), ("tls", "wall", "seconds"), ("capped", "wall", "seconds"),
    ("distant", "wall", "seconds"), ("flaky", "wall", "seconds"), ("small", "rate", "objects per second"),
    ("s3", "wall", "seconds"), ("s3", "cpu", "CPU seconds per GiB"), ("curves", "rate", "MiB/s"),
]
