#pragma once

#include <memory>
#include <string>
#include <utility>

#include "body/mime_sources.h"

namespace kovo {

// The body of an upload protocol's request: a part as it is (the text is empty), or the document
// that ends the upload (the source is then a NullSource).
class OctetStreamSource : public MimeSources {
 public:
  OctetStreamSource(std::unique_ptr<DataSource> source, std::string filePath, std::string text = {})
      : MimeSources(std::move(source), std::move(filePath)), _text(std::move(text)) {}

  std::string getContentType() const override { return "application/octet-stream"; }

 protected:
  std::string createMimePrefix() const override { return _text; }
  std::string createMimeSuffix() const override { return {}; }

 private:
  const std::string _text;
};

}  // namespace kovo
