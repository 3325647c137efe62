#include "body/form_encoded_parameters_source.h"

#include <boost/algorithm/string/replace.hpp>

namespace kovo {

FormEncodedParametersSource::FormEncodedParametersSource(const std::string& parameters)
    : StringSource(boost::algorithm::replace_all_copy(parameters, "%20", "+"),
                   "application/x-www-form-urlencoded") {}

}  // namespace kovo
