#include "core/null_work.h"

#include <utility>

namespace kovo {

void NullWork::setParent(std::shared_ptr<WorkProvider> parent) {
  _parent = std::move(parent);
}

}  // namespace kovo
