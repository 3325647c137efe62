"""Engines and transfers over the C interface."""

from __future__ import annotations

import asyncio
import atexit
import concurrent.futures
import contextlib
import ctypes
import enum
import itertools
import json as json_module
import os
import threading
import weakref
from dataclasses import dataclass, field
from typing import (TYPE_CHECKING, Any, Callable, Dict, Generator, Iterator, List, Mapping,
                    NamedTuple, Optional, Tuple, TypedDict, Union)

from . import _library as c
from ._errors import Cancelled, Error, ErrorCode, error_of
from ._library import lib

if TYPE_CHECKING:
    from typing_extensions import Unpack

Body = Union[bytes, bytearray, memoryview, str]
Path = Union[str, "os.PathLike[str]"]
Fields = Union[Mapping[str, str], List[Tuple[str, str]]]

_VERBS = {"PUT": 0, "POST": 1, "GET": 2, "DELETE": 3, "HEAD": 4, "OPTIONS": 5, "PATCH": 6}
_LONGEST_ERROR_BODY = 65536


class Chunking(enum.IntEnum):
    """Whether a transfer is cut into chunks that run in parallel."""

    DEFAULT = 0
    SERIAL = 1
    ALWAYS = 2


class ServerType(enum.IntEnum):
    """How an upload speaks to its server."""

    DEFAULT = 0
    S3 = 1
    SYNC_SERVICE = 2


class ChunkType(enum.IntEnum):
    """What a request of a transfer carries."""

    INIT = 0
    CHUNK = 1
    FINALISE = 2
    SINGLE = 3


class Progress(NamedTuple):
    """Bytes so far and in all; total is 0 while it is unknown."""

    done: int
    total: int


class RequestFailure(NamedTuple):
    """One failed request of a chunked transfer; status is 0 when no answer came."""

    type: ChunkType
    number: int
    code: int
    status: int
    message: str


@dataclass
class Response:
    """What a server answered; status is 0 when it did not."""

    status: int = 0
    http_version: str = ""
    reason: str = ""
    headers: List[Tuple[str, str]] = field(default_factory=list)
    body: bytes = b""

    def header(self, name: str) -> Optional[str]:
        """The value of the first header of that name, in any case."""
        for each, value in self.headers:
            if each.lower() == name.lower():
                return value
        return None

    def json(self) -> Any:
        return json_module.loads(self.body)


class TransferOptions(TypedDict, total=False):
    """What every call that starts a transfer takes as keyword arguments."""

    headers: Fields
    params: Fields  # of the query
    progress: Callable[[Progress], object]
    on_response: Callable[[Response], object]  # status, version and reason
    on_body: Callable[[int, bytes], object]  # position and bytes, in any order
    on_paused: Callable[[], object]
    on_request_failed: Callable[[RequestFailure], bool]  # whether it is sent again
    chunk_headers: Callable[[ChunkType, str, int], Fields]
    timeout: int  # seconds without progress after which a request fails
    retries: int  # of each failed request of a chunked transfer; 3 by default
    priority: int
    chunking: Chunking
    server_type: ServerType
    verify: bool  # certificates


_OPTIONS = frozenset(TransferOptions.__annotations__)


def _encoded(fields: Fields, capacity: int) -> List[Tuple[bytes, bytes]]:
    pairs = fields.items() if isinstance(fields, Mapping) else fields
    encoded = [(str(name).encode(), str(value).encode()) for name, value in pairs]
    if len(encoded) > capacity or any(len(n) > 1023 or len(v) > 8191 for n, v in encoded):
        raise ValueError("headers or parameters: too many, or one too long")
    if any(b"\0" in name + value for name, value in encoded):
        raise ValueError("headers or parameters: a NUL byte")
    return encoded


def _text(raw: Optional[bytes]) -> str:
    return (raw or b"").decode("utf-8", "replace")


def _c_text(text: str) -> bytes:
    raw = text.encode()
    if b"\0" in raw:
        raise ValueError("a NUL byte")
    return raw


def _c_path(path: Path) -> bytes:
    raw = os.fsencode(path)
    if b"\0" in raw:
        raise ValueError("a NUL byte")
    return raw


class Transfer:
    """One transfer. Wait for it with result(), or await it; both may be done.

    Cancelling the task that awaits it cancels the transfer and waits, for a second at most, until it
    has ended. Dropping a Transfer neither ends nor waits for it.
    """

    def __init__(self, engine: "Engine", options: TransferOptions, body: bytes = b"") -> None:
        unknown = set(options) - _OPTIONS
        if unknown:
            raise TypeError(f"unknown options: {', '.join(sorted(unknown))}")
        self._engine = engine
        self._options = options
        self._headers = _encoded(options.get("headers", {}), 64)
        self._params = _encoded(options.get("params", {}), 32)
        self._body = body
        self._body_start = 0
        self._longest_body: Optional[int] = None
        self._any_status_is_fine = False
        self._loop: Optional[asyncio.AbstractEventLoop] = None
        with contextlib.suppress(RuntimeError):
            self._loop = asyncio.get_running_loop()

        self._changed = threading.Condition()
        # Under _changed:
        self._token = 0  # callbacks may come before it is known
        self._wants_cancel = False
        self._wants_pause = False
        self._stopping = False
        self._ended = False
        self._response = Response()
        self._collected = bytearray()
        self._failed_status = 0
        self._failure: Optional[BaseException] = None
        self._attempts: Dict[Tuple[int, int], int] = {}

        self._future: "concurrent.futures.Future[Response]" = concurrent.futures.Future()
        self._future.set_running_or_notify_cancel()  # ended by the library alone

    # --- For everybody ----------------------------------------------------------------------------

    def result(self, timeout: Optional[float] = None) -> Response:
        """Waits for the end; raises when the transfer failed, TimeoutError when it still runs."""
        try:
            response = self._future.result(timeout)
        except concurrent.futures.TimeoutError:
            if self._future.done():
                raise  # the transfer's own
            raise TimeoutError("the transfer still runs") from None
        if self._failure is not None:
            raise self._failure
        return response

    def done(self) -> bool:
        return self._future.done()

    def cancel(self) -> bool:
        """Whether the engine accepted it; the end follows within a second. What was stored stays
        for the next download to the same partial file."""
        with self._changed:
            if self._ended:
                return False
            self._stopping = self._wants_cancel = True
            self._changed.notify_all()
            token = self._token
        if not token:
            return True
        return self._control(lambda handle: lib.kovoCancel(handle, token)) in (
            ErrorCode.NONE, ErrorCode.CANCELLED)

    def pause(self) -> bool:
        """Whether the engine accepted it. Running requests finish; then on_paused is called."""
        with self._changed:
            if self._ended:
                return False
            token = self._token
            if not token:
                self._wants_pause = True
                return True
        return self._control(lambda handle: lib.kovoPause(handle, token)) == ErrorCode.NONE

    def resume(self) -> bool:
        """Takes a pause back, even one that still drains."""
        with self._changed:
            token = self._token
            if not token:
                wanted, self._wants_pause = self._wants_pause, False
                return wanted
        same = ctypes.c_uint32()
        return self._control(lambda handle: lib.kovoResume(
            handle, token, None, ctypes.byref(same))) == ErrorCode.NONE

    def __await__(self) -> Generator[Any, None, Response]:
        return self._wait().__await__()

    async def _wait(self) -> Response:
        ended = asyncio.wrap_future(self._future)
        try:
            await asyncio.wait([ended])
        except asyncio.CancelledError:
            self.cancel()
            try:
                await asyncio.wait([ended])
            finally:
                if ended.done():
                    ended.exception()  # it is told by the cancellation
                else:
                    ended.cancel()
            raise
        response = ended.result()
        if self._failure is not None:
            raise self._failure  # of a callback that ran on the loop after the end
        return response

    # --- For the engine ---------------------------------------------------------------------------

    def _control(self, call: Callable[[int], int]) -> int:
        try:
            with self._engine._borrowed() as handle:
                return call(handle)
        except Error as error:
            return error.code

    def _started(self, token: int) -> None:
        with self._changed:
            self._token = token
            cancels, pauses = self._wants_cancel, self._wants_pause
        if cancels:
            self.cancel()
        elif pauses:
            self.pause()

    def _stop(self) -> None:
        with self._changed:
            self._stopping = True
            self._changed.notify_all()

    def _fail(self, what: BaseException) -> None:
        with self._changed:
            if self._failure is None:
                self._failure = what
        self.cancel()

    def _tell(self, callback: Optional[Callable[..., object]], *arguments: object) -> None:
        """Calls back on the event loop the transfer was started from, if there was one."""
        if callback is None:
            return
        if self._loop is None:
            callback(*arguments)
            return

        def guarded() -> None:
            try:
                callback(*arguments)
            except BaseException as error:  # pylint: disable=broad-except
                self._fail(error)

        with contextlib.suppress(RuntimeError):  # the loop is closed: nobody listens
            self._loop.call_soon_threadsafe(guarded)

    def _collect(self, offset: int, data: bytes) -> None:
        at = offset - self._body_start if offset >= self._body_start else offset
        with self._changed:
            if self._longest_body is not None:
                data = data[:max(self._longest_body - at, 0)]
                if not data:
                    return
            if len(self._collected) < at:
                self._collected.extend(bytes(at - len(self._collected)))
            self._collected[at:at + len(data)] = data

    def _retry(self, failure: RequestFailure) -> bool:
        """Waits out the pause before a request is sent again. A transfer that is being cancelled
        says yes: no is an error, which would cost the bytes it has stored."""
        passing = failure.status in (0, 408, 429) or failure.status >= 500
        with self._changed:
            if self._stopping:
                return True
            made = self._attempts.get((failure.type, failure.number), 0)
            if not passing or made >= self._options.get("retries", 3):
                return False
            self._attempts[failure.type, failure.number] = made + 1
            self._changed.wait_for(lambda: self._stopping, 0.1 * 2 ** min(made, 6))
            return True

    def _finish(self, code: int, message: str) -> None:
        with self._changed:
            if self._ended:
                return
            self._ended = self._stopping = True
            self._changed.notify_all()
            response = self._response
            response.body = bytes(self._collected)
            self._collected = bytearray()
            if code and self._failed_status and self._failed_status != response.status:
                response.status = self._failed_status
                response.reason = _text(lib.kovoHTTPStatusString(self._failed_status))
            if (response.status >= 400 and code != ErrorCode.CANCELLED
                    and not self._any_status_is_fine):
                code = code or ErrorCode.CHUNK_HTTP_ERROR
                message = f"{response.status} {response.reason}"
            failure = self._failure
            self._options = {}  # what its callbacks hold is free to go
        if failure is not None:
            self._future.set_exception(failure)
        elif code:
            self._future.set_exception(error_of(code, message, response))
        else:
            self._future.set_result(response)


# The running transfers by the number that the library carries as their context.
_running: Dict[int, Transfer] = {}
_numbers = itertools.count(1)


def _guarded(fallback: Any, call: Callable[..., Any]) -> Callable[..., Any]:
    """A callback of the library. Its last argument is the context; nothing is raised through it."""

    def callback(_instance: Optional[int], *arguments: Any) -> Any:
        transfer = _running.get(arguments[-1] or 0)
        if transfer is None:
            return fallback
        try:
            answer = call(transfer, *arguments[:-1])
            return fallback if answer is None else answer
        except BaseException as error:  # pylint: disable=broad-except
            transfer._fail(error)
            return fallback

    return callback


def _final(code: int) -> Any:
    def callback(_instance: Optional[int], context: Optional[int]) -> None:
        transfer = _running.pop(context or 0, None)
        if transfer is not None:
            transfer._finish(code, _text(lib.kovoErrorString(code)))

    return c.FinalCallback(callback)


def _on_error(_instance: Optional[int], code: int, message: Optional[bytes],
              context: Optional[int]) -> None:
    transfer = _running.pop(context or 0, None)
    if transfer is not None:
        transfer._finish(code, _text(message))


def _on_status(transfer: Transfer, version: bytes, status: int, reason: bytes) -> None:
    with transfer._changed:
        response = transfer._response
        response.status = status
        response.http_version = _text(version)
        response.reason = _text(reason)
        told = Response(status, response.http_version, response.reason)
    transfer._tell(transfer._options.get("on_response"), told)


def _on_headers(transfer: Transfer, headers: Any, count: int) -> None:
    fields = [(_text(headers[i].name), _text(headers[i].value)) for i in range(count)]
    with transfer._changed:
        transfer._response.headers = fields


def _on_body(transfer: Transfer, offset: int, data: int, size: int) -> None:
    content = ctypes.string_at(data, size) if size else b""
    on_body = transfer._options.get("on_body")
    if on_body is not None:
        on_body(offset, content)
    else:
        transfer._collect(offset, content)


def _on_request_body(transfer: Transfer, offset: int, buffer: int, count: Any, most: int) -> None:
    piece = transfer._body[offset:offset + most]
    ctypes.memmove(buffer, piece, len(piece))
    count[0] = len(piece)


def _on_request_body_length(transfer: Transfer, length: Any) -> None:
    length[0] = len(transfer._body)


def _on_progress(transfer: Transfer, done: int, total: int) -> None:
    transfer._tell(transfer._options.get("progress"), Progress(done, total))


def _put(fields: List[Tuple[bytes, bytes]], headers: Any, count: Any) -> None:
    for i, (name, value) in enumerate(fields):
        headers[i].name = name
        headers[i].value = value
    count[0] = len(fields)


def _on_chunk_headers(transfer: Transfer, kind: int, url: bytes, number: int, headers: Any,
                      capacity: int, count: Any) -> None:
    ask = transfer._options.get("chunk_headers")
    if ask is not None:
        _put(_encoded(ask(ChunkType(kind), _text(url), number), capacity), headers, count)


def _on_request_failed(transfer: Transfer, kind: int, number: int, code: int, status: int,
                       message: Optional[bytes]) -> int:
    failure = RequestFailure(ChunkType(kind), number, code, status, _text(message))
    ask = transfer._options.get("on_request_failed")
    again = ask(failure) if ask is not None else transfer._retry(failure)
    if not again:
        with transfer._changed:
            transfer._failed_status = status
    return 1 if again else 0


def _set(out: Any, value: int) -> None:
    out[0] = value


# Made once, and kept for as long as the library may call them.
_CALLBACKS: Dict[str, Tuple[Any, ...]] = {
    "Completion": (_final(ErrorCode.NONE),),
    "Cancellation": (_final(ErrorCode.CANCELLED),),
    "Error": (c.ErrorCallback(_on_error),),
    "StatusLine": (c.StatusLineCallback(_guarded(None, _on_status)),),
    "ResponseHeader": (c.ResponseHeaderCallback(_guarded(None, _on_headers)),),
    "ResponseBody": (c.ResponseBodyCallback(_guarded(None, _on_body)),),
    "RequestBody": (c.RequestBodyCallback(_guarded(None, _on_request_body)),
                    c.RequestBodyLengthCallback(_guarded(None, _on_request_body_length))),
    "Progress": (c.ProgressCallback(_guarded(None, _on_progress)),),
    "Paused": (c.FinalCallback(_guarded(
        None, lambda transfer: transfer._tell(transfer._options.get("on_paused")))),),
    "AddHeader": (c.HeadersCallback(_guarded(
        None, lambda transfer, headers, _, count: _put(transfer._headers, headers, count))),),
    "AddParameters": (c.HeadersCallback(_guarded(
        None, lambda transfer, fields, _, count: _put(transfer._params, fields, count))),),
    "AddChunkHeader": (c.ChunkHeadersCallback(_guarded(None, _on_chunk_headers)),),
    "ChunkErrorRetry": (c.ChunkErrorRetryCallback(_guarded(0, _on_request_failed)),),
    "SSLCertificatePolicy": (c.CertificatePolicyCallback(_guarded(
        None, lambda transfer, _, out: _set(out, 1 if transfer._options.get("verify", True) else 0),
    )),),
    "SetTimeout": (c.NumberCallback(_guarded(
        None, lambda transfer, out: _set(out, transfer._options.get("timeout", 0)))),),
    "SetServerType": (c.NumberCallback(_guarded(
        None, lambda transfer, out: _set(out, transfer._options.get("server_type", 0)))),),
}

_engines: "weakref.WeakSet[Engine]" = weakref.WeakSet()
_making = threading.Lock()


class Engine:
    """Moves files over HTTP. Usable from any thread; close() ends its transfers.

    As a context manager, with or without async, it is closed at the end of the block.
    """

    def __init__(self, *, connections: int = 16, adaptive: bool = False, active_transfers: int = 4,
                 chunk_size: int = 2 << 20, chunk_uploads: bool = False, resume: bool = True,
                 range_cache: bool = False, range_cache_size: int = 512 << 20,
                 progress_interval: float = 0.5, timeout: int = 30,
                 upload_rate: int = 0, download_rate: int = 0) -> None:
        """connections: requests that run at once, 1 to 64; adaptive: the measured throughput chooses
        their number below that; rates: bytes per second, 0 for no limit; times: seconds."""
        config = c.Config(
            maxActiveWorkProviders=active_transfers,
            workerPoolLowerLimit=min(connections, 2),
            workerPoolUpperLimit=connections,
            chunkSize=chunk_size,
            getCacheMaxSize=range_cache_size,
            progressInterval=int(progress_interval * 1000),
            chunkUploads=int(chunk_uploads),
            chunkDownloads=1,
            adaptiveStrategy=int(adaptive),
            getCacheEnabled=int(range_cache),
            adaptiveInitialThreadCount=min(connections, 8),
            timeoutBase=timeout,
            tryResumableTransfer=int(resume))
        self._changed = threading.Condition()
        self._users = 0  # calls that use the handle now; under _changed
        self._handle: Optional[int] = None
        self._process = os.getpid()
        with _making:  # the figure is the process's
            lib.kovoSetHardwareConcurrency(connections + 1)
            self._handle = lib.kovoCreate(ctypes.byref(config))
        if not self._handle:
            raise Error(ErrorCode.UNKNOWN, "the engine cannot start")
        for name, callbacks in _CALLBACKS.items():
            getattr(lib, f"kovoRegister{name}Callback")(self._handle, *callbacks)
        _engines.add(self)
        self.set_rates(upload_rate, download_rate)

    def __enter__(self) -> "Engine":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    async def __aenter__(self) -> "Engine":
        return self

    async def __aexit__(self, *_: object) -> None:
        # Callbacks that wait for this loop are let through.
        await asyncio.get_running_loop().run_in_executor(None, self.close)

    def __del__(self) -> None:
        if getattr(self, "_handle", None):
            self.close()

    @property
    def closed(self) -> bool:
        return self._handle is None or self._process != os.getpid()

    def close(self) -> None:
        """Ends all transfers, each with Cancelled, and the engine. Waits for callbacks that are
        running, except inside one."""
        with self._changed:
            handle, self._handle = self._handle, None
            if handle is None or self._process != os.getpid():
                return  # a forked process has none of the engine's threads
            self._changed.wait_for(lambda: self._users == 0)
        for transfer in self._transfers():
            transfer[1]._stop()
        reference = ctypes.c_void_p(handle)
        if lib.kovoDestroy(ctypes.byref(reference)) == ErrorCode.NONE:
            self._end_paused()
            return

        def destroy() -> None:  # this is a thread of the library, which cannot wait for itself
            lib.kovoDestroy(ctypes.byref(reference))
            self._end_paused()

        threading.Thread(target=destroy, name="kovo-close").start()

    # --- Transfers --------------------------------------------------------------------------------

    def download(self, url: str, path: Path, **options: "Unpack[TransferOptions]") -> Transfer:
        """Downloads url into a file, replacing it. A path that ends in "._kstmp" names a partial
        download: one that was interrupted goes on where it stopped."""
        transfer = Transfer(self, options)
        transfer._longest_body = _LONGEST_ERROR_BODY
        target = _c_path(path)
        return self._start(transfer, lambda handle, context, token: lib.kovoDownload(
            handle, _c_text(url), target, options.get("chunking", 0), options.get("priority", 0),
            context, token))

    def download_bytes(self, url: str, offset: int = 0, length: int = 0,
                       **options: "Unpack[TransferOptions]") -> Transfer:
        """Downloads url to on_body or Response.body: length bytes from offset on, 0 for all."""
        transfer = Transfer(self, options)
        mode, priority = options.get("chunking", 0), options.get("priority", 0)
        if not offset and not length:
            return self._start(transfer, lambda handle, context, token: lib.kovoDownloadToMemory(
                handle, _c_text(url), mode, priority, context, token))
        transfer._body_start = offset
        return self._start(transfer, lambda handle, context, token: lib.kovoDownloadRangeToMemory(
            handle, _c_text(url), offset, length, mode, priority, context, token))

    def upload(self, url: str, path: Path, verb: str = "PUT",
               **options: "Unpack[TransferOptions]") -> Transfer:
        """Uploads a file with PUT, POST or PATCH."""
        transfer = Transfer(self, options)
        source = _c_path(path)
        return self._start(transfer, lambda handle, context, token: lib.kovoUpload(
            handle, _VERBS[verb.upper()], _c_text(url), source, options.get("chunking", 0),
            options.get("priority", 0), context, token))

    def upload_bytes(self, url: str, body: Body, verb: str = "PUT",
                     **options: "Unpack[TransferOptions]") -> Transfer:
        """Uploads a body from memory with PUT, POST or PATCH."""
        transfer = Transfer(self, options, _bytes(body))
        return self._start(transfer, lambda handle, context, token: lib.kovoUploadFromMemory(
            handle, _VERBS[verb.upper()], _c_text(url), options.get("priority", 0), context, token))

    def request(self, verb: str, url: str, body: Body = b"", *, json: Any = None,
                gzip: bool = True, **options: "Unpack[TransferOptions]") -> Transfer:
        """Sends one request. An answer with any status is a success: look at Response.status.
        json, when given, is the body."""
        if json is not None:
            body = json_module.dumps(json)
            fields = options.get("headers", {})
            pairs = list(fields.items() if isinstance(fields, Mapping) else fields)
            if not any(name.lower() == "content-type" for name, _ in pairs):
                pairs.append(("Content-Type", "application/json"))
            options["headers"] = pairs
        transfer = Transfer(self, options, _bytes(body))
        transfer._any_status_is_fine = True
        return self._start(transfer, lambda handle, context, token: lib.kovoSendRequest(
            handle, _VERBS[verb.upper()], _c_text(url), options.get("priority", 0), int(gzip),
            context, token))

    # --- Settings ---------------------------------------------------------------------------------

    def set_rates(self, upload: int = 0, download: int = 0) -> None:
        """Most bytes per second over the whole engine; 0 for no limit."""
        up, down = (max(rate // 1024, 1) if rate else 0 for rate in (upload, download))
        with self._borrowed() as handle:
            _check(lib.kovoSetTargetDataRates(handle, up, down))

    def set_proxy_credentials(self, user: str, password: str) -> None:
        with self._borrowed() as handle:
            _check(lib.kovoSetSystemProxyCredentials(handle, _c_text(user), _c_text(password)))

    def set_multipart_upload_threshold(self, size: int) -> None:
        with self._borrowed() as handle:
            lib.kovoSetMultipartUploadThreshold(handle, size)

    def clear_cache(self) -> None:
        """Empties the cache of range answers."""
        with self._borrowed() as handle:
            lib.kovoClearCache(handle)

    # --- Inside -----------------------------------------------------------------------------------

    @contextlib.contextmanager
    def _borrowed(self) -> Iterator[int]:
        """The handle, which stays valid inside the block."""
        with self._changed:
            if self.closed:
                raise Cancelled(ErrorCode.INSTANCE_RELEASED, "the engine is closed")
            handle = self._handle
            assert handle is not None
            self._users += 1
        try:
            yield handle
        finally:
            with self._changed:
                self._users -= 1
                self._changed.notify_all()

    def _start(self, transfer: Transfer, call: Callable[[int, int, Any], int]) -> Transfer:
        token = ctypes.c_uint32()
        number = next(_numbers)
        _running[number] = transfer
        try:
            with self._borrowed() as handle:
                _check(call(handle, number, ctypes.byref(token)))
        except BaseException:
            _running.pop(number, None)
            raise
        transfer._started(token.value)
        return transfer

    def _transfers(self) -> List[Tuple[int, Transfer]]:
        return [item for item in list(_running.items()) if item[1]._engine is self]

    def _end_paused(self) -> None:
        """Transfers that lay paused get no final callback from the library."""
        for number, transfer in self._transfers():
            if _running.pop(number, None) is not None:
                transfer._finish(ErrorCode.CANCELLED, "the engine was closed")


def _bytes(body: Body) -> bytes:
    return body.encode() if isinstance(body, str) else bytes(body)


def _check(code: int) -> None:
    if code:
        raise error_of(code, _text(lib.kovoErrorString(code)))


def set_log_level(level: int) -> None:
    """How much the library logs, from 0 (little) to 6 (all), 7 for nothing; for the process."""
    lib.kovoSetLogLevel(level)


def set_s3_endpoint(domain: str) -> None:
    """The domain of S3 storage, for the process; empty for the public one."""
    _check(lib.kovoSetS3Endpoint(_c_text(domain)))


def version() -> str:
    """The version of the library."""
    return _text(lib.kovoVersion())


@atexit.register
def _close_all() -> None:
    # Before the interpreter goes away: the library's threads call into it.
    for engine in list(_engines):
        engine.close()
