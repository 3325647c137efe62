#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/header_list.h"

namespace kovo::test {

/**
 * Takes one input apart from its front. Texts are lines, so that inputs can be read and written by
 * hand; what is missing at the end reads as zeros and empty texts.
 */
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size)
      : _bytes(reinterpret_cast<const char*>(data), size) {}

  std::uint8_t byte();
  /** Up to the next line feed, which is taken as well. */
  std::string line();
  /** A line's decimal digits as a number, cut at 64 bits. */
  std::uint64_t number();
  std::string rest();
  bool isEmpty() const { return _position == _bytes.size(); }

 private:
  const std::string _bytes;
  std::size_t _position = 0;
};

/** What no log line, error text or other host may show. */
inline constexpr char kSecret[] = "PlantedSecret";

/** Ends the process with the text: the fuzzer then keeps the input. */
void require(bool condition, const char* text);

/** What the library has logged, at every level, since the input began. */
const std::string& logged();

bool contains(const std::string& text, const std::string& part);
/** Whether a value could end its header, or a header's name itself. */
bool holdsLineBreak(const Header& header);

using FuzzFunction = void (*)(FuzzInput&);

/** One input from a clean state: logging captured, assertions of hostile input silent. */
void runFuzzInput(FuzzFunction function, const std::uint8_t* data, std::size_t size);

/** Makes the function known to the program that replays the corpora. */
struct FuzzRegistration {
  FuzzRegistration(const char* name, FuzzFunction function);
};

}  // namespace kovo::test

/**
 * Defines a target: its body gets the FuzzInput& input. The fuzzers are programs of one target
 * each; the replay links them all.
 */
#ifdef KOVO_FUZZER
#define KOVO_FUZZ_TARGET(name)                                                        \
  static void name##Target(kovo::test::FuzzInput& input);                             \
  extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) { \
    kovo::test::runFuzzInput(&name##Target, data, size);                              \
    return 0;                                                                         \
  }                                                                                   \
  static void name##Target(kovo::test::FuzzInput& input)
#else
#define KOVO_FUZZ_TARGET(name)                                                        \
  static void name##Target(kovo::test::FuzzInput& input);                             \
  static const kovo::test::FuzzRegistration name##Registration(#name, &name##Target); \
  static void name##Target(kovo::test::FuzzInput& input)
#endif
