#pragma once

#include <string>

#include "body/string_source.h"

namespace kovo {

// URL-encoded name=value pairs, joined by "&", as the body of a form.
class FormEncodedParametersSource : public StringSource {
 public:
  explicit FormEncodedParametersSource(const std::string& parameters);
};

}  // namespace kovo
