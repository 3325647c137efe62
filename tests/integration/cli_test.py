#!/usr/bin/env python3
"""The program kovo as a user meets it: files, exit codes, messages, Ctrl-C, terminal.

usage: cli_test.py KOVO [unittest options]
"""

import fcntl
import hashlib
import html.parser
import json
import os
import pathlib
import pty
import random
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

sys.dont_write_bytecode = True
from cli_origin import PATIENCE, Origin

SOURCE = pathlib.Path(__file__).resolve().parents[2]
KOVO = os.path.abspath(sys.argv.pop(1))
CHUNK = 64 * 1024


class CliTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(prefix="kovo-cli-")
        self.addCleanup(self.folder.cleanup)
        self.work = pathlib.Path(self.folder.name) / "work"
        self.work.mkdir()
        self.environment = {k: v for k, v in os.environ.items() if not k.lower().endswith("_proxy")}
        self.environment["XDG_DATA_HOME"] = self.folder.name + "/data"
        self.environment["TERM"] = "xterm"
        self.body = random.Random(7).randbytes(20 * CHUNK + 123)
        self.origin = Origin(self.body)
        self.addCleanup(self.origin.close)

    def start(self, *arguments, **options):
        process = subprocess.Popen([KOVO, *arguments], cwd=self.work, env=self.environment,
                                   **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE,
                                      "text": True, **options})
        self.addCleanup(self.finish, process)
        return process

    def finish(self, process):
        if process.poll() is None:
            process.kill()
        for stream in (process.stdout, process.stderr):
            if stream:
                stream.close()
        process.wait(PATIENCE)

    def run_kovo(self, *arguments, expect=0, feed=None, **options):
        process = self.start(*arguments, stdin=subprocess.PIPE, **options)
        output, errors = process.communicate(feed, timeout=PATIENCE)
        self.assertEqual(process.returncode, expect, errors)
        return output, errors

    def get(self, *arguments, **options):
        return self.run_kovo("get", "--chunk-size", str(CHUNK), *arguments, **options)

    def files(self):
        return sorted(path.name for path in self.work.iterdir())

    def assert_downloaded(self, name="file.bin"):
        self.assertEqual((self.work / name).read_bytes(), self.body)
        self.assertEqual(self.files(), [name])

    # Files and names

    def test_a_download_is_silent_and_leaves_only_the_file(self):
        output, errors = self.get(self.origin.url())
        self.assert_downloaded()
        self.assertEqual((output, errors), ("", ""))

    def test_the_name_comes_from_the_url(self):
        for path, name in [("/a/b%20c.txt?x=/y", "b c.txt"), ("/", "index.html"),
                           ("/d/?q", "index.html"), ("/%E2%82%AC", "\u20ac"), ("/..x", "__x")]:
            with self.subTest(path):
                self.get(self.origin.url(path))
                self.assert_downloaded(name)
                (self.work / name).unlink()

    def test_names_that_leave_the_folder_or_disturb_a_terminal_are_refused(self):
        for path in ["/..%2fescape", "/a%5Cb", "/x%1b%5B2J", "/%2e%2e", "/a%E2%80%AEb", "/a%C2%9Bb", "/%ff"]:
            with self.subTest(path):
                _, errors = self.get(self.origin.url(path), expect=7)
                self.assertIn("-o FILE", errors)
                self.assertNotIn("\x1b", errors)
        self.assertEqual(self.files(), [])
        self.assertEqual(self.origin.requests, [])

    def test_o_names_a_file_or_a_folder(self):
        (self.work / "sub").mkdir()
        self.get("-o", "sub", self.origin.url())
        self.assertEqual((self.work / "sub/file.bin").read_bytes(), self.body)
        self.get("-osub/other", self.origin.url())
        self.assertEqual((self.work / "sub/other").read_bytes(), self.body)
        self.get("-o", "nowhere/file", self.origin.url(), expect=7)

    def test_an_existing_file_is_replaced_only_by_force(self):
        (self.work / "file.bin").write_text("precious")
        _, errors = self.get(self.origin.url(), expect=9)
        self.assertIn("--force", errors)
        self.assertEqual((self.work / "file.bin").read_text(), "precious")
        self.assertEqual(self.origin.requests, [])
        self.get("--force", self.origin.url())
        self.assert_downloaded()

    def test_an_empty_resource_becomes_an_empty_file(self):
        self.origin.body = self.body = b""
        self.get(self.origin.url())
        self.assert_downloaded()

    def test_checksum(self):
        right = hashlib.sha256(self.body).hexdigest()
        self.get("--sha256", right.upper(), self.origin.url())
        self.assert_downloaded()
        wrong = "0" * 64
        _, errors = self.get("--sha256", wrong, "-o", "other", self.origin.url(), expect=8)
        self.assertIn(wrong, errors)
        self.assertIn(right, errors)
        self.assertFalse((self.work / "other").exists())

    # Several URLs, lists, parts

    def test_several_urls(self):
        url = self.origin.url
        _, errors = self.get(url("/a"), url("/missing"), url("/b"), "--dir", "new/folder", expect=3)
        self.assertIn("/missing", errors)
        self.assertEqual([(self.work / "new/folder" / name).read_bytes() for name in "ab"],
                         [self.body] * 2)
        (self.work / "old").write_text("precious")
        self.get(url("/old"), url("/missing"), expect=9)  # the first in order, not in time
        self.get(url("/missing"), url("/old"), expect=3)
        self.get("--force", url("/x/same"), url("/y/same"), expect=9)
        listed = f"# comment\n\n  {url('/old')}\r\n{url('/fresh')}\n"
        self.get("-i", "-", "--parallel", "1", "--skip-existing", feed=listed)
        self.assertEqual(self.files(), ["fresh", "new", "old", "same"])
        self.assertEqual((self.work / "old").read_text(), "precious")
        self.get("-i", "nothing", expect=7)

    def test_the_name_may_come_from_the_server(self):
        for header, name in [
                ('attachment; filename="a b.txt"', "a b.txt"), ("inline; filename=c;x=y", "c"),
                (r'attachment; filename="..\\..\\up/../d"', "d"), ('a; filename=".profile"', "_profile"),
                ("a; filename=\"no\"; filename*=UTF-8''na%C3%AFve%1b%E2%80%AE.txt", "na\u00efve__.txt"),
                ("a; filename*=UTF-8''..%2f..%2fe", "e"), ('a; filename=".."', "file.bin"),
                ('a; filename="f._kstmp"', "f._kstmp_"), ('a; filename="%s"' % ("x" * 300), "file.bin"),
                ("inline", "file.bin")]:
            with self.subTest(header):
                self.origin.extra_headers = [("Content-Disposition", header)]
                self.get("--content-disposition", self.origin.url())
                self.assert_downloaded(name)
                _, errors = self.get("-J", self.origin.url(), expect=9)
                self.assertIn("--force", errors)
                self.get("-J", "--skip-existing", self.origin.url())
                self.assert_downloaded(name)
                (self.work / name).unlink()

    def test_parts_and_standard_output(self):
        size = len(self.body)
        for option, first, end in [(None, 0, size), ("0-0", 0, 1), (f"100-{3 * CHUNK}", 100, 3 * CHUNK + 1),
                                   (f"{size - 7}-", size - 7, size), (f"5-{size + 50}", 5, size)]:
            with self.subTest(option):
                wanted = self.body[first:end]
                part = ["--range", option] if option else []
                output, _ = self.get("--stdout", *part, self.origin.url(), text=False)
                self.assertEqual(output, wanted)
                if option:
                    self.get(*part, "--sha256", hashlib.sha256(wanted).hexdigest(), "-o", "part",
                             "--force", self.origin.url())
                    self.assertEqual((self.work / "part").read_bytes(), wanted)
        (self.work / "part").unlink()
        self.origin.fail_with = [503, 500, 503]
        output, _ = self.get("--stdout", self.origin.url(), text=False)
        self.assertEqual(output, self.body)
        _, errors = self.get("-r", f"{size}-", self.origin.url(), expect=3)
        self.assertIn("416", errors)
        _, errors = self.get("--stdout", self.origin.url("/missing"), expect=3)
        self.assertEqual(self.files(), [])

    def test_a_reader_that_ends_is_a_failure_not_a_hang(self):
        process = self.start("get", "--stdout", "--chunk-size", str(CHUNK), self.origin.url(), text=False)
        process.stdout.read(1000)
        process.stdout.close()
        self.assertEqual(process.wait(PATIENCE), 7)

    # Events and traces

    def test_events_and_the_trace_tell_everything_but_secrets(self):
        self.origin.fail_with = [503]
        secrets = ["topsecret", "hunter2", "c2lnbmVk", "proxypass", "Zm9vYmFy"]
        url = self.origin.url("/file.bin?sv=1&sig=c2lnbmVk", "joe:hunter2@")
        output, errors = self.get(
            "--json", "--trace", "trace.html", "-H", "Authorization: Bearer topsecret", "--proxy-user",
            "me:proxypass", url, self.origin.url("/missing?X-Amz-Signature=Zm9vYmFy"), expect=3)
        events = [json.loads(line) for line in output.splitlines()]
        names = [event["event"] for event in events if event["id"] == 1]
        self.assertEqual([names[0], names[-1]], ["started", "done"])
        self.assertLess({"headers", "progress", "retry"}, set(names))
        self.assertEqual([event["exitCode"] for event in events if event["event"] == "error"], [3])
        self.assertEqual([event["bytes"] for event in events if event["event"] == "done"],
                         [len(self.body)])
        (self.work / "mine").write_text("precious")
        self.get("--trace", "mine", "--force", self.origin.url(), expect=9)
        page = (self.work / "trace.html").read_text()
        notes = b"".join(path.read_bytes() for path in pathlib.Path(self.folder.name).glob(
            "data/Orvel/KOVO/partial/*"))
        for secret in secrets:
            self.assertNotIn(secret, output + errors + page + notes.decode())
        self.assertIn("sig=***", page)

        class Page(html.parser.HTMLParser):
            def __init__(self):
                super().__init__()
                self.open, self.data, self.faults = [], {}, []

            def handle_starttag(self, tag, attributes):
                if tag not in ("meta", "link", "br"):
                    self.open.append((tag, dict(attributes).get("id")))
                if {"src", "href"} & dict(attributes).keys():
                    self.faults.append(tag)

            def handle_endtag(self, tag):
                if self.open.pop()[0] != tag:
                    self.faults.append(tag)

            def handle_data(self, text):
                if self.open:
                    self.data[self.open[-1]] = text

        parsed = Page()
        parsed.feed(page)
        self.assertEqual((parsed.faults, parsed.open), ([], []))
        trace = json.loads(parsed.data["script", "data"])
        chunks = [request[3] for request in trace["requests"] if request[0] == 1]
        self.assertEqual(set(chunks), set(range(21)))
        self.assertEqual(len(chunks), 22)  # one was sent again
        for _, lane, _, _, begin, end, *_ in trace["requests"]:
            self.assertLess(lane, trace["lanes"])
            self.assertLessEqual(begin, end)
        self.assertEqual(trace["samples"][-1][1], len(self.body))
        self.assertTrue(trace["workers"])

    def test_what_servers_say_cannot_disturb_a_terminal(self):
        self.origin.extra_headers = [("X-Evil", "\u009b2J\u202e".encode().decode("latin-1"))]
        output, _ = self.get("--json", self.origin.url())
        self.assertNotRegex(output, "[\x00-\x09\x0b-\x1f\x7f-\x9f\u202a-\u202e]")

    # Other commands

    def test_request(self):
        url = self.origin.url
        (self.work / "body").write_bytes(b"from a file")
        for arguments, answer in [((url("/x"), "-d", "some text"), "POST some text"),
                                  ((url("/x"), "-X", "PATCH", "-d", "@body"), "PATCH from a file"),
                                  ((url("/x"), "-X", "DELETE"), "DELETE ")]:
            with self.subTest(arguments):
                output, errors = self.run_kovo("request", *arguments)
                self.assertEqual((output, errors), (answer, ""))
        output, _ = self.run_kovo("request", "-i", url("/x"), "-d", "@-", feed="piped")
        self.assertRegex(output, r"(?s)^HTTP 200 OK\n.*X-Answer: yes.*\n\nPOST piped$")
        self.assertNotIn("\x1b", output)
        output, errors = self.run_kovo("request", url("/bad"), "-d", "x", expect=3)
        self.assertEqual(output, "POST x")
        self.assertIn("400", errors)
        output, _ = self.run_kovo("request", url("/file.bin"), text=False)
        self.assertEqual(output, self.body)
        output, _ = self.run_kovo("request", "-X", "HEAD", url("/file.bin"))
        self.assertIn(f"Content-Length: {len(self.body)}\n", output)

    def test_cache_and_resume_commands(self):
        self.get("--cache", self.origin.url())
        self.get("--cache", "--force", self.origin.url())
        output, _ = self.run_kovo("cache", "info")
        self.assertIn("Orvel/KOVO", output)
        self.run_kovo("cache", "clear")
        (self.work / "file.bin").unlink()
        process = self.interrupted_get(10)
        _, errors = self.run_kovo("resume", "clear", expect=7)
        self.assertIn("being downloaded", errors)
        process.kill()
        process.wait(PATIENCE)
        self.origin.release()
        output, _ = self.run_kovo("resume", "list")
        self.assertIn(str(self.work / "file.bin._kstmp"), output)
        self.assertIn(self.origin.url(), output)
        self.run_kovo("resume", "clear", "file.bin")
        self.assertEqual(self.files(), [])
        self.assertNotIn("file.bin", self.run_kovo("resume", "list")[0])
        self.get(self.origin.url())  # the library's record of the removed bytes misleads nobody
        self.assert_downloaded()

    def test_man_page_and_completions_know_every_option(self):
        texts = {name: (SOURCE / name).read_text() for name in (
            "docs/man/kovo.1", "packaging/completions/kovo.bash", "packaging/completions/_kovo",
            "packaging/completions/kovo.fish")}
        manual = texts["docs/man/kovo.1"] = texts["docs/man/kovo.1"].replace("\\-", "-")
        fish = "packaging/completions/kovo.fish"
        texts[fish] = re.sub(r" -s (\w) ", r" -\1 ", re.sub(r" -l ([\w-]+)", r" --\1", texts[fish]))
        for command in ("get", "put", "request"):
            options = re.findall(r"(?m)^  (?:-(\w), |    )--([\w-]+)",
                                 self.run_kovo("help", command)[0])
            self.assertGreater(len(options), 8)
            # What bash really completes.
            script = (f'. "{SOURCE}/packaging/completions/kovo.bash"; compopt() {{ :; }}; '
                      f'COMP_WORDS=(kovo {command} --); COMP_CWORD=2; _kovo; echo "${{COMPREPLY[@]}}"')
            completed = subprocess.run(["bash", "-c", script], capture_output=True, text=True,
                                       check=True).stdout.split()
            for letter, name in options:
                self.assertIn(f"--{name}", completed)
                for file, text in texts.items():
                    self.assertRegex(text, rf"--{name}\b", file)
                    self.assertRegex(text, rf"-{letter}\b" if letter else ".", file)
        for code in (0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 130):
            self.assertRegex(manual, rf"(?m)^\.B {code}$")

    # Interruption

    def test_ctrl_c_during_the_check_costs_nothing(self):
        self.body = self.origin.body = bytes(160 << 20)
        wanted = ["--sha256", hashlib.sha256(self.body).hexdigest(), "--chunk-size", "8M", "--json"]
        process = self.start("get", *wanted, self.origin.url())
        while json.loads(process.stdout.readline())["event"] != "verifying":
            pass
        process.send_signal(signal.SIGINT)
        _, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 130, errors)
        self.assertIn("again", errors)
        self.origin.served = 0
        self.run_kovo("get", *wanted, self.origin.url())
        self.assert_downloaded()
        self.assertEqual(self.origin.served, 0)

    def interrupted_get(self, answers):
        """A download of which answers have come, held in the middle."""
        self.origin.hold_after(answers)
        process = self.start("get", "--chunk-size", str(CHUNK), "--connections", "2",
                             self.origin.url())
        self.origin.wait_until_held()
        return process

    def assert_resumes(self, answers):
        self.assertEqual(self.files(), ["file.bin._kstmp"])
        with self.origin.lock:
            self.origin.served = 0
        self.origin.release()
        self.get("--connections", "2", self.origin.url())
        self.assert_downloaded()
        # What two connections had in flight may come again, and nothing else.
        self.assertLessEqual(self.origin.served, len(self.body) - (answers - 2) * CHUNK)

    def test_a_killed_download_resumes(self):
        process = self.interrupted_get(10)
        process.kill()
        process.wait(PATIENCE)
        self.assert_resumes(10)

    def test_ctrl_c_keeps_what_has_come_and_says_how_to_go_on(self):
        process = self.interrupted_get(10)
        process.send_signal(signal.SIGINT)
        _, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 130)
        self.assertIn("file.bin._kstmp", errors)
        self.assertIn("again", errors)
        self.assert_resumes(10)

    def test_sigterm_ends_as_ctrl_c_does(self):
        process = self.interrupted_get(4)
        process.send_signal(signal.SIGTERM)
        process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 128 + signal.SIGTERM)
        self.assertEqual(self.files(), ["file.bin._kstmp"])

    def test_no_continue_starts_afresh(self):
        process = self.interrupted_get(10)
        process.kill()
        process.wait(PATIENCE)
        self.origin.release()
        self.origin.served = 0
        self.get("--no-continue", self.origin.url())
        self.assert_downloaded()
        self.assertEqual(self.origin.served, len(self.body))

    def test_a_changed_resource_is_fetched_whole(self):
        process = self.interrupted_get(10)
        process.kill()
        process.wait(PATIENCE)
        self.origin.release()
        self.body = self.origin.body = random.Random(8).randbytes(len(self.body))
        self.origin.etag = '"second"'
        self.get(self.origin.url())
        self.assert_downloaded()

    def test_a_second_download_to_the_same_file_is_refused(self):
        process = self.interrupted_get(4)
        _, errors = self.get(self.origin.url(), expect=7)
        self.assertIn("already", errors)
        self.origin.release()
        process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 0)
        self.assert_downloaded()

    # Failures

    def test_http_errors_tell_what_the_server_said(self):
        _, errors = self.get(self.origin.url("/missing", "name:secret@"), expect=3)
        self.assertIn("404", errors)
        self.assertIn("no such thing here", errors)
        self.assertIn(f"127.0.0.1:{self.origin.port}/missing", errors)
        self.assertNotIn("secret", errors)
        self.assertEqual(self.files(), [])
        self.assertEqual(len(self.origin.requests), 1)  # a 404 is not retried

    def test_a_refused_connection_is_a_network_error_at_once(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            url = f"http://127.0.0.1:{probe.getsockname()[1]}/x"
            _, errors = self.get(url, expect=4)
        self.assertIn(url, errors)
        self.assertEqual(self.files(), [])

    def test_a_stalled_server_is_a_timeout(self):
        self.origin.hold_after(0)
        _, errors = self.get("--timeout", "1", "--retries", "0", self.origin.url(), expect=6)
        self.assertIn("--timeout", errors)

    def test_certificates(self):
        key, certificate = self.folder.name + "/key.pem", self.folder.name + "/cert.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=127.0.0.1",
                        "-keyout", key, "-out", certificate], check=True, capture_output=True)
        origin = Origin(self.body, (certificate, key))
        self.addCleanup(origin.close)
        _, errors = self.get(origin.url(), expect=5)
        self.assertIn("--insecure", errors)
        self.get("--insecure", origin.url())
        self.assert_downloaded()

    def test_passing_errors_are_retried(self):
        self.origin.fail_with = [503, 500]
        self.get(self.origin.url())
        self.assert_downloaded()

    def test_giving_up_keeps_what_has_come(self):
        self.origin.fail_with = [503] * 3
        _, errors = self.get("--retries", "1", "--connections", "1", self.origin.url(), expect=3)
        self.assertIn("503", errors)
        self.assertIn("1 retry", errors)
        self.assertEqual(self.files(), ["file.bin._kstmp"])
        self.origin.fail_with = []
        self.origin.served = 0
        self.get(self.origin.url())
        self.assert_downloaded()
        self.assertLess(self.origin.served, len(self.body))

    def test_a_network_that_stays_away_costs_nothing_that_has_come(self):
        process = self.interrupted_get(10)
        process.kill()
        process.wait(PATIENCE)
        url = self.origin.url()
        self.origin.close()
        before = (self.work / "file.bin._kstmp").read_bytes()
        _, errors = self.get(url, expect=4)
        self.assertIn("file.bin._kstmp", errors)
        self.assertEqual((self.work / "file.bin._kstmp").read_bytes(), before)

    def test_command_lines_that_cannot_be_understood(self):
        url = self.origin.url()
        for arguments in [[], ["fetch", url], ["get"], ["get", "-o", "x", url, url], ["get", "--stdout", url, url],
                          ["get", "-r", "5-2", url], ["get", "-r", "-5", url],
                          ["get", "--stdout", "--json", url], ["get", "-o", "x", "-d", "y", url],
                          ["get", "--sha256", "0" * 64, url, url], ["cache"], ["resume", "x"],
                          ["request", "-X", "BREW", url], ["request", "-X", "GET", "-d", "x", url],
                          ["get", "--nope", url],
                          ["get", "ftp://x/y"], ["get", "host/file"], ["get", "http:///file"],
                          ["get", "--connections", "0", url], ["get", "--connections", "65", url],
                          ["get", "--chunk-size", "51M", url], ["get", "--chunk-size", "8X", url],
                          ["get", "--limit-rate", "-1", url], ["get", "--sha256", "12", url],
                          ["get", "--header", "no colon", url],
                          ["get", "--header", "A: b\r\nC: d", url], ["get", url, "--output"],
                          ["get", "--force=yes", url], ["put", "file"], ["help", "nothing"]]:
            with self.subTest(arguments):
                self.run_kovo(*arguments, expect=2)
        self.assertEqual(self.origin.requests, [])

    def test_headers_reach_the_server(self):
        self.get("-H", "X-One: 1", "--header=X-Two:  two words ", self.origin.url())
        for _, _, _, headers in self.origin.requests:
            self.assertEqual((headers.get("X-One"), headers.get("X-Two")), ("1", "two words"))

    def test_put(self):
        (self.work / "up").write_bytes(self.body)
        output, errors = self.run_kovo("put", "up", self.origin.url("/target"))
        self.assertEqual((output, errors), ("", ""))
        self.assertEqual(self.origin.uploads, {"/target": self.body})
        self.run_kovo("put", "absent", self.origin.url("/target"), expect=7)

    def test_put_in_one_request_keeps_to_the_limit(self):
        (self.work / "up").write_bytes(self.body)
        start = time.monotonic()
        self.run_kovo("put", "--limit-rate", str(2 * len(self.body)), "up", self.origin.url("/slow"))
        self.assertGreater(time.monotonic() - start, 0.3)  # half a second, less what comes first
        self.assertEqual(self.origin.uploads, {"/slow": self.body})
        slow = self.start("put", "--limit-rate", "64K", "up", self.origin.url("/changed"))
        deadline = time.monotonic() + PATIENCE
        while "/changed" not in self.origin.begun and time.monotonic() < deadline:
            time.sleep(0.01)
        (self.work / "up").write_bytes(b"other")
        _, errors = slow.communicate(timeout=PATIENCE)
        self.assertEqual(slow.returncode, 7)
        self.assertIn("up changed while it was sent", errors)

    def test_help_and_version(self):
        output, _ = self.run_kovo("--version")
        self.assertRegex(output, r"^kovo \d+\.\d+\.\d+")
        output, _ = self.run_kovo("help", "exit-codes")
        for code in (0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 130):
            self.assertRegex(output, rf"(?m)^  {code} ")
        output, _ = self.run_kovo("get", "--help")
        self.assertIn("--chunk-size", output)

    # The terminal

    def on_terminal(self, columns, *arguments, stdout=subprocess.DEVNULL, shell=()):
        """Runs kovo with a terminal as its standard error; returns a function that reads it."""
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))

        def own_terminal():
            os.setsid()
            fcntl.ioctl(slave, termios.TIOCSCTTY, 0)

        process = subprocess.Popen([*shell, KOVO, *arguments], cwd=self.work, env=self.environment,
                                   stdin=slave, stdout=stdout, stderr=slave,
                                   preexec_fn=own_terminal)
        self.addCleanup(self.finish, process)
        os.close(slave)
        seen = bytearray()

        def read_until(condition):
            deadline = time.monotonic() + PATIENCE
            while time.monotonic() < deadline:
                if condition(seen.decode(errors="replace")):
                    return seen.decode(errors="replace")
                if select.select([master], [], [], 0.05)[0]:
                    try:
                        seen.extend(os.read(master, 65536))
                    except OSError:  # the other side is closed
                        break
            text = seen.decode(errors="replace")
            self.assertTrue(condition(text), text)
            return text

        return process, master, read_until

    def drawn_lines(self, text):
        return [re.sub(r"\x1b\[[?\d]*[a-zA-Z]", "", line) for line in re.split(r"[\r\n]+", text)]

    def test_progress_fits_any_width_and_gives_the_cursor_back(self):
        for columns in (200, 80, 50, 30, 12, 3):
            with self.subTest(columns):
                self.origin.hold_after(10)
                process, _, read_until = self.on_terminal(
                    columns, "get", "--chunk-size", str(CHUNK), "--force", self.origin.url())
                if columns >= 12:
                    read_until(lambda text: re.search(r"[1-9]\d?%", text))
                self.origin.wait_until_held()
                self.origin.release()
                text = read_until(lambda text: "\x1b[?25h" in text)
                self.assertEqual(process.wait(PATIENCE), 0)
                self.assertEqual(text.count("\x1b[?25l"), text.count("\x1b[?25h"))
                for line in self.drawn_lines(text):
                    self.assertLess(len(line), columns)
                if columns == 200:
                    self.assertRegex(text, r"\[=*>? *\] +\d+%.* conn")
        self.assert_downloaded()

    def test_a_resized_window_narrows_the_line(self):
        self.origin.hold_after(10)
        process, master, read_until = self.on_terminal(
            120, "get", "--chunk-size", str(CHUNK), self.origin.url())
        wide = read_until(lambda text: re.search(r"[1-9]\d?%", text))
        fcntl.ioctl(master, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 40, 0, 0))
        text = read_until(lambda text: any(
            0 < len(line) < 40 and "%" in line for line in self.drawn_lines(text[len(wide):])))
        self.assertTrue(text)
        self.origin.release()
        read_until(lambda text: " in " in text)
        self.assertEqual(process.wait(PATIENCE), 0)

    def test_ctrl_c_on_a_terminal(self):
        self.origin.hold_after(10)
        process, master, read_until = self.on_terminal(
            80, "get", "--chunk-size", str(CHUNK), self.origin.url())
        read_until(lambda text: re.search(r"[1-9]\d?%", text))
        os.write(master, b"\x03")
        text = read_until(lambda text: "\x1b[?25h" in text)
        self.assertEqual(process.wait(PATIENCE), 130)
        self.assertIn("again", text)

    def test_a_stopped_job_gives_the_cursor_back_and_goes_on(self):
        self.origin.hold_after(10)
        process, master, read_until = self.on_terminal(
            80, "get", "--chunk-size", str(CHUNK), self.origin.url(),
            shell=["bash", "-m", "-c", '"$@"; echo stopped >&2; fg >&2', "-"])
        self.origin.wait_until_held()
        read_until(lambda text: "\x1b[?25l" in text)
        os.write(master, b"\x1a")
        text = read_until(lambda text: "stopped" in text)
        self.assertIn("\x1b[?25h", text.split("stopped")[0])
        self.origin.release()
        read_until(lambda text: " in " in text)
        self.assertEqual(process.wait(PATIENCE), 0)
        self.assert_downloaded()

    def test_a_second_ctrl_c_ends_at_once(self):
        (self.work / "up").write_bytes(b"x")
        self.origin.hold_after(0)
        process, master, read_until = self.on_terminal(
            80, "put", "--json", "up", self.origin.url("/stalling"), stdout=subprocess.PIPE)
        while json.loads(process.stdout.readline())["event"] != "headers":
            pass
        os.write(master, b"\x03")
        read_until(lambda text: "Ctrl-C again" in text)
        while process.poll() is None:  # one that follows at once counts as the same
            os.write(master, b"\x03")
            time.sleep(0.05)
        self.assertEqual(process.returncode, 130)
        read_until(lambda text: text.count("\x1b[?25h") == text.count("\x1b[?25l") == 1)

    def test_several_transfers_on_a_terminal(self):
        for columns in (100, 40, 20):
            with self.subTest(columns):
                self.origin.hold_after(10)
                process, _, read_until = self.on_terminal(
                    columns, "get", "--chunk-size", str(CHUNK), "--force", "--progress=always",
                    *(self.origin.url(f"/{name}") for name in "abc"), self.origin.url("/missing"))
                self.origin.wait_until_held()
                text = read_until(lambda text: "1 of 4" in text if columns > 20 else "%" in text)
                self.origin.release()
                read_until(lambda text: text.count(" in ") >= 3 if columns > 20 else "?25h" in text)
                self.assertEqual(process.wait(PATIENCE), 3)
                text = read_until(lambda text: "\x1b[?25h" in text)
                for line in self.drawn_lines(text):
                    if not re.search("missing|Check|no such", line):
                        self.assertLess(len(line), columns, line)
                # What stays are the summaries and the failure: every other line was taken away.
                screen = [line for line in self.screen_after(text) if line]
                self.assertEqual(sum(" in " in line or "..." in line for line in screen), 3, screen)
                self.assertEqual(len(screen), 6, screen)

    @staticmethod
    def screen_after(text):
        """What a terminal without a right edge shows after the text."""
        rows, row = [""], 0
        column = 0
        for piece in re.findall(r"\x1b\[[?\d]*[a-zA-Z]|[\r\n]|[^\x1b\r\n]+", text):
            if piece == "\r":
                column = 0
            elif piece == "\n":
                row += 1
                rows.extend([""] * (row + 1 - len(rows)))
            elif piece.endswith("A"):
                row -= int(piece[2:-1])
            elif piece.endswith("K"):
                rows[row] = rows[row][:column]
            elif piece.endswith("J"):
                rows[row] = rows[row][:column]
                del rows[row + 1:]
            elif not piece.startswith("\x1b"):
                rows[row] = rows[row][:column].ljust(column) + piece + rows[row][column + len(piece):]
                column += len(piece)
        return rows

    def test_a_resumed_download_counts_what_is_there(self):
        process = self.interrupted_get(15)
        process.kill()
        process.wait(PATIENCE)
        self.origin.hold_after(2)
        process, _, read_until = self.on_terminal(
            80, "get", "--chunk-size", str(CHUNK), "--connections", "2", self.origin.url())
        self.origin.wait_until_held()
        read_until(lambda text: any(60 <= int(p) for p in re.findall(r"(\d+)%", text)))
        self.origin.release()
        read_until(lambda text: " in " in text)
        self.assertEqual(process.wait(PATIENCE), 0)
        self.assert_downloaded()

    def test_quiet_and_never_draw_nothing(self):
        for option in ("-q", "--progress=never"):
            with self.subTest(option):
                process, _, read_until = self.on_terminal(80, "get", option, "--force",
                                                          self.origin.url())
                self.assertEqual(process.wait(PATIENCE), 0)
                self.assertEqual(read_until(lambda _: True), "")


if __name__ == "__main__":
    unittest.main(verbosity=2)
