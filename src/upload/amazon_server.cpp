#include "upload/amazon_server.h"

#include "http/kovo_http_utils.h"
#include "http/query_url.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"
#include "platform/url.h"
#include "upload/aws_signature.h"
#include "upload/json_text.h"

namespace kovo {
namespace {

kovo_http_verb signingVerb(kovo_chunk_type kind) {
  return kind == KOVO_CHUNK_TYPE_INIT || kind == KOVO_CHUNK_TYPE_FINALISE ? KOVO_HTTP_POST
                                                                          : KOVO_HTTP_PUT;
}

// With the port unless it is the scheme's own, as HTTP demands; S3 does not sign this header.
std::string hostHeader(const std::string& url) {
  const UrlParts parts = splitUrl(url);
  const std::uint32_t schemePort = parts.scheme == "https" ? 443 : 80;
  return parts.port == schemePort ? parts.host : parts.host + ":" + std::to_string(parts.port);
}

}  // namespace

std::string AmazonServer::getChunkUrl(const std::string&, std::uint32_t partIndex, bool) {
  const std::uint32_t number = partIndex + 1;
  forgetSegment(static_cast<std::int32_t>(number));
  return appendQuery(_multipartHref, "partNumber=" + std::to_string(number) +
                                         "&uploadId=" + encodeQueryValue(_uploadId));
}

void AmazonServer::addChunkHeaders(kovo_chunk_type kind, const std::string& url, std::uint32_t,
                                   const std::string& contentType, HeaderList& headers) {
  const std::string date = getCurrentHttpDate();
  headers.emplace_back("Date", date);
  headers.emplace_back("Host", hostHeader(url));
  if (!_sessionToken.empty()) {
    headers.emplace_back(http::kSecurityToken, _sessionToken);
  }
  const AwsRequestToSign request{signingVerb(kind), contentType, date, _sessionToken, url};
  headers.emplace_back(http::kAuthorization,
                       "AWS " + _accessKey + ":" + awsSignature(request, _secretKey));
}

bool AmazonServer::processResponse(const std::string& answer) {
  JSONSchema schema;
  bindLinks(schema);
  JSONObject& aws = schema.object("aws");
  aws.string("assetARN", &_assetARN).string("uploadId", &_uploadId);
  aws.object("authentication")
      .string("accessKey", &_accessKey)
      .string("secretKey", &_secretKey)
      .string("sessionToken", &_sessionToken);
  const bool parsed =
      schema.parseJSON(answer) && isUsable({&_uploadId, &_accessKey, &_sessionToken});
  if (!parsed) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::AmazonServer::processResponse",
             "Amazon MimeSourceFactory Failed to parse Sync Service JSON response");
  }
  return parsed;
}

std::string AmazonServer::createFinalisationBody(const std::string& contentType,
                                                 std::uint64_t contentLength) {
  std::string body = "{ \"segments\":[";
  const char* separator = "";
  for (const auto& [number, entityTag] : collectSegments()) {
    body += separator;
    body += "{ \"segmentNumber\":" + std::to_string(number) + ",\"entityTag\":";
    // S3's entity tags come with quotes of their own.
    body += isJsonString(entityTag) ? entityTag : "\"" + escapeJson(entityTag) + "\"";
    body += "}";
    separator = ",";
  }
  body += "],\"aws\": { \"authentication\": { \"accessKey\":\"" + escapeJson(_accessKey) + "\",";
  body += "\"secretKey\":\"" + escapeJson(_secretKey);
  body += "\",\"sessionToken\":\"" + escapeJson(_sessionToken) + "\"";
  body += "}, \"assetARN\":\"" + escapeJson(_assetARN);
  body += "\",\"uploadId\":\"" + escapeJson(_uploadId) + "\"},";
  return body + finalisationTail(contentType, contentLength);
}

void AmazonServer::processChunkResponseHeader(std::uint32_t partIndex, const Header& header) {
  if (KovoHttpUtils::equalsIgnoreCase(header.first, http::kEntityTag)) {
    recordSegment(static_cast<std::int32_t>(partIndex + 1), header.second);
  }
}

}  // namespace kovo
