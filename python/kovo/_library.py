"""libkovo.so.1 through ctypes: the declarations of kovo.h and kovo_ext.h that this package needs."""

from __future__ import annotations

import ctypes
import os
from ctypes import CFUNCTYPE, POINTER, c_char, c_char_p, c_int32, c_uint32, c_uint64, c_void_p


class Config(ctypes.Structure):
    _fields_ = [
        ("workQueuePolicy", c_uint32),
        ("maxActiveWorkProviders", c_uint32),
        ("workerPoolLowerLimit", c_uint32),
        ("workerPoolUpperLimit", c_uint32),
        ("chunkSize", c_uint64),
        ("getCacheMaxSize", c_uint64),
        ("progressInterval", c_uint32),
        ("chunkUploads", c_uint32),
        ("chunkDownloads", c_uint32),
        ("adaptiveStrategy", c_uint32),
        ("getCacheEnabled", c_uint32),
        ("adaptiveInitialThreadCount", c_uint32),
        ("reserved2", c_uint32),
        ("timeoutBase", c_uint32),
        ("basePath", c_char_p),
        ("tryResumableTransfer", c_uint32),
        ("reserved3", c_uint32),
        ("reserved4", c_uint32),
    ]


class Header(ctypes.Structure):
    _fields_ = [("name", c_char * 1024), ("value", c_char * 8192)]


class HeaderRef(ctypes.Structure):
    _fields_ = [("name", c_char_p), ("value", c_char_p)]


_I, _C = c_void_p, c_void_p  # instance and context

FinalCallback = CFUNCTYPE(None, _I, _C)  # completion, cancellation and paused callbacks
ErrorCallback = CFUNCTYPE(None, _I, c_uint32, c_char_p, _C)
StatusLineCallback = CFUNCTYPE(None, _I, c_char_p, c_uint32, c_char_p, _C)
ResponseHeaderCallback = CFUNCTYPE(None, _I, POINTER(HeaderRef), c_uint32, _C)
ResponseBodyCallback = CFUNCTYPE(None, _I, c_uint64, c_void_p, c_uint64, _C)
RequestBodyCallback = CFUNCTYPE(None, _I, c_uint64, c_void_p, POINTER(c_uint64), c_uint64, _C)
RequestBodyLengthCallback = CFUNCTYPE(None, _I, POINTER(c_uint64), _C)
ProgressCallback = CFUNCTYPE(None, _I, c_uint64, c_uint64, _C)
HeadersCallback = CFUNCTYPE(None, _I, POINTER(Header), c_uint32, POINTER(c_uint32), _C)
ChunkHeadersCallback = CFUNCTYPE(None, _I, c_uint32, c_char_p, c_uint32, POINTER(Header), c_uint32,
                                 POINTER(c_uint32), _C)
ChunkErrorRetryCallback = CFUNCTYPE(c_int32, _I, c_uint32, c_uint32, c_uint32, c_uint32, c_char_p,
                                    _C)
CertificatePolicyCallback = CFUNCTYPE(None, _I, c_char_p, POINTER(c_uint32), _C)
NumberCallback = CFUNCTYPE(None, _I, POINTER(c_uint32), _C)  # timeout and server type


def _load() -> ctypes.CDLL:
    library = ctypes.CDLL(os.environ.get("KOVO_LIBRARY") or "libkovo.so.1")
    token = POINTER(c_uint32)
    functions = {
        "kovoCreate": (c_void_p, [POINTER(Config)]),
        "kovoDestroy": (c_uint32, [POINTER(c_void_p)]),
        "kovoDownload": (c_uint32, [_I, c_char_p, c_char_p, c_int32, c_uint32, _C, token]),
        "kovoDownloadToMemory": (c_uint32, [_I, c_char_p, c_int32, c_uint32, _C, token]),
        "kovoDownloadRangeToMemory":
            (c_uint32, [_I, c_char_p, c_uint64, c_uint64, c_int32, c_uint32, _C, token]),
        "kovoUpload": (c_uint32, [_I, c_uint32, c_char_p, c_char_p, c_int32, c_uint32, _C, token]),
        "kovoUploadFromMemory": (c_uint32, [_I, c_uint32, c_char_p, c_uint32, _C, token]),
        "kovoSendRequest": (c_uint32, [_I, c_uint32, c_char_p, c_uint32, c_uint32, _C, token]),
        "kovoCancel": (c_uint32, [_I, c_uint32]),
        "kovoPause": (c_uint32, [_I, c_uint32]),
        "kovoResume": (c_uint32, [_I, c_uint32, c_void_p, token]),
        "kovoSetTargetDataRates": (c_uint32, [_I, c_uint64, c_uint64]),
        "kovoSetSystemProxyCredentials": (c_uint32, [_I, c_char_p, c_char_p]),
        "kovoSetMultipartUploadThreshold": (None, [_I, c_uint64]),
        "kovoClearCache": (None, [_I]),
        "kovoSetLogLevel": (None, [c_uint32]),
        "kovoSetHardwareConcurrency": (None, [c_uint32]),
        "kovoSetS3Endpoint": (c_uint32, [c_char_p]),
        "kovoErrorString": (c_char_p, [c_uint32]),
        "kovoHTTPStatusString": (c_char_p, [c_int32]),
        "kovoVersion": (c_char_p, []),
        "kovoRegisterCompletionCallback": (c_uint32, [_I, FinalCallback]),
        "kovoRegisterCancellationCallback": (c_uint32, [_I, FinalCallback]),
        "kovoRegisterPausedCallback": (c_uint32, [_I, FinalCallback]),
        "kovoRegisterErrorCallback": (c_uint32, [_I, ErrorCallback]),
        "kovoRegisterStatusLineCallback": (c_uint32, [_I, StatusLineCallback]),
        "kovoRegisterResponseHeaderCallback": (c_uint32, [_I, ResponseHeaderCallback]),
        "kovoRegisterResponseBodyCallback": (c_uint32, [_I, ResponseBodyCallback]),
        "kovoRegisterRequestBodyCallback":
            (c_uint32, [_I, RequestBodyCallback, RequestBodyLengthCallback]),
        "kovoRegisterProgressCallback": (c_uint32, [_I, ProgressCallback]),
        "kovoRegisterAddHeaderCallback": (c_uint32, [_I, HeadersCallback]),
        "kovoRegisterAddParametersCallback": (c_uint32, [_I, HeadersCallback]),
        "kovoRegisterAddChunkHeaderCallback": (c_uint32, [_I, ChunkHeadersCallback]),
        "kovoRegisterChunkErrorRetryCallback": (c_uint32, [_I, ChunkErrorRetryCallback]),
        "kovoRegisterSSLCertificatePolicyCallback": (c_uint32, [_I, CertificatePolicyCallback]),
        "kovoRegisterSetTimeoutCallback": (c_uint32, [_I, NumberCallback]),
        "kovoRegisterSetServerTypeCallback": (c_uint32, [_I, NumberCallback]),
    }
    for name, (result, arguments) in functions.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    return library


lib = _load()
