// tests/fake_time.h: for tests: the library that gives other programs another clock (faketime(1)), by LD_PRELOAD.
#pragma once

#include <filesystem>
#include <string>

namespace qx::testing {

// Its file; empty where it isn't installed (Debian package libfaketime). Programs of several threads need a variant.
inline std::string FakeTimeLibrary(bool threads) {
  const std::string name = threads ? "/faketime/libfaketimeMT.so.1" : "/faketime/libfaketime.so.1";
  for (const char* folder : {"/usr/lib/x86_64-linux-gnu", "/usr/lib/aarch64-linux-gnu", "/usr/lib"}) {
    if (std::filesystem::exists(folder + name)) return folder + name;
  }
  return "";
}

}  // namespace qx::testing
