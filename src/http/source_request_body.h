#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "body/data_source.h"
#include "core/kovo_error.h"
#include "platform/http_client.h"

namespace kovo {

// Lets an exchange pull a request's body from its source while it is sent, so that a body takes no
// memory however long it is. Exactly the announced length is delivered, or the body fails.
class SourceRequestBody : public HttpRequestBody {
 public:
  // source outlives the body and is replaced by what remake makes when the body has to be sent
  // again. length is the source's content length.
  SourceRequestBody(std::unique_ptr<DataSource>& source, std::uint64_t length,
                    std::function<std::unique_ptr<DataSource>()> remake);

  std::uint64_t length() const override { return _length; }
  bool read(std::uint8_t* buffer, std::size_t capacity, std::size_t& bytesRead) override;
  bool rewind() override;

  // Why the body failed; null while it has not.
  const std::shared_ptr<KovoError>& failure() const { return _failure; }

 private:
  bool pull(std::uint8_t* buffer, std::size_t capacity, std::size_t& bytesRead);
  bool fail(kovo_error code, std::string message);
  bool failForSource();

  std::unique_ptr<DataSource>& _source;
  const std::uint64_t _length;
  const std::function<std::unique_ptr<DataSource>()> _remake;
  std::uint64_t _sent = 0;
  std::shared_ptr<KovoError> _failure;
};

}  // namespace kovo
