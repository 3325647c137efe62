#include "upload/aws_signature.h"

#include "http/kovo_http_utils.h"
#include "platform/kovo_utils.h"
#include "upload/s3_endpoint.h"

namespace kovo {

std::string awsStringToSign(const AwsRequestToSign& request) {
  if (request.verb != KOVO_HTTP_PUT && request.verb != KOVO_HTTP_POST &&
      request.verb != KOVO_HTTP_GET) {
    return {};
  }
  // The empty line is that of Content-MD5, which these requests do not carry.
  std::string text = KovoHttpUtils::toString(request.verb) + "\n\n" + request.contentType + "\n" +
                     request.date + "\n";
  if (!request.sessionToken.empty()) {
    text += std::string(http::kSecurityToken) + ":" + request.sessionToken + "\n";
  }
  return text + canonicalS3Resource(request.url);
}

std::string awsSignature(const AwsRequestToSign& request, const std::string& secretKey) {
  return base64Encode(hmacSha1(secretKey, awsStringToSign(request)));
}

}  // namespace kovo
