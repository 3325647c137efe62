"""The words and the order of docs/performance.md."""

INTRODUCTION = """# Performance

Written by `bench/run --save`; run it to measure on your machine. Here: a machine of two processors that
client and server share, nginx from the page cache, output to tmpfs, tools run in turn, medians of the
rounds (2 for the curves, 11 for the PUT, 1 for the long capped line, else 3). Compare within a table, not between them. `kovo` is the program with
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
REMARKS = {
    "tls": "Over TLS libcurl hands out one record of 16 KiB at a time, and each is copied once more into\n"
           "the chunk it belongs to: level in wall time, behind in CPU time.\n",
    "capped-1g": "kovo's first chunk travels alone, because its answer tells the size: half a second on\n"
                 "such a connection.\n",
    "distant": "aria2 and axel ask for one long range per connection; each of kovo's chunks costs a round\n"
               "trip, which larger chunks spread over more bytes.\n",
    "instructions": "A copy counts one instruction for every byte here, which is why one copy more shows so\n"
                    "large.\n",
}

PICTURE = [
    ("bulk", "wall", "seconds"), ("tls", "wall", "seconds"), ("capped", "wall", "seconds"),
    ("distant", "wall", "seconds"), ("flaky", "wall", "seconds"), ("small", "rate", "objects per second"),
    ("s3", "wall", "seconds"), ("s3", "cpu", "CPU seconds per GiB"), ("curves", "rate", "MiB/s"),
]
