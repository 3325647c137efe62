"""Parallel, resumable HTTP transfers.

A call returns a Transfer at once: wait for it with ``.result()``, or ``await`` it.

    kovo.download("https://example.org/image.iso", "image.iso").result()
    await kovo.download("https://example.org/image.iso", "image.iso")

The functions of this module share one engine with default settings; Engine makes another.
"""

from __future__ import annotations

import os
import threading
from typing import TYPE_CHECKING, Any, Optional

from ._engine import (Body, Chunking, ChunkType, Engine, Progress, RequestFailure, Response,
                      ServerType, Transfer, TransferOptions, set_log_level, set_s3_endpoint,
                      version)
from ._errors import Cancelled, Error, ErrorCode, HTTPError, Timeout

if TYPE_CHECKING:
    from typing_extensions import Unpack

__all__ = [
    "Body", "Cancelled", "ChunkType", "Chunking", "Engine", "Error", "ErrorCode", "HTTPError",
    "Progress", "RequestFailure", "Response", "ServerType", "Timeout", "Transfer",
    "TransferOptions", "default_engine", "download", "download_bytes", "request", "set_log_level",
    "set_s3_endpoint", "upload", "upload_bytes", "version",
]

_lock = threading.Lock()
_default: Optional[Engine] = None


def default_engine() -> Engine:
    """The engine behind the functions of this module; made when it is first needed."""
    global _default
    with _lock:
        # A forked process has the memory of an engine, but none of its threads.
        if _default is None or _default.closed:
            _default = Engine()
        return _default


def download(url: str, path: "str | os.PathLike[str]", **options: "Unpack[TransferOptions]",
             ) -> Transfer:
    """See Engine.download."""
    return default_engine().download(url, path, **options)


def download_bytes(url: str, offset: int = 0, length: int = 0,
                   **options: "Unpack[TransferOptions]") -> Transfer:
    """See Engine.download_bytes."""
    return default_engine().download_bytes(url, offset, length, **options)


def upload(url: str, path: "str | os.PathLike[str]", verb: str = "PUT",
           **options: "Unpack[TransferOptions]") -> Transfer:
    """See Engine.upload."""
    return default_engine().upload(url, path, verb, **options)


def upload_bytes(url: str, body: Body, verb: str = "PUT",
                 **options: "Unpack[TransferOptions]") -> Transfer:
    """See Engine.upload_bytes."""
    return default_engine().upload_bytes(url, body, verb, **options)


def request(verb: str, url: str, body: Body = b"", *, json: Any = None, gzip: bool = True,
            **options: "Unpack[TransferOptions]") -> Transfer:
    """See Engine.request."""
    return default_engine().request(verb, url, body, json=json, gzip=gzip, **options)
