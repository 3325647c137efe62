#pragma once

#include <kovo/kovo.h>

#include <string>

namespace kovo {

// What AWS signature version 2 signs for one request.
struct AwsRequestToSign {
  kovo_http_verb verb = KOVO_HTTP_PUT;
  std::string contentType;
  std::string date;
  std::string sessionToken;  // empty: long-lived credentials
  std::string url;
};

// Empty for a verb other than PUT, POST and GET.
std::string awsStringToSign(const AwsRequestToSign& request);

// Base64 of the HMAC-SHA1 of the string to sign.
std::string awsSignature(const AwsRequestToSign& request, const std::string& secretKey);

}  // namespace kovo
