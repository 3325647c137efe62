"""What transfers fail with."""

from __future__ import annotations

import enum
from typing import TYPE_CHECKING, Optional

if TYPE_CHECKING:
    from ._engine import Response


class ErrorCode(enum.IntEnum):
    """The codes of kovo.h. Codes from PLATFORM_STATUS on are statuses of the platform."""

    NONE = 0
    UNKNOWN = 1
    INSTANCE_NOT_INITIALISED = 2
    INSTANCE_RELEASED = 3
    INVALID_PARAMETERS = 4
    CANCELLED = 5
    NOT_IMPLEMENTED = 6
    DOWNLOAD_FAILED = 7
    INVALID_HTTP_VERB = 8
    UPLOAD_FAILED_TO_READ_FILE = 9
    WRITE_STREAM_FAILURE = 10
    READ_STREAM_FAILURE = 11
    INVALID_ENDPOINT = 12
    INVALID_BYTE_RANGE = 13
    COULD_NOT_CREATE_REQUEST_STREAM = 14
    NO_URL = 15
    INVALID_OUTPUT_FILE = 16
    NO_REQUEST_BODY_CALLBACK = 17
    INVALID_INPUT_FILE = 18
    OPERATION_ERROR = 19
    PROXY_ERROR = 20
    UNTRUSTED_SERVER_CERTIFICATE = 21
    NO_COMPLETION_CALLBACK = 22
    NO_ERROR_CALLBACK = 23
    NO_CANCELLATION_CALLBACK = 24
    NO_RESPONSE_BODY_CALLBACK = 25
    NO_CONTENT_LENGTH_CALLBACK = 26
    NOT_ENOUGH_DATA = 27
    TOO_MUCH_DATA = 28
    TIMEOUT = 29
    RESUME_FAILED = 30
    FILE_MODIFIED = 31
    NETWORK_ERROR = 32
    INSUFFICIENT_DISK_SPACE = 33
    FILE_LOCKED = 34
    INVALID_FILE_NAME = 35
    FILE_NOT_FOUND = 36
    PARENT_FOLDER_NOT_FOUND = 37
    NOT_CANCELLABLE = 38
    PATH_TOO_LONG = 39
    CHUNK_HTTP_ERROR = 40
    CHUNK_RETRY_FAILED = 41
    NO_STATUS_LINE_CALLBACK = 42
    SUBMIT_FAILED = 43
    PLATFORM_STATUS = 100000


class Error(Exception):
    """Why a transfer could not start, or how it failed.

    code is an ErrorCode, or a number from ErrorCode.PLATFORM_STATUS on; response is what the server
    had answered, if it had.
    """

    def __init__(self, code: int, message: str, response: "Optional[Response]" = None) -> None:
        super().__init__(message)
        self.code: int = ErrorCode(code) if code in ErrorCode._value2member_map_ else code
        self.message = message
        self.response = response

    @property
    def status(self) -> int:
        """The HTTP status; 0 when there was no answer."""
        return self.response.status if self.response is not None else 0


class HTTPError(Error):
    """The server answered with a status of 400 or more."""


class Timeout(Error, TimeoutError):
    """A request stood still for too long."""


class Cancelled(Error):
    """The transfer was cancelled, or its engine closed."""


def error_of(code: int, message: str, response: "Optional[Response]" = None) -> Error:
    if code == ErrorCode.CANCELLED:
        return Cancelled(code, message, response)
    if response is not None and response.status >= 400:
        return HTTPError(code, message, response)
    if code == ErrorCode.TIMEOUT:
        return Timeout(code, message, response)
    return Error(code, message, response)
