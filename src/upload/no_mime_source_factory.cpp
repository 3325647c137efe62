#include "upload/no_mime_source_factory.h"

#include <utility>

#include "body/memory_sink.h"
#include "body/null_source.h"
#include "core/assertion.h"

namespace kovo {

std::unique_ptr<DataSource> NoMimeSourceFactory::createChunkSource(
    const std::string&, std::unique_ptr<DataSource> part) {
  return part;
}

std::unique_ptr<DataSource> NoMimeSourceFactory::createInitialisationSource(
    std::unique_ptr<DataSource>) {
  return std::make_unique<NullSource>();
}

std::unique_ptr<DataSource> NoMimeSourceFactory::createFinalisationSource(const std::string&,
                                                                          const std::string&,
                                                                          std::uint64_t) {
  return std::make_unique<NullSource>();
}

std::unique_ptr<DataSink> NoMimeSourceFactory::createResponseSink(
    std::shared_ptr<ClientCallbackHandler> callbackHandler) {
  return std::make_unique<MemorySink>(std::move(callbackHandler), 0, false);
}

kovo_http_verb NoMimeSourceFactory::getFinalisationMethod() const {
  KOVO_ASSERT(false,
              "false && \"getFinalisationMethod() called when isFinalisationNeeded() returns "
              "false\"");
  return KOVO_HTTP_GET;
}

std::string NoMimeSourceFactory::getInitialisationUrl(const std::string& url) const {
  KOVO_ASSERT(false,
              "false && \"getInitialisationUrl() called when isInitialisationNeeded() returns "
              "false\"");
  return url;
}

std::string NoMimeSourceFactory::getFinalisationUrl(const std::string& url) const {
  KOVO_ASSERT(false,
              "false && \"getFinalisationUrl() called when isFinalisationNeeded() returns false\"");
  return url;
}

bool NoMimeSourceFactory::initialisationWillCompleteTransfer() const {
  KOVO_ASSERT(false,
              "false && \"initialisationWillCompleteTransfer() called when "
              "isInitialisationNeeded() returns false\"");
  return false;
}

kovo_http_verb NoMimeSourceFactory::getInitialisationMethod() const {
  KOVO_ASSERT(false,
              "false && \"getInitialisationMethod() called when isInitialisationNeeded() returns "
              "false\"");
  return KOVO_HTTP_HEAD;
}

bool NoMimeSourceFactory::processInitialisationResponse(std::uint32_t, const std::string&,
                                                        bool& finishNow) {
  finishNow = false;
  return true;
}

}  // namespace kovo
