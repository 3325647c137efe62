#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "body/byte_range_file_sink.h"
#include "body/byte_range_file_source.h"
#include "body/file_sink.h"
#include "body/file_source.h"
#include "body/form_encoded_parameters_source.h"
#include "body/memory_sink.h"
#include "body/memory_source.h"
#include "body/null_sink.h"
#include "body/null_source.h"
#include "body/string_stream_sink.h"
#include "core/assertion.h"
#include "http/kovo_http_utils.h"
#include "http/mime_source_factory.h"
#include "http/query_url.h"
#include "http/wkovo_request.h"
#include "platform/kovo_utils.h"
#include "platform/url.h"
#include "scheduling/kovo_stats_aggregator.h"

namespace kovo {
namespace {

bool isToken(const std::string& name) {
  return std::all_of(name.begin(), name.end(), [](char byte) {
    constexpr char kSeparators[] = "()<>@,;:\\\"/[]?={}";
    return byte > ' ' && byte < 0x7f &&
           std::find(std::begin(kSeparators), std::end(kSeparators), byte) == std::end(kSeparators);
  });
}

// Room for one range out of the cache. Each worker keeps that of chunks of common size: fresh pages
// for every chunk cost as much as reading it.
class RangeBuffer {
 public:
  explicit RangeBuffer(std::size_t length) {
    if (length <= kMostKept) {
      thread_local std::unique_ptr<std::uint8_t[]> kept;
      if (!kept) {
        kept.reset(new (std::nothrow) std::uint8_t[kMostKept]);
      }
      _data = kept.get();
    } else {
      _own.reset(new (std::nothrow) std::uint8_t[length]);
      _data = _own.get();
    }
  }
  // Null for want of memory.
  std::uint8_t* data() const { return _data; }

 private:
  static constexpr std::size_t kMostKept = 2 * 1024 * 1024;

  std::unique_ptr<std::uint8_t[]> _own;
  std::uint8_t* _data = nullptr;
};

}  // namespace

bool WKovoRequest::prepareOperation() {
  if (_operation > OP_UPLOAD_FINALISE) {
    notifyError("Unrecognised operation in WKovoRequest", KOVO_ERROR_OPERATION_ERROR);
    _source = std::make_unique<NullSource>();
    _sink = std::make_unique<NullSink>();
    return false;
  }
  if (!_source) {
    _source = makeSource();
  }
  _sink = makeSink();
  KOVO_ASSERT(_source, "_source && \"Source wasn't created!\"");
  KOVO_ASSERT(_sink, "_sink && \"Sink wasn't created!\"");
  if (!_source || !_sink) {
    notifyError("Failed to create data Source: Unknown reason", KOVO_ERROR_OPERATION_ERROR);
    return false;
  }
  std::string message;
  const int code = _source->getError(message);
  if (code != KOVO_ERROR_NONE) {
    notifyError(message.empty() ? "Failed to create data Source: Unknown reason" : message,
                static_cast<kovo_error>(code));
    return false;
  }
  return true;
}

std::unique_ptr<DataSource> WKovoRequest::makeSource() {
  if (!_formParameters.empty()) {
    return std::make_unique<FormEncodedParametersSource>(_formParameters);
  }
  MimeSourceFactory* const factory = _parentTransfer.getMimeSourceFactory();
  switch (_operation) {
    case OP_DOWNLOAD:
    case OP_DOWNLOAD_RANGE:
      KOVO_ASSERT(_httpVerb == KOVO_HTTP_GET, "_httpVerb == KOVO_HTTP_GET");
      break;
    case OP_UPLOAD_FILE:
    case OP_UPLOAD_MEMORY: {
      KOVO_ASSERT(KovoHttpUtils::mayCarryBody(_httpVerb), "isHttpMethodValidForUpload()");
      auto body = makeFileBody();
      return factory != nullptr ? factory->createChunkSource(_filePath, std::move(body))
                                : std::move(body);
    }
    case OP_SEND_REQUEST:
      if (KovoHttpUtils::mayCarryBody(_httpVerb)) {
        return std::make_unique<MemorySource>(_callbackHandler);
      }
      break;
    case OP_UPLOAD_INITIALISE:
      if (factory != nullptr && factory->isInitialisationBodyNeeded()) {
        return factory->createInitialisationSource(makeFileBody());
      }
      break;
    case OP_UPLOAD_FINALISE:
      if (factory != nullptr) {
        return factory->createFinalisationSource(
            _filePath, _parentTransfer.getContentType(),
            static_cast<std::uint64_t>(_parentTransfer.getRange().length));
      }
      break;
    case OP_DOWNLOAD_FILE:
    case OP_DOWNLOAD_FILE_RANGE:
      break;
  }
  return std::make_unique<NullSource>();
}

std::unique_ptr<DataSource> WKovoRequest::makeFileBody() {
  if (_filePath.empty()) {
    return std::make_unique<MemorySource>(_callbackHandler);
  }
  if (_isRanged) {
    return std::make_unique<ByteRangeFileSource>(_callbackHandler, _parentTransfer.getRange(),
                                                 _filePath, _range);
  }
  return std::make_unique<FileSource>(_callbackHandler, _filePath);
}

std::unique_ptr<DataSink> WKovoRequest::makeSink() {
  switch (_operation) {
    case OP_DOWNLOAD_RANGE:
      return std::make_unique<MemorySink>(_callbackHandler,
                                          static_cast<std::uint64_t>(_range.start), true);
    case OP_DOWNLOAD_FILE:
    case OP_DOWNLOAD_FILE_RANGE:
      if (_isRanged) {
        return std::make_unique<ByteRangeFileSink>(_parentTransfer, _callbackHandler, _filePath,
                                                   _range);
      }
      return std::make_unique<FileSink>(_parentTransfer, _callbackHandler, _filePath);
    case OP_UPLOAD_INITIALISE:
      if (MimeSourceFactory* factory = _parentTransfer.getMimeSourceFactory()) {
        return factory->createResponseSink(_callbackHandler);
      }
      break;
    case OP_UPLOAD_FINALISE:
      // A service may answer a failed finalisation with 200 and say so in the body only, which the
      // transfer has to read where the client does not get it.
      if (_discardResponseBody) {
        return std::make_unique<StringStreamSink>();
      }
      break;
    default:
      break;
  }
  // Where a body is sent, progress runs over that one.
  const bool isProgress = _operation == OP_DOWNLOAD || (_operation == OP_SEND_REQUEST &&
                                                        !KovoHttpUtils::mayCarryBody(_httpVerb));
  return std::make_unique<MemorySink>(_callbackHandler, 0, isProgress);
}

bool WKovoRequest::isCacheUsable() const {
  return _parentTransfer.getGetCache() != nullptr && _noErrorYet && isRangedDownload() &&
         _parentTransfer.isChunkingAllowed() && !_discardResponseBody && _range.length != 0;
}

std::string WKovoRequest::getCacheKey() {
  // Query parameters of the client name another resource.
  return getFinalUrl();
}

bool WKovoRequest::serveFromCache() {
  if (!isCacheUsable()) {
    return false;
  }
  const CacheValidators validators =
      decisiveValidators(_parentTransfer.getEntityTag(), _parentTransfer.getLastModified());
  if (validators.etag.empty() && validators.lastModifiedDate.empty()) {
    return false;
  }
  const auto length = static_cast<std::size_t>(_range.length);
  const RangeBuffer buffer(length);
  if (buffer.data() == nullptr ||
      _parentTransfer.getGetCache()->getData(getCacheKey(), validators, _range, buffer.data(),
                                             length) != HttpGetCache::Hit) {
    return false;
  }
  ByteBlock block;
  for (std::size_t done = 0; done < length;) {
    if (!block) {
      block = ByteBlock::allocate();
    }
    const std::size_t count = std::min(length - done, ByteBlock::kCapacity);
    std::copy_n(buffer.data() + done, count, block.data());
    _sink->writeBlock(block, count);
    done += count;
  }
  _sink->finish();
  _deliveredLength = length;
  _complete = true;
  return true;
}

std::string WKovoRequest::joinParameters() {
  HeaderList parameters;
  _parentTransfer.addParameters(parameters);
  std::string joined;
  for (const auto& [name, value] : parameters) {
    if (name.empty() || value.empty()) {
      continue;
    }
    if (!joined.empty()) {
      joined += '&';
    }
    joined += WinKOVOUtils::urlEncode(name) + '=' + WinKOVOUtils::urlEncode(value);
  }
  return joined;
}

std::string WKovoRequest::getFinalUrl() {
  const std::string parameters = joinParameters();
  if (isCancelled()) {
    return {};
  }
  if (parameters.empty()) {
    return _inURL;
  }
  if (_httpVerb == KOVO_HTTP_POST && _source->getContentLength() == 0) {
    _formParameters = parameters;
    _source = makeSource();
    return _inURL;
  }
  const std::size_t pathEnd = std::min(_inURL.find_first_of("?#"), _inURL.size());
  std::string url = _inURL.substr(0, pathEnd);
  const auto authority = url.find("://");
  if (authority != std::string::npos && url.find('/', authority + 3) == std::string::npos) {
    url += '/';
  }
  return appendQuery(url + _inURL.substr(pathEnd), parameters);
}

bool WKovoRequest::buildMessage(HttpRequestMessage& message,
                                std::optional<SourceRequestBody>& body) {
  if (_httpVerb > KOVO_HTTP_PATCH) {
    notifyError("Unrecognised httpVerb in WKovoRequest", KOVO_ERROR_OPERATION_ERROR);
    return false;
  }
  message.verb = KovoHttpUtils::toString(_httpVerb);
  message.url = getFinalUrl();
  if (message.url.empty()) {
    return false;
  }
  splitUrl(message.url);  // throws for a malformed one
  message.timeoutSeconds = _parentTransfer.getTimeout();
  // Asked for every scheme, since a redirect may lead to https.
  message.validateCertificateChain = _parentTransfer.shouldValidateCertificateChain();
  if (_parentTransfer.hasProxyCredentials()) {
    _parentTransfer.applyProxyCredentials(*this);
    message.proxyUsername = _proxyUsername;
    message.proxyPassword = _proxyPassword;
  }
  if (!addHeaders(message.headers)) {
    return false;
  }
  if (KovoHttpUtils::mayCarryBody(_httpVerb)) {
    const std::uint64_t length = _source->getContentLength();
    body.emplace(_source, length, [this] { return makeSource(); });
    message.body = &*body;
    if (length != 0) {
      _parentTransfer.getStatsAggregator().recordChunk(length, true, &_interrupt);
    }
  }
  return true;
}

bool WKovoRequest::addHeaders(HeaderList& headers) {
  if (isRangedDownload() &&
      !addRequestHeader(headers, http::kRange, "bytes=" + getRequestedRangeText())) {
    return false;
  }
  if (!addRequestHeader(headers, http::kAcceptEncoding,
                        _parentTransfer.isGzipWanted() ? http::kGzip : "*") ||
      !addRequestHeaders(headers, _parentTransfer.getRequestHeaders())) {
    return false;
  }
  HeaderList added;
  _parentTransfer.getChunkHeaders(_inURL, _range.number, added);
  if (!addRequestHeaders(headers, added)) {
    return false;
  }
  _asksForPart = std::any_of(headers.begin(), headers.end(), [](const Header& header) {
    return KovoHttpUtils::equalsIgnoreCase(header.first, http::kRange);
  });
  if (MimeSourceFactory* const factory = _parentTransfer.getMimeSourceFactory()) {
    std::string contentType = _parentTransfer.getContentType();
    if (contentType.empty()) {
      contentType = _source->getContentType();
    }
    added.clear();
    factory->addRequestHeaders(_parentTransfer.getChunkType(), contentType, _inURL,
                               static_cast<std::uint32_t>(_range.number), added);
    if (!addRequestHeaders(headers, added)) {
      return false;
    }
  }
  if (!KovoHttpUtils::mayCarryBody(_httpVerb)) {
    return true;
  }
  if (_parentTransfer.getContentType().empty() &&
      !addRequestHeader(headers, http::kContentType, _source->getContentType())) {
    return false;
  }
  return addRequestHeader(headers, http::kContentLength,
                          std::to_string(_source->getContentLength()));
}

bool WKovoRequest::addRequestHeaders(HeaderList& headers, const HeaderList& added) {
  return std::all_of(added.begin(), added.end(), [&](const Header& header) {
    return addRequestHeader(headers, header.first, header.second);
  });
}

bool WKovoRequest::addRequestHeader(HeaderList& headers, const std::string& name,
                                    const std::string& value) {
  if (name.empty() || value.empty()) {
    return true;
  }
  if (!isToken(name) || value.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    notifyError("Invalid request header: " + name, KOVO_ERROR_OPERATION_ERROR);
    return false;
  }
  const auto present = std::find_if(headers.begin(), headers.end(), [&name](const Header& header) {
    return KovoHttpUtils::equalsIgnoreCase(header.first, name);
  });
  if (present != headers.end()) {
    present->second = value;
  } else {
    headers.emplace_back(name, value);
  }
  return true;
}

}  // namespace kovo
