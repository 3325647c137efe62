"""The Python module, with plain waits and with asyncio. Run by run-python-tests."""

import asyncio
import contextlib
import gc
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import threading
import unittest
import weakref

import kovo
import origin

PATIENCE = 60
CHUNK = 65536


class Binding(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        os.environ["XDG_DATA_HOME"] = str(self.folder / "data")
        self.origin = origin.Origin(origin.sample(40 * CHUNK + 7))
        self.addCleanup(self.origin.close)
        self.engine = kovo.Engine(chunk_size=CHUNK, connections=8, progress_interval=0.001)
        self.addCleanup(self.engine.close)
        self.target = self.folder / "file"

    def assert_whole(self):
        self.assertEqual(self.target.read_bytes(), self.origin.body)


class Plain(Binding):
    def test_downloads(self):
        progress = []
        response = self.engine.download(self.origin.url(), self.target,
                                        progress=progress.append).result(PATIENCE)
        self.assertEqual((response.status, response.header("etag")), (206, '"first"'))
        self.assert_whole()
        self.assertTrue(progress)
        whole = self.engine.download_bytes(self.origin.url()).result(PATIENCE)
        self.assertEqual(whole.body, self.origin.body)
        part = self.engine.download_bytes(self.origin.url(), CHUNK + 3, 5 * CHUNK).result(PATIENCE)
        self.assertEqual(part.body, self.origin.body[CHUNK + 3:6 * CHUNK + 3])
        pieces = {}
        self.engine.download_bytes(self.origin.url(), on_body=pieces.__setitem__).result(PATIENCE)
        self.assertEqual(b"".join(pieces[at] for at in sorted(pieces)), self.origin.body)

    def test_requests_and_uploads(self):
        answer = self.engine.request("POST", self.origin.url("/echo"), json={"a": [1]},
                                     headers={"X-Colour": "grün"},
                                     params={"q": "1"}).result(PATIENCE).json()
        self.assertEqual((answer["verb"], answer["document"], answer["query"]),
                         ("POST", {"a": [1]}, "q=1"))
        self.assertEqual(answer["headers"]["Content-Type"], "application/json")
        self.assertEqual(answer["headers"]["X-Colour"].encode("latin-1").decode(), "grün")
        self.assertEqual(self.engine.request("get", self.origin.url("/missing")).result().status,
                         404)
        self.engine.upload_bytes(self.origin.url("/bytes"), b"content").result(PATIENCE)
        self.target.write_bytes(self.origin.body)
        self.engine.upload(self.origin.url("/file"), self.target).result(PATIENCE)
        large = origin.sample(11 << 20)
        (self.folder / "large").write_bytes(large)
        self.engine.upload(self.origin.url("/bucket/key"), self.folder / "large",
                           server_type=kovo.ServerType.S3,
                           chunking=kovo.Chunking.ALWAYS).result(PATIENCE)
        self.assertEqual(self.origin.objects, {"/bytes": b"content", "/file": self.origin.body,
                                               "/bucket/key": large})

    def test_errors(self):
        for start in (lambda url: self.engine.download(url, self.target),
                      lambda url: self.engine.download_bytes(url),
                      lambda url: self.engine.download_bytes(url, chunking=kovo.Chunking.SERIAL),
                      lambda url: self.engine.upload_bytes(url, b"x")):
            with self.assertRaises(kovo.HTTPError) as caught:
                start(self.origin.url("/missing")).result(PATIENCE)
            self.assertEqual((caught.exception.status, str(caught.exception)),
                             (404, "404 Not Found"))
        with self.assertRaises(kovo.Error) as caught:
            self.engine.download("http://127.0.0.1:1/", self.target).result(PATIENCE)
        self.assertGreaterEqual(caught.exception.code, kovo.ErrorCode.PLATFORM_STATUS)
        with self.assertRaises(kovo.Error) as caught:
            self.engine.download("", self.target)
        self.assertIs(caught.exception.code, kovo.ErrorCode.NO_URL)
        for wrong, kind in (({"colour": 1}, TypeError), ({"headers": {"X": "x" * 8192}}, ValueError),
                            ({"params": [("a", "b")] * 33}, ValueError)):
            with self.assertRaises(kind):
                self.engine.download(self.origin.url(), self.target, **wrong)
        self.origin.hold_after(0)
        with self.assertRaises(kovo.Timeout):
            self.engine.download(self.origin.url(), self.target, timeout=1,
                                 retries=0).result(PATIENCE)

    def test_an_exception_of_a_callback_cancels_and_is_raised(self):
        def broken(*_):
            raise ZeroDivisionError

        for name in ("on_response", "on_body", "chunk_headers"):
            with self.assertRaises(ZeroDivisionError, msg=name):
                self.engine.download_bytes(self.origin.url(), **{name: broken}).result(PATIENCE)

    def test_cancel_pause_resume(self):
        self.origin.hold_after(1)
        paused = threading.Event()
        transfer = self.engine.download(self.origin.url(), self.target, on_paused=paused.set)
        self.origin.wait_until_held()
        with self.assertRaises(TimeoutError):
            transfer.result(0)
        self.assertTrue(transfer.pause())
        self.origin.hold_after(None)
        self.assertTrue(paused.wait(PATIENCE))
        self.assertFalse(transfer.done())
        self.assertTrue(transfer.resume())
        transfer.result(PATIENCE)
        self.assert_whole()
        self.assertFalse(transfer.cancel())

        self.origin.hold_after(1)
        transfer = self.engine.download(self.origin.url(), self.target)
        self.assertTrue(transfer.cancel())
        with self.assertRaises(kovo.Cancelled):
            transfer.result(PATIENCE)

    def test_retries(self):
        self.origin.fail_with = [503, 503, 429]
        self.engine.download(self.origin.url(), self.target).result(PATIENCE)
        self.assert_whole()
        self.origin.fail_with = [503]
        failures = []
        with self.assertRaises(kovo.HTTPError) as caught:
            self.engine.download(self.origin.url(), self.target,
                                 on_request_failed=failures.append).result(PATIENCE)
        self.assertEqual(caught.exception.status, 503)
        self.assertEqual([failure.status for failure in failures], [503])

    def test_closing_ends_everything(self):
        self.origin.hold_after(1)
        paused = threading.Event()
        resting = self.engine.download(self.origin.url(), self.target, on_paused=paused.set)
        self.origin.wait_until_held()
        resting.pause()
        self.origin.hold_after(None)
        self.assertTrue(paused.wait(PATIENCE))
        self.origin.fail_with = [503] * 100000
        waiting = self.engine.download(self.origin.url(), self.folder / "b", retries=1000)
        with self.engine:
            pass
        for transfer in (resting, waiting):
            with self.assertRaises(kovo.Cancelled):
                transfer.result(PATIENCE)
            self.assertFalse(transfer.cancel() or transfer.pause() or transfer.resume())
        with self.assertRaises(kovo.Cancelled):
            self.engine.download(self.origin.url(), self.target)
        self.engine.close()

    def test_an_engine_may_be_closed_or_dropped_inside_a_callback(self):
        self.origin.hold_after(0)
        held = self.engine.download(self.origin.url(), self.target,
                                    chunking=kovo.Chunking.SERIAL)
        self.origin.wait_until_held()
        self.engine.request("POST", self.origin.url("/echo"), json=1,
                            on_response=lambda _: self.engine.close())
        with self.assertRaises(kovo.Cancelled):
            held.result(PATIENCE)
        self.origin.hold_after(None)

        engine = kovo.Engine()
        watch = weakref.ref(engine)
        transfer = engine.download(self.origin.url(), self.target)
        del engine
        transfer.result(PATIENCE)
        self.assert_whole()
        del transfer
        gc.collect()
        self.assertIsNone(watch())

    def test_the_program_ends_with_transfers_running(self):
        self.origin.hold_after(1)
        script = (f"import kovo; t = kovo.download({self.origin.url()!r}, {str(self.target)!r}, "
                  "chunking=kovo.Chunking.ALWAYS, progress=print)\n")
        for end in ("", "t.pause()", "raise SystemExit"):
            process = subprocess.run([sys.executable, "-c", script + end], timeout=PATIENCE,
                                     capture_output=True, check=False)
            self.assertEqual((process.returncode, process.stderr), (0, b""), end)
        process = subprocess.Popen([sys.executable, "-c", script + "print(flush=True); t.result()"],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdout.readline()
        process.send_signal(signal.SIGINT)
        self.assertIn(b"KeyboardInterrupt", process.communicate(timeout=PATIENCE)[1])

    def test_a_forked_process_leaves_the_engine_alone(self):
        child = os.fork()
        if child == 0:
            status = 1
            with contextlib.suppress(BaseException):
                closed = self.engine.closed
                self.engine.close()
                with kovo.Engine() as own:
                    answer = own.request("POST", self.origin.url("/echo"), json=1).result(PATIENCE)
                status = 0 if closed and answer.status == 200 else 2
            os._exit(status)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 0)
        self.engine.download(self.origin.url(), self.target).result(PATIENCE)


class Asynchronous(Binding, unittest.IsolatedAsyncioTestCase):
    async def test_awaits_with_callbacks_on_the_loop(self):
        threads = set()
        response = await self.engine.download(
            self.origin.url(), self.target,
            progress=lambda _: threads.add(threading.current_thread()),
            on_response=lambda _: threads.add(threading.current_thread()))
        self.assertEqual(response.status, 206)
        self.assertEqual(threads, {threading.current_thread()})
        self.assert_whole()
        answers = await asyncio.gather(*(self.engine.request("POST", self.origin.url("/echo"), json=i)
                                         for i in range(50)))
        self.assertEqual([answer.json()["document"] for answer in answers], list(range(50)))
        with self.assertRaises(kovo.HTTPError):
            await self.engine.download_bytes(self.origin.url("/missing"))

    async def test_cancelling_the_task_cancels_the_transfer(self):
        self.origin.hold_after(1)
        transfer = self.engine.download(self.origin.url(), self.target)

        async def waits():
            await transfer

        task = asyncio.create_task(waits())
        await asyncio.get_running_loop().run_in_executor(None, self.origin.wait_until_held)
        task.cancel()
        with self.assertRaises(asyncio.CancelledError):
            await asyncio.wait_for(task, PATIENCE)
        self.assertTrue(transfer.done())
        with self.assertRaises(kovo.Cancelled):
            transfer.result()
        with self.assertRaises(asyncio.TimeoutError):
            await asyncio.wait_for(waits_for(self.engine.download(self.origin.url(), self.target)),
                                   0.05)

    async def test_an_exception_on_the_loop_cancels_and_is_raised(self):
        def broken(_):
            raise ZeroDivisionError

        self.origin.hold_after(1)
        with self.assertRaises(ZeroDivisionError):
            await self.engine.download_bytes(self.origin.url(), on_response=broken)
        with self.assertRaises(ZeroDivisionError):
            await self.engine.request("POST", self.origin.url("/echo"), json=1, on_response=broken)

    async def test_the_module_and_async_with(self):
        self.addCleanup(lambda: kovo.default_engine().close())
        self.assertEqual((await kovo.download_bytes(self.origin.url())).body, self.origin.body)
        async with kovo.Engine() as engine:
            self.origin.hold_after(0)
            transfer = engine.download(self.origin.url(), self.target)
        with self.assertRaises(kovo.Cancelled):
            await transfer


async def waits_for(transfer):
    return await transfer
