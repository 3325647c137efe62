#!/usr/bin/env python3
"""The example programs do what they say.

usage: examples_test.py BUILD_FOLDER [unittest options]
"""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
import origin  # pylint: disable=wrong-import-position

PROGRAMS = pathlib.Path(sys.argv.pop(1))
PATIENCE = 60


class Examples(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.origin = origin.Origin(origin.sample(9_000_001))
        self.addCleanup(self.origin.close)
        self.environment = dict(os.environ, XDG_DATA_HOME=str(self.folder / "data"), no_proxy="*")

    def start(self, example, *arguments):
        process = subprocess.Popen([PROGRAMS / f"example_{example}", *arguments],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env=self.environment)
        self.addCleanup(process.kill)
        return process

    def run_example(self, example, *arguments, code=0):
        process = self.start(example, *arguments)
        output, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, code, errors.decode())
        return output, errors.decode()

    def test_download(self):
        target = self.folder / "file"
        output, _ = self.run_example("download", self.origin.url(), target)
        self.assertEqual(target.read_bytes(), self.origin.body)
        self.assertIn(b"of 9000001 bytes", output)
        _, errors = self.run_example("download", self.origin.url("/missing"), target, code=1)
        self.assertIn("failed", errors)

    def test_download_to_memory(self):
        output, _ = self.run_example("download_to_memory", self.origin.url())
        self.assertEqual(output, self.origin.body)
        output, errors = self.run_example("download_to_memory", self.origin.url("/missing"), code=1)
        self.assertEqual(output, b"")
        self.assertIn("404", errors)

    def test_send_json(self):
        document = {"name": "thing", "size": [1, 2]}
        output, errors = self.run_example("send_json", self.origin.url("/echo"),
                                          json.dumps(document))
        answer = json.loads(output)
        self.assertEqual((answer["verb"], answer["document"]), ("POST", document))
        self.assertEqual(answer["headers"]["Content-Type"], "application/json")
        self.assertIn("status 200", errors)
        output, _ = self.run_example("send_json", self.origin.url("/echo"), "{not", code=1)
        self.assertEqual(output, b"not JSON\n")

    def test_upload_s3(self):
        source = self.folder / "backup"
        source.write_bytes(self.origin.body)
        self.run_example("upload_s3", source, self.origin.url("/bucket/backup"), "token 1")
        self.assertEqual(self.origin.objects, {"/bucket/backup": self.origin.body})
        self.assertEqual([len(parts) for parts in self.origin.parts.values()], [2])
        for _, _, headers in self.origin.requests:
            self.assertEqual(headers["Authorization"], "token 1")

    def test_pause_and_resume(self):
        # More chunks than can run at once: some are left for the time after the pause.
        self.origin.body = origin.sample(20 * 2 << 20)
        self.origin.hold_after(1)
        target = self.folder / "file"
        process = self.start("pause_resume", self.origin.url(), target)
        self.origin.wait_until_held()
        for key, answer in ((b"\n", b"pause: "), (b"\n", b"resume: ")):
            process.stdin.write(key)
            process.stdin.flush()
            line = process.stdout.readline()
            while not line.startswith(answer):
                self.assertNotEqual(line, b"")
                line = process.stdout.readline()
            if answer == b"pause: ":
                self.origin.hold_after(None)  # the running requests end, and with them the pause
                self.assertEqual(process.stdout.readline(), b"paused\n")
        _, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 0, errors.decode())
        self.assertEqual(target.read_bytes(), self.origin.body)


if __name__ == "__main__":
    unittest.main()
