"""What is measured. Every scenario takes the bench and the server and returns its tables."""

import re
import shutil
import signal
import statistics
import subprocess
import time

from kovo_bench import servers, tools
from kovo_bench.measure import GIB, MIB, digest


def bulk(bench, server, secure):
    source = server.big("big", GIB)
    scheme, port = ("https", server.tls) if secure else ("http", server.http)
    commands = tools.downloads(bench.build, f"{scheme}://127.0.0.1:{port}/big", bench.out / "file", secure)
    return [bench.compare("1 GiB over " + ("TLS 1.3" if secure else "HTTP"), commands, GIB,
                          bench.same_file(source))]


def through_line(bench, server, title, size, extra=None, names=(), note="", **line):
    source = server.big(f"big{size // MIB}", size)
    with servers.line(bench.build, server.http, **line) as slow:
        url = f"http://127.0.0.1:{slow.port}/{source.name}"
        commands = tools.downloads(bench.build, url, bench.out / "file")
        kovo = commands["kovo"]
        commands = {name: commands[name] for name in names}
        for name, options in (extra or {}).items():
            commands[name] = kovo + options
        return [bench.compare(title, commands, size, bench.same_file(source), note=note)]


def capped(bench, server):
    # A single stream has nothing to show here but the cap.
    return through_line(bench, server, "256 MiB, each connection capped at 4 MiB/s", 256 * MIB,
                        names=("kovo", "bench_get", "aria2 -x16", "axel -n16"), rate=4 * MIB,
                        note="16 connections; the caps add up to 64 MiB/s, 4.0 s.")


def capped_long(bench, server):
    return through_line(bench, server, "1 GiB, each connection capped at 4 MiB/s", GIB,
                        names=("kovo", "aria2 -x16"), rate=4 * MIB,
                        note="16 connections; the caps add up to 64 MiB/s, 16.0 s.")


def distant(bench, server):
    return through_line(bench, server, "256 MiB, 50 ms round trip, 20 MiB/s per connection",
                        256 * MIB, names=("kovo", "bench_get", "aria2 -x16", "axel -n16"),
                        extra={"kovo, 4 MiB chunks": ["--chunk-size", "4M"],
                               "kovo, adaptive": ["--adaptive"]},
                        delay_us=25000, rate=20 * MIB)


def flaky(bench, server):
    return through_line(bench, server, "512 MiB, connections break every 32 MiB on average",
                        512 * MIB,
                        names=("kovo", "curl", "wget2", "aria2 -x16", "axel -n16", "rclone -4"),
                        extra={"kovo, 4 connections": ["--connections", "4"]},
                        drop_after=32 * MIB, rate=100 * MIB,
                        note="Each connection is capped at 100 MiB/s and is closed somewhere between "
                             "16 and 48 MiB. curl is run as it is, without its options to retry.")


def small(bench, server):
    count, size = 5000, 4096
    folder = server.small(count, size)
    prefix = f"http://127.0.0.1:{server.http}/small/"
    out = bench.out
    urls = bench.scratch / "urls"
    urls.write_text("".join(f"{prefix}{i}\n" for i in range(count)))
    curl_config = bench.scratch / "curl-config"
    curl_config.write_text("".join(f'url = "{prefix}{i}"\noutput = "{out}/{i}"\n'
                                   for i in range(count)))
    program = [bench.build / "bench_small", prefix, count]
    commands = {
        "bench_small, memory": program,
        "bench_small, files": program + ["--folder", out],
        "curl --parallel 16": ["curl", "-sf", "--parallel", "--parallel-max", "16", "-K", curl_config],
        "wget2, 16 threads": ["wget2", "-q", "--no-config", "--max-threads", "16", "-P", out, "-i", urls],
        "rclone, 16 transfers": ["rclone", "copy", "--config", "/dev/null", "--http-url", prefix,
                                 ":http:", out, "--transfers", "16", "--checkers", "16", "-q"],
        "aria2 -j16": ["aria2c", "-q", "--no-conf", "--file-allocation=none", "-j16", "-d", out,
                       "-i", urls],
    }

    def verify(name):
        if "memory" in name:
            return ""
        for i in range(count):
            got = out / str(i)
            if not got.exists() or got.read_bytes() != (folder / str(i)).read_bytes():
                return f"object {i} differs"
        return ""

    return [bench.compare(f"{count:,} objects of 4 KiB", commands, count * size, verify,
                          per_gib=False, objects=count)]


def killed(bench, server):
    """A download is killed half way and started again: what the second start costs."""
    size = 512 * MIB
    source = server.big("big512", size)
    wanted = digest(source)
    rows = []
    for name in ("kovo", "curl", "wget2", "aria2 -x16"):
        walls, again = [], []
        for _ in range(bench.runs):
            bench.clear()
            shutil.rmtree(bench.scratch / "data", ignore_errors=True)
            (bench.scratch / "data").mkdir()
            line = servers.line(bench.build, server.http, rate=200 * MIB // 16)
            if name in ("curl", "wget2"):  # the same line, all of it for one connection
                line.close()
                line = servers.line(bench.build, server.http, rate=200 * MIB)
            command = tools.downloads(bench.build, f"http://127.0.0.1:{line.port}/{source.name}",
                                      bench.out / "file")[name]
            command = [str(word) for word in command]
            command[1:1] = {"curl": ["-C", "-"], "wget2": ["-c"], "aria2 -x16": ["-c"]}.get(name, [])
            if not bench.chosen(name, command):
                line.close()
                break
            first = subprocess.Popen(command, env=bench.environment, stderr=subprocess.DEVNULL)
            time.sleep(1.3)
            first.send_signal(signal.SIGKILL)
            first.wait()
            begin = time.monotonic()
            result, error = bench.measure(command)
            walls.append(time.monotonic() - begin)
            carried = int(line.close())
            if result is None or digest(bench.out / "file") != wanted:
                rows.append({"tool": name, "failed": True})
                print(f"killed: {name}: {error or 'the bytes differ'}")
                break
            again.append((carried - size) / MIB)
        else:
            rows.append({"tool": name, "wall": round(statistics.median(walls), 2),
                         "again": round(statistics.median(again), 1)})
    bench.clear()
    return [{"title": "512 MiB at 200 MiB/s, killed after 1.3 s and started again",
             "columns": {"wall": "second run, wall s", "again": "MiB fetched again"}, "rows": rows,
             "runs": bench.runs, "note": "SIGKILL. A tool that forgets nothing needs 1.3 s again."}]


def resume(bench, server):
    source = server.big("big", GIB)
    program = [bench.build / "bench_get", f"http://127.0.0.1:{server.http}/big"]
    commands = {
        "bench_get": program + [bench.out / "file"],
        "bench_get, resumable": program + [bench.out / "file._kstmp"],
    }
    wanted = digest(source)

    def verify(name):
        got = bench.out / ("file._kstmp" if "resumable" in name else "file")
        return "" if digest(got) == wanted else "the bytes differ"

    return [bench.compare("1 GiB with and without the resume database", commands, GIB, verify)]


def cache(bench, server):
    size = 256 * MIB
    source = server.big("big256", size)
    http = f"http://127.0.0.1:{server.http}/big256"
    tls = f"https://127.0.0.1:{server.tls}/big256"
    data = bench.scratch / "data"
    filled = bench.scratch / "filled"
    program, out = bench.build / "bench_get", bench.out / "file"
    # At this speed the cache drops what it cannot store in time; the next run brings the rest.
    for _ in range(4):
        bench.measure([program, http, out, "--cache"])
    shutil.copytree(data, filled)

    def before(name):
        shutil.rmtree(data)
        if "from the cache" in name:
            shutil.copytree(filled, data)
        else:
            data.mkdir()

    commands = {
        "bench_get": [program, http, out],
        "bench_get, TLS": [program, tls, out, "--insecure"],
        "bench_get, filling the cache": [program, http, out, "--cache"],
        "bench_get, from the cache": [program, http, out, "--cache"],
    }
    return [bench.compare("256 MiB and the range cache", commands, size, bench.same_file(source),
                          before=before)]


def put(bench, server):
    size = 512 * MIB
    source = server.big("big512", size)
    url = f"http://127.0.0.1:{server.http}/dav/file"
    commands = {
        "kovo put": [bench.build / "kovo", "put", "-q", source, url],
        "bench_put": [bench.build / "bench_put", source, url],
        "curl -T": ["curl", "-sf", "-T", source, url],
    }
    got = server.www / "dav/file"
    return [bench.compare("512 MiB by one PUT to nginx", commands, size,
                          lambda _: "" if digest(got) == digest(source) else "the bytes differ",
                          before=lambda _: got.unlink(missing_ok=True))]


def s3(bench, server):
    size = 512 * MIB
    source = server.big("big512", size)
    with servers.sink(bench.build) as sink:
        commands = tools.s3_uploads(bench.build, sink.port, source, bench.scratch)
        return [bench.compare("512 MiB by S3 multipart, 16 MiB parts, 4 at a time", commands, size,
                              reads_only=True,
                              note="To a server that takes each part's MD5 and keeps nothing. s3cmd "
                                   "sends one part at a time; awscli signs the payload over plain "
                                   "HTTP.")]


def capped_s3(bench, server):
    size = 640 * MIB
    source = server.big("big640", size)
    with servers.sink(bench.build, rate=4 * MIB) as sink:
        commands = tools.s3_uploads(bench.build, sink.port, source, bench.scratch, 5, 16)
        del commands["s3cmd"]  # sends one part at a time
        return [bench.compare("640 MiB by S3 multipart, each connection capped at 4 MiB/s", commands,
                              size, reads_only=True,
                              note="16 connections, 5 MiB parts; the caps add up to 64 MiB/s, 10.0 s.")]


def engines(bench, server):
    size = 32 * MIB
    server.big("big32", size)
    url = f"http://127.0.0.1:{server.http}/big32"
    commands = {f"{n} engine{'s' * (n > 1)}, {32 // n} downloads each":
                [bench.build / "bench_many", url, bench.out, n, 32 // n, "--connections", "4"]
                for n in (1, 4, 32)}
    return [bench.compare("32 downloads of 32 MiB by one process", commands, 32 * size)]


def curve(bench, server, title, label, points, size, options, **line):
    source = server.big(f"big{size // MIB}", size)
    same = bench.same_file(source)
    slow = servers.line(bench.build, server.http, **line) if line else None
    url = f"http://127.0.0.1:{slow.port if slow else server.http}/{source.name}"
    program = [bench.build / "bench_get", url, bench.out / "file"]
    try:
        commands = {text: program + options(value) for text, value in points}
        wanted, bench.wanted = bench.wanted, []
        table = bench.compare(title, commands, size, same)
        bench.wanted = wanted
    finally:
        if slow:
            slow.close()
    table["curve"] = label
    return table


def curves(bench, server):
    counts = [(str(n), n) for n in (1, 2, 4, 8, 16, 32, 64)]
    sizes = [("256 KiB", MIB // 4), ("512 KiB", MIB // 2), ("1 MiB", MIB), ("2 MiB", 2 * MIB),
             ("4 MiB", 4 * MIB), ("8 MiB", 8 * MIB), ("16 MiB", 16 * MIB), ("50 MiB", 50 * MIB)]
    connections = lambda n: ["--connections", n]
    chunk = lambda n: ["--chunk-size", n]
    far = {"delay_us": 25000, "rate": 20 * MIB}
    return [
        curve(bench, server, "1 GiB from loopback, by connections", "connections", counts, GIB,
              connections),
        curve(bench, server, "256 MiB, 50 ms and 20 MiB/s per connection, by connections",
              "connections", counts[1:], 256 * MIB, connections, **far),
        curve(bench, server, "1 GiB from loopback, 16 connections, by chunk size", "chunk size", sizes,
              GIB, chunk),
        curve(bench, server, "256 MiB, 50 ms and 20 MiB/s per connection, 16 connections, by chunk size",
              "chunk size", sizes, 256 * MIB, chunk, **far),
    ]


def instructions(bench, server):
    """Instructions per MiB from callgrind: the difference of two sizes, so that starting up falls out."""
    sizes = (64, 192)
    for size in sizes:
        server.big(f"big{size}", size * MIB)
    rows = []
    for name in ("bench_get-4", "curl"):
        for secure in (False, True):
            counts = []
            for size in sizes:
                scheme, port = ("https", server.tls) if secure else ("http", server.http)
                command = tools.downloads(bench.build, f"{scheme}://127.0.0.1:{port}/big{size}",
                                          bench.out / "file", secure)[name]
                bench.clear()
                run = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
                                     + [str(word) for word in command], env=bench.environment,
                                     capture_output=True, text=True)
                found = re.search(r"Collected : (\d+)", run.stderr)
                if run.returncode != 0 or not found:
                    print(f"instructions: {name}: {run.stderr[-300:]}")
                    break
                counts.append(int(found.group(1)))
            tool = f"{name}, {'TLS 1.3' if secure else 'HTTP'}"
            if len(counts) == 2:
                per_mib = (counts[1] - counts[0]) / (sizes[1] - sizes[0])
                rows.append({"tool": tool, "instructions": round(per_mib / 1000)})
            else:
                rows.append({"tool": tool, "failed": True})
    bench.clear()
    return [{"title": "Instructions in user space per MiB received",
             "columns": {"instructions": "thousand instructions per MiB"}, "rows": rows, "runs": 1,
             "note": "Counted with callgrind, the difference of 64 and 192 MiB."}]


ALL = {
    "bulk": lambda b, s: bulk(b, s, False),
    "tls": lambda b, s: bulk(b, s, True),
    "capped": capped,
    "capped-1g": capped_long,
    "distant": distant,
    "small": small,
    "flaky": flaky,
    "killed": killed,
    "resume": resume,
    "cache": cache,
    "put": put,
    "s3": s3,
    "capped-s3": capped_s3,
    "engines": engines,
    "curves": curves,
    "instructions": instructions,
}
