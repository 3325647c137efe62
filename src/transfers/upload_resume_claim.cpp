#include "transfers/upload_resume_claim.h"

#include <set>
#include <utility>

#include "core/lock.h"

namespace kovo {
namespace {

struct Claims {
  RecursiveLock lock;
  std::set<std::pair<SqliteResumeCache*, std::string>> held KOVO_GUARDED_BY(lock);
};

Claims& claims() {
  static Claims* const instance = new Claims;  // outlives every transfer, whenever it is destroyed
  return *instance;
}

}  // namespace

bool UploadResumeClaim::acquire(SqliteResumeCache* cache, const std::string& filePath) {
  if (cache == nullptr || isHeld()) {
    return false;
  }
  Claims& all = claims();
  ScopedLock guard(all.lock);
  if (!all.held.emplace(cache, filePath).second) {
    return false;
  }
  _cache = cache;
  _filePath = filePath;
  return true;
}

void UploadResumeClaim::release() {
  if (_cache != nullptr) {
    Claims& all = claims();
    ScopedLock guard(all.lock);
    all.held.erase({_cache, _filePath});
    _cache = nullptr;
  }
}

}  // namespace kovo
