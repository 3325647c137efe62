#include "partial_registry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "data_folder.h"
#include "file_descriptor.h"
#include "sha256.h"

namespace kovo::cli {

namespace {

namespace fs = std::filesystem;

std::string registryFolder() {
  const std::string data = dataFolder();
  return data.empty() ? "" : data + "/partial";
}

std::string noteFileFor(const std::string& path) {
  return registryFolder() + "/" + sha256OfText(path);
}

}  // namespace

std::string absolutePath(const std::string& path) {
  std::error_code error;
  const fs::path whole = fs::absolute(path, error);
  return error ? path : whole.lexically_normal().string();
}

void notePartial(const PartialNote& note) {
  const std::string folder = registryFolder();
  // The library has made the data folder, for its owner alone.
  if (folder.empty() || (::mkdir(folder.c_str(), 0700) != 0 && ::access(folder.c_str(), W_OK) != 0))
    return;
  const FileDescriptor file(::open(noteFileFor(note.path).c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  const std::string text = note.path + '\0' + note.url;
  if (file.get() < 0 || ::write(file.get(), text.data(), text.size()) < 0) return;
}

void forgetPartial(const std::string& path) {
  if (!registryFolder().empty()) ::unlink(noteFileFor(path).c_str());
}

std::vector<PartialNote> notedPartials() {
  std::vector<PartialNote> notes;
  std::error_code error;
  const std::string folder = registryFolder();
  if (folder.empty()) return notes;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    std::ifstream file(entry.path());
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    const std::size_t end = text.find('\0');
    PartialNote note{text.substr(0, end), end == std::string::npos ? "" : text.substr(end + 1)};
    std::error_code ignored;
    if (end != std::string::npos && fs::is_regular_file(note.path, ignored)) {
      notes.push_back(std::move(note));
    } else {
      fs::remove(entry.path(), ignored);
    }
  }
  std::sort(notes.begin(), notes.end(),
            [](const PartialNote& a, const PartialNote& b) { return a.path < b.path; });
  return notes;
}

}  // namespace kovo::cli
