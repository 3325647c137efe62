#pragma once

#include <boost/noncopyable.hpp>
#include <string>

namespace kovo {

class SqliteResumeCache;

// The right of one upload of this process to use the rows that a resume database holds for a path:
// rows carry nothing but the path, so two uploads of one file must not write them at once. The
// first claims them until it ends; another one meanwhile runs without resume.
class UploadResumeClaim : boost::noncopyable {
 public:
  UploadResumeClaim() = default;
  ~UploadResumeClaim() { release(); }

  // False when another upload holds them. cache may be null: then never.
  bool acquire(SqliteResumeCache* cache, const std::string& filePath);
  void release();
  bool isHeld() const { return _cache != nullptr; }

 private:
  SqliteResumeCache* _cache = nullptr;
  std::string _filePath;
};

}  // namespace kovo
