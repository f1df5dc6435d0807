// foundation/tests/trace_store.h: for tests: the trace's settings in a store of the test's own, in a zone and at a second
// that stand still.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string>

#include "foundation/include/zfcdbg.h"
#include "foundation/tests/fixed_clock.h"
#include "foundation/tests/registry_store.h"
#include "platform/clock.h"
#include "platform/host.h"

namespace ZepFoundation {

class WithTraceStore : public WithRegistryStore {
 protected:
  WithTraceStore() {
    platform::PutEnvironment("TZ=UTC0");
    platform::TzSet();
    platform::InstallClockSource(&m_clock);
    ResetDebugTrace();
  }
  ~WithTraceStore() override {
    ResetDebugTrace();
    platform::InstallClockSource(nullptr);
  }

  // Sets the trace up as a start of the program would. Without a file the setting of an earlier call stays.
  void Configure(std::uint32_t flags, std::uint32_t kibibytes, const std::filesystem::path& file) {
    platform::RegistryKey key;
    ASSERT_EQ(CreateKey(platform::Hive::kLocalMachine, u"Software\\brelmont\\debugstream\\debugstream",
                        platform::KEY_ALL_ACCESS, key),
              0u);
    if (!file.empty()) {
      ASSERT_EQ(SetString(key, u"logFilePath", platform::WideFromUtf8(file.string())), 0u);
    }
    ASSERT_EQ(SetDword(key, u"logFileFilterFlag", flags), 0u);
    ASSERT_EQ(SetDword(key, u"LogFileSize", kibibytes), 0u);
    ASSERT_EQ(key.Close(), 0u);
    ConfigureDebugTrace();
  }
  // This program's name, as headers of records show it.
  static std::string Process() {
    std::u16string path;
    EXPECT_EQ(platform::ProgramFilePath(path), 0u);
    std::string name = std::filesystem::path(platform::Utf8FromWide(path)).filename().string();
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    return name;
  }

 private:
  FixedClock m_clock;
};

}  // namespace ZepFoundation
