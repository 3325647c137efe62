#pragma once

#include <string>
#include <vector>

namespace kovo::cli {

// Notes which partial file is for which URL, one small file each in "partial" of the data folder,
// so that `kovo resume` can tell them. Nothing else depends on the notes; what cannot be written is
// passed over.

struct PartialNote {
  std::string path;  // of the partial file, absolute
  std::string url;   // as it may be shown
};

void notePartial(const PartialNote& note);
void forgetPartial(const std::string& path);
// Those whose partial file exists, by path; notes of others are removed.
std::vector<PartialNote> notedPartials();

// path from the root on, as notes have it.
std::string absolutePath(const std::string& path);

}  // namespace kovo::cli
