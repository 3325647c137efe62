// consumer URL FILE: one download, as somebody else's C++ program would do it.
#include <cstdio>
#include <kovo/kovo.hpp>

int main(int argc, char** argv) try {
  if (argc != 3) return 2;
  kovo::Engine engine;
  const kovo::Response response = engine.download(argv[1], argv[2]).get();
  std::printf("%s %u %s\n", response.httpVersion.c_str(), static_cast<unsigned>(response.status),
              response.reason.c_str());
  return response.status == 206 || response.status == 200 ? 0 : 1;
} catch (const kovo::Error& error) {
  std::fprintf(stderr, "failed (%u): %s\n", static_cast<unsigned>(error.code()), error.what());
  return 1;
}
