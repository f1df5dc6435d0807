// fuzz/fuzz_target.h: what every fuzz target works with.
//
// A target is one function over bytes, defined by QX_FUZZ_TARGET(name) in name_fuzz.cpp. It ends normally for every
// input, or by Require() where a promise of the code under test is broken. What it found once stands as a file in
// fuzz/corpus/name and is replayed by an ordinary test.
// Threads: one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qx::fuzz {

// Ends the process with the text of the promise on standard error.
void Require(bool holds, const char* promise);

// The input as text.
inline std::string_view Text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}
// The input as UTF-16 units, little end first; an odd byte at the end is left out.
std::u16string Units(const std::uint8_t* data, std::size_t size);

// Once per process: the zone, a clock that stands, and no service log.
void FixSurroundings();

// A directory of this process, in memory where the machine has such a place; removed at the end of the process.
const std::string& ScratchDirectory();
// Writes a file of that directory anew; its full name.
std::string WriteScratch(const std::string& name, std::string_view contents);

}  // namespace qx::fuzz

#ifdef QX_LIBFUZZER
#define QX_FUZZ_TARGET(name)                                                          \
  int Fuzz_##name(const std::uint8_t* data, std::size_t size);                        \
  extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) { \
    qx::fuzz::FixSurroundings();                                                      \
    return Fuzz_##name(data, size);                                                   \
  }                                                                                   \
  int Fuzz_##name(const std::uint8_t* data, std::size_t size)
#else
#define QX_FUZZ_TARGET(name)                                   \
  int Fuzz_##name(const std::uint8_t* data, std::size_t size); \
  int Fuzz_##name(const std::uint8_t* data, std::size_t size)
#endif
