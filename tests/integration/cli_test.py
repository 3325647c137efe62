#!/usr/bin/env python3
"""The program kovo as a user meets it: files, exit codes, messages, Ctrl-C, terminal.

usage: cli_test.py KOVO [unittest options]
"""

import fcntl
import hashlib
import http.server
import os
import pathlib
import pty
import random
import re
import select
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time
import unittest

KOVO = sys.argv.pop(1)
PATIENCE = 60
CHUNK = 64 * 1024


class Origin:
    """A server of one resource that answers ranges, and holds or fails requests on demand."""

    def __init__(self, body, certificate=None):
        self.body = body
        self.etag = '"first"'
        self.lock = threading.Condition()
        self.served = 0          # body bytes of complete answers
        self.requests = []       # (verb, path, range, headers)
        self.answers_left = None  # complete answers before the next request is held; None: all
        self.held = 0
        self.fail_with = []      # statuses of the next answers to ranges past the first
        self.uploads = {}
        origin = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *_):
                pass

            def do_HEAD(self):
                self.answer(head=True)

            def do_GET(self):
                self.answer(head=False)

            def do_PUT(self):
                size = int(self.headers["Content-Length"])
                origin.uploads[self.path] = self.rfile.read(size)
                self.reply(201, b"")

            def reply(self, status, body, headers=()):
                self.send_response(status)
                for name, value in headers:
                    self.send_header(name, value)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def answer(self, head):
                wanted = self.headers.get("Range")
                with origin.lock:
                    origin.requests.append((self.command, self.path, wanted, dict(self.headers)))
                    if self.path.startswith("/missing"):
                        fail = 404
                    elif origin.fail_with and wanted and not wanted.startswith("bytes=0-"):
                        fail = origin.fail_with.pop(0)
                    else:
                        fail = None
                    if fail is None and not head and origin.answers_left is not None:
                        if origin.answers_left == 0:
                            origin.held += 1
                            origin.lock.notify_all()
                            origin.lock.wait_for(lambda: origin.answers_left != 0, PATIENCE)
                            origin.held -= 1
                        if origin.answers_left:
                            origin.answers_left -= 1
                if fail is not None:
                    self.reply(fail, b"no such thing here\n", [("Content-Type", "text/plain")])
                    return
                body, status = origin.body, 200
                headers = [("ETag", origin.etag), ("Accept-Ranges", "bytes")]
                if head:
                    self.send_response(200)
                    for name, value in headers:
                        self.send_header(name, value)
                    self.send_header("Content-Length", str(len(body)))
                    self.end_headers()
                    return
                match = re.fullmatch(r"bytes=(\d+)-(\d*)", wanted or "")
                if match and int(match[1]) >= len(body):
                    self.reply(416, b"", [("Content-Range", f"bytes */{len(body)}")])
                    return
                if match:
                    first = int(match[1])
                    last = min(int(match[2] or len(body)), len(body) - 1)
                    status = 206
                    headers.append(("Content-Range", f"bytes {first}-{last}/{len(body)}"))
                    body = body[first:last + 1]
                try:
                    self.reply(status, body, headers)
                except OSError:
                    return
                with origin.lock:
                    origin.served += len(body)

        class Server(http.server.ThreadingHTTPServer):
            daemon_threads = True
            request_queue_size = 64

            def handle_error(self, *_):
                pass  # clients of these tests are killed on purpose

        self.server = Server(("127.0.0.1", 0), Handler)
        self.scheme = "http"
        if certificate:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(*certificate)
            self.server.socket = context.wrap_socket(self.server.socket, server_side=True,
                                                     do_handshake_on_connect=False)
            self.scheme = "https"
        self.port = self.server.server_address[1]
        self.thread = threading.Thread(target=self.server.serve_forever, args=(0.02,), daemon=True)
        self.thread.start()

    def url(self, path="/file.bin", user=""):
        return f"{self.scheme}://{user}127.0.0.1:{self.port}{path}"

    def hold_after(self, answers):
        with self.lock:
            self.answers_left = answers

    def release(self):
        with self.lock:
            self.answers_left = None
            self.lock.notify_all()

    def wait_until_held(self):
        with self.lock:
            if not self.lock.wait_for(lambda: self.held > 0, PATIENCE):
                raise TimeoutError("no request is held")

    def close(self):
        self.release()
        self.server.shutdown()
        self.server.server_close()


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
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                   **options)
        self.addCleanup(self.finish, process)
        return process

    def finish(self, process):
        if process.poll() is None:
            process.kill()
        for stream in (process.stdout, process.stderr):
            if stream:
                stream.close()
        process.wait(PATIENCE)

    def run_kovo(self, *arguments, expect=0):
        process = self.start(*arguments)
        output, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, expect, errors)
        return output, errors

    def get(self, *arguments, expect=0):
        return self.run_kovo("get", "--chunk-size", str(CHUNK), *arguments, expect=expect)

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
                           ("/d/?q", "index.html"), ("/%E2%82%AC", "\u20ac")]:
            with self.subTest(path):
                self.get(self.origin.url(path))
                self.assert_downloaded(name)
                (self.work / name).unlink()

    def test_names_that_leave_the_folder_or_disturb_a_terminal_are_refused(self):
        for path in ["/..%2fescape", "/a%5Cb", "/x%1b%5B2J", "/%2e%2e"]:
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

    # Interruption

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
        for arguments in [[], ["fetch", url], ["get"], ["get", url, url], ["get", "--nope", url],
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

    def test_help_and_version(self):
        output, _ = self.run_kovo("--version")
        self.assertRegex(output, r"^kovo \d+\.\d+\.\d+")
        output, _ = self.run_kovo("help", "exit-codes")
        for code in (0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 130):
            self.assertRegex(output, rf"(?m)^  {code} ")
        output, _ = self.run_kovo("get", "--help")
        self.assertIn("--chunk-size", output)

    # The terminal

    def on_terminal(self, columns, *arguments):
        """Runs kovo with a terminal as its standard error; returns a function that reads it."""
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))

        def own_terminal():
            os.setsid()
            fcntl.ioctl(slave, termios.TIOCSCTTY, 0)

        process = subprocess.Popen([KOVO, *arguments], cwd=self.work, env=self.environment,
                                   stdin=slave, stdout=subprocess.DEVNULL, stderr=slave,
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
        text = read_until(lambda text: "again" in text)
        self.assertEqual(process.wait(PATIENCE), 130)
        self.assertIn("\x1b[?25h", text)

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
