"""Runs tools in turn, round after round, and keeps the medians."""

import hashlib
import os
import shutil
import statistics
import subprocess
import sys
import time

from kovo_bench import tools as tool_list

MIB = 1 << 20
GIB = 1 << 30


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


class Bench:
    def __init__(self, runs, wanted, scratch, build):
        self.runs = runs
        self.wanted = wanted
        self.scratch = scratch
        self.build = build
        self.environment = dict(os.environ, XDG_DATA_HOME=str(scratch / "data"), LC_ALL="C")
        (scratch / "data").mkdir()
        self.out = scratch / "out"
        self.out.mkdir()

    def chosen(self, name, command):
        if self.wanted and not any(name.replace(",", " ").split("-")[0].split()[0] == w or name == w
                                   for w in self.wanted):
            return False
        return tool_list.available(command)

    def clear(self):
        for path in self.out.iterdir():
            shutil.rmtree(path) if path.is_dir() else path.unlink()

    def warm(self, size):
        """Touches as many pages as a run writes: the host of a virtual machine takes free pages
        back, and a run that must fetch them again is slower than the next."""
        block = bytes(8 * MIB)
        path = self.out / "warm"
        with open(path, "wb", buffering=0) as file:
            for _ in range(size // len(block) + 1):
                file.write(block)
        path.unlink()

    def measure(self, command):
        """((wall s, CPU s, peak MiB), "") or (None, what went wrong)."""
        begin = time.monotonic()
        process = subprocess.Popen([str(word) for word in command], stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, env=self.environment)
        errors = process.stderr.read()
        _, status, usage = os.wait4(process.pid, 0)
        wall = time.monotonic() - begin
        process.returncode = os.waitstatus_to_exitcode(status)
        if process.returncode != 0:
            return None, errors.decode(errors="replace").strip()[-300:] or f"exit {process.returncode}"
        return (wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024), ""

    def compare(self, title, tools, size, verify=None, per_gib=True, objects=0, before=None,
                note="", reads_only=False):
        """A table of one row a tool. verify(name) returns what is wrong with the first result."""
        tools = {n: c for n, c in tools.items() if self.chosen(n, c)}
        results = {name: [] for name in tools}
        broken = {}
        for turn in range(self.runs):
            for name, command in tools.items():
                if name in broken:
                    continue
                self.clear()
                if before:
                    before(name)
                if not reads_only:
                    self.warm(size)
                result, error = self.measure(command)
                if result and turn == 0 and verify:
                    error = verify(name)
                    result = None if error else result
                if result is None:
                    broken[name] = error
                else:
                    results[name].append(result)
        self.clear()
        rows = []
        for name, runs in results.items():
            if name in broken or not runs:
                print(f"{title}: {name} failed: {broken.get(name, 'never ran')}", file=sys.stderr)
                rows.append({"tool": name, "failed": True})
                continue
            wall, cpu, peak = (statistics.median(column) for column in zip(*runs))
            rows.append({"tool": name, "wall": round(wall, 3),
                         "rate": round(objects / wall if objects else size / wall / MIB, 1),
                         "cpu": round(cpu * GIB / size if per_gib else cpu, 3),
                         "peak": round(peak, 1)})
        return {"title": title, "rate": "objects/s" if objects else "MiB/s",
                "cpu": "CPU s per GiB" if per_gib else "CPU s", "rows": rows, "runs": self.runs,
                "note": note}

    def same_file(self, source):
        wanted = digest(source)

        def verify(_):
            return "" if digest(self.out / "file") == wanted else "the bytes differ"

        return verify
