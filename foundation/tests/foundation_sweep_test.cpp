// Every platform call of the library's operations fails: the service log, the trace, the key store by paths, settings,
// conversions of text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/include/zfcconfig.h"
#include "foundation/include/zfcdbg.h"
#include "foundation/include/zfclog.h"
#include "foundation/include/zfcregistry.h"
#include "foundation/include/zfctext.h"
#include "foundation/include/zfcutf8.h"
#include "foundation/tests/registry_store.h"
#include "platform/host.h"
#include "platform/testing/fault_sweep.h"
#include "platform/testing/virtual_clock.h"

namespace ZepFoundation {
namespace {

namespace fs = std::filesystem;
using platform::ErrorCode;
using platform::Operation;
using platform::SweptFault;
using ::testing::AnyOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;

class FoundationSweep : public WithRegistryStore {
 protected:
  FoundationSweep() {
    fs::create_directory(m_root / "logs");
    SetServiceLogWriter(nullptr);
    ResetServiceLog();
    ResetDebugTrace();
  }
  ~FoundationSweep() override {
    ResetServiceLog();
    ResetDebugTrace();
  }
  static void Set(const char16_t* path, const std::u16string& name, const std::u16string& text) {
    platform::RegistryKey key;
    ASSERT_EQ(CreateKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(SetString(key, name, text), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  static void Set(const char16_t* path, const std::u16string& name, std::uint32_t number) {
    platform::RegistryKey key;
    ASSERT_EQ(CreateKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(SetDword(key, name, number), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  void Fill(const char* name, std::size_t bytes) const { std::ofstream(m_root / name, std::ios::binary) << std::string(bytes, '#'); }

  // What was written to the trace's files.
  [[nodiscard]] std::string TraceText() const {
    std::string text;
    for (const auto& entry : fs::directory_iterator(m_root)) {
      const std::string name = entry.path().filename();
      if (name.starts_with("trace")) text += Contents(name.c_str());
    }
    std::erase(text, '#');
    return text;
  }

  platform::ScopedZone m_zone{"UTC0"};
  platform::VirtualClock m_clock{1735718400};
};

TEST_F(FoundationSweep, ALineOfTheServiceLogIsWrittenWholeOrNotAtAll) {
  const auto prepare = [&](std::size_t bytes) {
    for (const char* name : {"logs/SchedService0.log", "logs/SchedService1.log"}) fs::remove(m_root / name);
    Fill("logs/SchedService0.log", bytes);
    ResetServiceLog();
    Set(u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\VolumeManager", u"INSTALLDIR", platform::WideFromUtf8(m_root.string()) + u"\\");
    ASSERT_EQ(InitServiceLog(), 1);
  };
  for (const bool rotates : {false, true}) {
    const std::size_t bytes = rotates ? static_cast<std::size_t>(kServiceLogRotationSize) : 10;
    const char* const file = rotates ? "logs/SchedService1.log" : "logs/SchedService0.log";
    (void)platform::RunSweep({
        .name = rotates ? "service log: a line behind a full file" : "service log: a line",
        .prepare = [&] { prepare(bytes); },
        .operation = [&] { ServiceLog(1, u"told"); },
        .judge =
            [&](const SweptFault* fault) {
              const std::string text = Contents(file);
              const std::string old = rotates ? "" : std::string(bytes, '#');
              const std::string added = text.substr(std::min(old.size(), text.size()));
              if (fault == nullptr) {
                EXPECT_THAT(added, EndsWith("told\r\n"));
              }
              EXPECT_TRUE(text.starts_with(old));
              EXPECT_TRUE(added.empty() || added.ends_with("\r\n")) << "half a line: " << added;
              ServiceLog(1, u"next");
              EXPECT_THAT(Contents(file), EndsWith("next\r\n"));
              ResetServiceLog();  // Deliberate: a file whose size can't be read stays open until then.
            },
    });
  }
}

TEST_F(FoundationSweep, TheServiceLogStartsWithWhatItCanRead) {
  Set(u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\VolumeManager", u"INSTALLDIR", platform::WideFromUtf8(m_root.string()) + u"\\");
  Set(u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules", u"TraceLevel", 5u);
  int made = 0;
  (void)platform::RunSweep({
      .name = "service log: start",
      .prepare = [&] { ResetServiceLog(); },
      .operation = [&] { made = InitServiceLog(); },
      .judge =
          [&](const SweptFault* fault) {
            const std::uint32_t level = ServiceLogLevel.load();
            EXPECT_THAT(level, made == 1 ? AnyOf(5u, kServiceLogDefaultLevel) : AnyOf(0u, 0u));
            if (fault == nullptr) {
              EXPECT_EQ(made, 1);
              EXPECT_EQ(level, 5u);
            }
            EXPECT_EQ(InitServiceLog(), 1);
            EXPECT_EQ(ServiceLogLevel.load(), 5u);
          },
  });
}

TEST_F(FoundationSweep, ARecordOfTheTraceIsWrittenWholeOrLost) {
  const char16_t* const kTrace = u"Software\\brelmont\\debugstream\\debugstream";
  Set(kTrace, u"logFilePath", platform::WideFromUtf8((m_root / "trace.log").string()));
  Set(kTrace, u"logFileFilterFlag", 0x1Fu);
  Set(kTrace, u"LogFileSize", 1u);
  for (const bool rolls : {false, true}) {
    (void)platform::RunSweep({
        .name = rolls ? "trace: start and a record behind a full file" : "trace: start and a record",
        .prepare =
            [&] {
              ResetDebugTrace();
              for (const auto& entry : fs::directory_iterator(m_root)) {
                if (entry.path().filename().string().starts_with("trace")) fs::remove(entry.path());
              }
              if (rolls) Fill("trace.log", 2000);
            },
        .operation =
            [&] {
              ConfigureDebugTrace();
              QX_TRACE(kTraceError, "told");
            },
        .judge =
            [&](const SweptFault* fault) {
              const std::string text = TraceText();
              if (fault == nullptr) {
                EXPECT_THAT(text, HasSubstr("told\n"));
              }
              EXPECT_TRUE(text.empty() || text.ends_with("told\n")) << "half a record: " << text;
              ConfigureDebugTrace();
              QX_TRACE(kTraceError, "next");
              // Settings that couldn't be read are not read again in this process.
              const bool isOff = fault != nullptr && (OperationName(fault->operation).starts_with("Reg") ||
                                                      fault->mode == platform::kFromThenOn);
              EXPECT_TRUE(isOff || TraceText().find("next\n") != std::string::npos);
            },
    });
  }
}

TEST_F(FoundationSweep, TheKeyStoreByPathsTellsTheCodeOfEachFailure) {
  CRegistry& registry = CRegistry::Instance();
  std::vector<ErrorCode> codes;
  wcstring text;
  std::uint32_t number = 0;
  (void)platform::RunSweep({
      .name = "key store by paths: make, set, fetch, enumerate, save, remove",
      .prepare =
          [&] {
            (void)registry.RemoveKey(CPath(u"\\HKLM\\SOFTWARE\\A"), true);
            fs::remove(m_root / "saved.json");
            text = wcstring();
            number = 0;
          },
      .operation =
          [&] {
            std::vector<KeyValue> keys;
            std::vector<RegValue> values;
            codes = {registry.CreateKey(CPath(u"\\HKLM\\SOFTWARE\\A\\B"), wcstring()).m_code,
                     registry.SetValue(CPath(u"\\HKLM\\SOFTWARE\\A\\B\\text"), wcstring(u"value")).m_code,
                     registry.SetValue(CPath(u"\\HKLM\\SOFTWARE\\A\\B\\number"), 7u).m_code,
                     registry.FetchValue(CPath(u"\\HKLM\\SOFTWARE\\A\\B\\text"), text).m_code,
                     registry.FetchValue(CPath(u"\\HKLM\\SOFTWARE\\A\\B\\number"), number).m_code,
                     registry.EnumerateKeys(CPath(u"\\HKLM\\SOFTWARE\\A"), keys).m_code,
                     registry.EnumerateValues(CPath(u"\\HKLM\\SOFTWARE\\A\\B"), values).m_code,
                     registry.SaveKey(CPath(u"\\HKLM\\SOFTWARE\\A"), CAbsolutePath(wcstring(WideName("saved.json").c_str()), 0, u'/')).m_code,
                     registry.RemoveKey(CPath(u"\\HKLM\\SOFTWARE\\A"), true).m_code};
          },
      .judge =
          [&](const SweptFault* fault) {
            bool isTold = fault == nullptr;
            for (const ErrorCode code : codes) isTold = isTold || code != 0;
            if (fault == nullptr) {
              EXPECT_EQ(codes, std::vector<ErrorCode>(codes.size(), 0));
            }
            // The close of a key that was only read may fail unheard: all was done.
            std::vector<KeyValue> keys;
            const bool isGone = !registry.EnumerateKeys(CPath(u"\\HKLM\\SOFTWARE\\A"), keys).Succeeded();
            EXPECT_TRUE(isTold || (isGone && text == u"value" && number == 7));
            if (codes[3] == 0) {
              EXPECT_EQ(text, u"value");
            }
            if (codes[4] == 0) {
              EXPECT_EQ(number, 7u);
            }
            // What can't be removed either stays.
            const bool mayStay = fault != nullptr && fault->mode == platform::kFromThenOn;
            EXPECT_TRUE(fs::exists(m_root / "saved.json") == (codes[7] == 0) || mayStay);
          },
  });
}

TEST_F(FoundationSweep, ASettingIsStoredAndReadOrTheCodeIsKept) {
  CConfigInfo& config = CConfigInfo::Instance();
  unsigned char done[3] = {};
  ErrorCode last[3] = {};
  std::uint32_t value = 0;
  (void)platform::RunSweep({
      .name = "settings: set, get, remove",
      .prepare =
          [&] {
            (void)config.RemoveUser(CPath(u"Sweep"), true);
            value = 0;
          },
      .operation =
          [&] {
            done[0] = config.SetUserValue(CPath(u"Sweep\\v"), 7u);
            last[0] = config.LastError();
            done[1] = config.GetUserValue(CPath(u"Sweep\\v"), value);
            last[1] = config.LastError();
            done[2] = config.RemoveUser(CPath(u"Sweep"), true);
            last[2] = config.LastError();
          },
      .judge =
          [&](const SweptFault* fault) {
            bool isTold = fault == nullptr;
            for (int i = 0; i < 3; ++i) {
              EXPECT_EQ(done[i] == 1, last[i] == 0) << i;
              isTold = isTold || done[i] == 0;
            }
            std::uint32_t left = 0;
            EXPECT_TRUE(isTold || (value == 7 && config.GetUserValue(CPath(u"Sweep\\v"), left) == 0));
            if (done[1] == 1) {
              EXPECT_EQ(value, 7u);
            }
          },
  });
}

TEST_F(FoundationSweep, AConversionGivesTheWholeTextOrNone) {
  int results[2] = {};
  char16_t* wide = nullptr;
  char* narrow = nullptr;
  const auto free = [&] {
    ZepFreeString(wide);
    ZepFreeString(narrow);
    wide = nullptr;
    narrow = nullptr;
  };
  (void)platform::RunSweep({
      .name = "conversions of text",
      .prepare = free,
      .operation =
          [&] {
            results[0] = ZepUtf8ToWcs(&wide, "gr\xC3\xBC\xC3\x9F");
            results[1] = ZepWcsToUtf8(&narrow, u"gr\u00FC\u00DF");
          },
      .judge =
          [&](const SweptFault* fault) {
            EXPECT_EQ(wide != nullptr, results[0] >= 0);
            EXPECT_EQ(narrow != nullptr, results[1] >= 0);
            EXPECT_TRUE(fault != nullptr || (wide != nullptr && narrow != nullptr));
            if (wide != nullptr) {
              EXPECT_EQ(std::u16string(wide), u"gr\u00FC\u00DF");
            }
            if (narrow != nullptr) {
              EXPECT_STREQ(narrow, "gr\xC3\xBC\xC3\x9F");
            }
          },
      .codes =
          [](Operation operation) {
            // Here a conversion fails for a text that is none.
            return operation == Operation::kConvertText ? std::vector<ErrorCode>{1113} : platform::FittingCodes(operation);
          },
  });
  free();
  std::string bytes;
  (void)platform::RunSweep({
      .name = "text with its code page",
      .prepare = [&] { bytes.clear(); },
      .operation =
          [&] {
            try {
              const CZepUTF8 text(u"gr\u00FC\u00DF", 4);
              bytes = text.Utf8().second;
            } catch (const CZepUTFError& error) {
              bytes = "error " + std::to_string(error.code());
            }
          },
      .judge =
          [&](const SweptFault* fault) {
            if (fault == nullptr) {
              EXPECT_EQ(bytes, "gr\xC3\xBC\xC3\x9F");
            } else {
              EXPECT_THAT(bytes, HasSubstr("error "));
            }
          },
      .codes =
          [](Operation operation) {
            return operation == Operation::kConvertText ? std::vector<ErrorCode>{1113} : platform::FittingCodes(operation);
          },
  });
}

}  // namespace
}  // namespace ZepFoundation
