#include "upload/azure_server.h"

#include "http/kovo_http_utils.h"
#include "http/query_url.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"
#include "upload/json_text.h"

namespace kovo {
namespace {

// Azure wants every block identifier of a blob to have the same length.
std::string blockIdentifier(std::uint32_t number) {
  constexpr std::size_t kWidth = 64;
  const std::string digits = std::to_string(number);
  return base64Encode(std::string(kWidth - digits.size(), '0') + digits);
}

}  // namespace

std::string AzureServer::getChunkUrl(const std::string&, std::uint32_t partIndex, bool) {
  const std::uint32_t number = partIndex + 1;
  const std::string identifier = blockIdentifier(number);
  forgetSegment(static_cast<std::int32_t>(number));
  {
    ScopedLock guard(_segmentsLock);
    _blockIds.emplace(static_cast<std::int32_t>(number), identifier);
  }
  // Some services write the token with the "?" of a query.
  const std::string token = _token.substr(!_token.empty() && _token.front() == '?' ? 1 : 0);
  return appendQuery(_multipartHref, token + "&comp=block&blockid=" + identifier);
}

bool AzureServer::processResponse(const std::string& answer) {
  JSONSchema schema;
  bindLinks(schema);
  schema.object("azure")
      .string("token", &_token)
      .string("bucketName", &_bucketName)
      .string("objectId", &_objectId);
  // With a blank the URL of a block would be none, and behind a "#" it would not say that it is
  // one.
  const bool parsed = schema.parseJSON(answer) && isUsable({&_token}) &&
                      _token.find_first_of(" #") == std::string::npos;
  if (!parsed) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::AzureServer::processResponse",
             "Azure MimeSourceFactory Failed to parse Sync Service JSON response");
  }
  return parsed;
}

std::string AzureServer::createFinalisationBody(const std::string& contentType,
                                                std::uint64_t contentLength) {
  std::string body = "{ \"segments\":[";
  const char* separator = "";
  for (const auto& [number, identifier] : collectSegments()) {
    body += separator;
    body += "{ \"blockId\":\"" + escapeJson(identifier) + "\"}";
    separator = ",";
  }
  body += "],\"azure\": { \"token\":\"" + escapeJson(_token) + "\",";
  body += "\"bucketName\":\"" + escapeJson(_bucketName);
  body += "\",\"objectId\":\"" + escapeJson(_objectId) + "\"},";
  return body + finalisationTail(contentType, contentLength);
}

void AzureServer::processChunkResponseHeader(std::uint32_t partIndex, const Header& header) {
  if (!KovoHttpUtils::equalsIgnoreCase(header.first, "x-ms-request-id")) {
    return;
  }
  const auto number = static_cast<std::int32_t>(partIndex + 1);
  std::string identifier;
  {
    ScopedLock guard(_segmentsLock);
    const auto found = _blockIds.find(number);
    if (found == _blockIds.end()) {
      return;
    }
    identifier = found->second;
    _blockIds.erase(found);
  }
  recordSegment(number, identifier);
}

}  // namespace kovo
