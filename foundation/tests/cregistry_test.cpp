// foundation/tests/cregistry_test.cpp
#include "foundation/include/zfcregistry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "foundation/tests/narrow.h"
#include "foundation/tests/registry_store.h"
#include "platform/testing/fault.h"

namespace ZepFoundation {
namespace {

using platform::FaultPlan;
using platform::Operation;
using ::testing::ElementsAre;

class RegistryAccess : public WithRegistryStore {
 protected:
  static CRegistry& Registry() { return CRegistry::Instance(); }
  static std::uint32_t Make(const char16_t* path) { return Registry().CreateKey(CPath(path), wcstring()).m_code; }
  static bool HasKey(const char16_t* path) {
    std::vector<KeyValue> keys;
    return Registry().EnumerateKeys(CPath(path), keys).Succeeded();
  }
};

TEST_F(RegistryAccess, IsOneInstanceForAllThreads) {
  std::vector<CRegistry*> seen(8);
  std::vector<std::thread> threads;
  for (CRegistry*& place : seen) threads.emplace_back([&place] { place = &CRegistry::Instance(); });
  for (std::thread& thread : threads) thread.join();
  for (const CRegistry* instance : seen) EXPECT_EQ(instance, &CRegistry::Instance());
}

TEST_F(RegistryAccess, TellsItsPlatformAndNoTextWithEveryCode) {
  const OsError error = Registry().CreateKey(CPath(u"\\HKCU\\A"), u"class");
  EXPECT_EQ(error.m_platform, XPlat::OSID_NT);
  EXPECT_EQ(error.m_code, 0u);
  EXPECT_EQ(error.m_text, u"");
  EXPECT_TRUE(error.Succeeded());
}

// --- paths ---

TEST_F(RegistryAccess, AnswersBadPathNameWithoutARootInFront) {
  for (const char16_t* text : {u"\\NOROOT\\a", u"\\hklm\\a", u"HKCU\\a", u"", u"\\", u"a"}) {
    const CPath path(text);
    std::uint32_t number = 7;
    wcstring value(u"kept");
    std::uint32_t size = 0;
    std::vector<KeyValue> keys;
    std::vector<RegValue> values;
    CRegistry& registry = Registry();
    const std::vector<std::uint32_t> codes = {
        registry.CreateKey(path, wcstring()).m_code,
        registry.FetchKeyValue(path, value).m_code,
        registry.RemoveKey(path, true).m_code,
        registry.RemoveValue(path).m_code,
        registry.SetValue(path, number).m_code,
        registry.SetValue(path, value).m_code,
        registry.SetValue(path, nullptr, 0).m_code,
        registry.FetchValue(path, number).m_code,
        registry.FetchValue(path, value).m_code,
        registry.FetchValue(path, nullptr, size).m_code,
        registry.SaveKey(path, CAbsolutePath(WideName("f").c_str())).m_code,
        registry.EnumerateKeys(path, keys).m_code,
        registry.EnumerateValues(path, values).m_code,
    };
    EXPECT_THAT(codes, ::testing::Each(platform::ERROR_BAD_PATHNAME)) << Narrow(wcstring(text));
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(value, u"kept");
  }
}

TEST_F(RegistryAccess, AnswersBadPathNameForARelativePath) {
  ASSERT_EQ(Make(u"\\HKCU\\A"), 0u);
  EXPECT_EQ(Make(u"HKCU\\A"), platform::ERROR_BAD_PATHNAME);
}

TEST_F(RegistryAccess, NeedsAKeyInFrontOfAValuesName) {
  EXPECT_EQ(Registry().SetValue(CPath(u"\\HKCU"), 1u).m_code, platform::ERROR_BAD_PATHNAME);
  EXPECT_EQ(Registry().SetValue(CPath(u"\\HKCU\\v"), 1u).m_code, 0u);  // a value of the root itself
}

struct RootCase {
  int line;
  const char16_t* root;
  std::uint32_t code;
};
const RootCase kRootCases[] = {
    {__LINE__, u"\\HKEY_CLASSES_ROOT", 0},
    {__LINE__, u"\\HKCR", 0},
    {__LINE__, u"\\HKEY_CURRENT_USER", 0},
    {__LINE__, u"\\HKCU", 0},
    {__LINE__, u"\\HKEY_LOCAL_MACHINE", 0},
    {__LINE__, u"\\HKLM", 0},
    {__LINE__, u"\\HKEY_USERS", 0},
    {__LINE__, u"\\HKU", 0},
    {__LINE__, u"\\HKEY_CURRENT_CONFIG", 0},
    {__LINE__, u"\\HKCC", 0},
    {__LINE__, u"\\HKEY_PERFORMANCE_DATA", platform::ERROR_INVALID_HANDLE},  // known, but never there
    {__LINE__, u"\\HKEY_DYN_DATA", platform::ERROR_INVALID_HANDLE},
    {__LINE__, u"\\HKPD", platform::ERROR_BAD_PATHNAME},  // no short name
    {__LINE__, u"\\HKDD", platform::ERROR_BAD_PATHNAME},
};
TEST_F(RegistryAccess, KnowsItsRootsByTheirNames) {
  for (const RootCase& c : kRootCases) {
    std::vector<KeyValue> keys;
    EXPECT_EQ(Registry().EnumerateKeys(CPath(c.root), keys).m_code, c.code) << c.line;
  }
}

TEST_F(RegistryAccess, FindsAPathUnderTheShortNameOfUsers) {
  ASSERT_EQ(Make(u"\\HKU\\.DEFAULT\\a"), 0u);
  EXPECT_TRUE(HasKey(u"\\HKEY_USERS\\.DEFAULT\\a"));
}

TEST_F(RegistryAccess, HasOnlyLongNamesForPerformanceAndDynamicData) {
  wcstring value;
  EXPECT_EQ(Registry().FetchKeyValue(CPath(u"\\HKEY_PERFORMANCE_DATA"), value).m_code, 120u);
  EXPECT_EQ(Registry().FetchKeyValue(CPath(u"\\HKEY_DYN_DATA"), value).m_code, 120u);
  EXPECT_EQ(Registry().FetchKeyValue(CPath(u"\\HKPD"), value).m_code, platform::ERROR_BAD_PATHNAME);
}

TEST_F(RegistryAccess, DoesNotFetchTheValueOfAKeyThatExists) {
  ASSERT_EQ(Make(u"\\HKCU\\A"), 0u);
  wcstring value(u"kept");
  EXPECT_EQ(Registry().FetchKeyValue(CPath(u"\\HKCU\\A"), value).m_code, 120u);
  EXPECT_EQ(value, u"kept");
}

// --- values ---

TEST_F(RegistryAccess, SetsAndFetchesEachKindOfValueAndMakesTheKey) {
  CRegistry& registry = Registry();
  const unsigned char bytes[] = {1, 0, 255};
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\B\\number"), 0xFFFFFFFFu).m_code, 0u);
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\B\\text"), u"some text").m_code, 0u);
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\B\\bytes"), bytes, sizeof bytes).m_code, 0u);
  Reopen();
  std::uint32_t number = 0;
  wcstring text;
  unsigned char read[8] = {};
  std::uint32_t size = sizeof read;
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\B\\number"), number).m_code, 0u);
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\B\\text"), text).m_code, 0u);
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\B\\bytes"), read, size).m_code, 0u);
  EXPECT_EQ(number, 0xFFFFFFFFu);
  EXPECT_EQ(text, u"some text");
  EXPECT_EQ(size, sizeof bytes);
  EXPECT_EQ(std::memcmp(read, bytes, sizeof bytes), 0);
}

TEST_F(RegistryAccess, FetchesATextLongerThanItsFirstBuffer) {
  for (const std::size_t length : {126u, 127u, 128u, 5000u}) {
    const wcstring longText(length, u'x');
    ASSERT_EQ(Registry().SetValue(CPath(u"\\HKCU\\A\\text"), longText).m_code, 0u);
    wcstring text;
    EXPECT_EQ(Registry().FetchValue(CPath(u"\\HKCU\\A\\text"), text).m_code, 0u);
    EXPECT_EQ(text, longText);
  }
}

TEST_F(RegistryAccess, GivesUpATextThatDoesNotFitTheSecondReadingEither) {
  ASSERT_EQ(Registry().SetValue(CPath(u"\\HKCU\\A\\text"), u"text").m_code, 0u);
  int readings = 0;
  FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view) -> platform::ErrorCode {
    const bool grows = operation == Operation::kRegQueryValue && ++readings <= 5;
    return grows ? platform::ERROR_MORE_DATA : platform::ERROR_SUCCESS;
  });
  wcstring text(u"kept");
  const OsError error = Registry().FetchValue(CPath(u"\\HKCU\\A\\text"), text);
  plan.Remove();
  EXPECT_EQ(error.m_code, platform::ERROR_MORE_DATA);
  EXPECT_EQ(readings, 2);
  EXPECT_EQ(text, u"kept");
}

TEST_F(RegistryAccess, LeavesTheTargetAsItWasWhereAValueDoesNotFit) {
  CRegistry& registry = Registry();
  const unsigned char bytes[] = {1, 2, 3, 4, 5};
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\five"), bytes, 5).m_code, 0u);
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\three"), bytes, 3).m_code, 0u);
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\four"), bytes, 4).m_code, 0u);
  std::uint32_t number = 7;
  wcstring text(u"kept");
  unsigned char read[4] = {9, 9, 9, 9};
  std::uint32_t size = sizeof read;
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\five"), number).m_code, platform::ERROR_MORE_DATA);
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\three"), number).m_code, platform::ERROR_INVALID_DATA);
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\none"), number).m_code, platform::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\None\\v"), number).m_code, platform::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(number, 7u);
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\four"), text).m_code, platform::ERROR_INVALID_DATA);
  EXPECT_EQ(text, u"kept");
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\five"), read, size).m_code, platform::ERROR_MORE_DATA);
  EXPECT_EQ(size, 5u);
  EXPECT_EQ(read[0], 9);
  EXPECT_EQ(registry.FetchValue(CPath(u"\\HKCU\\A\\four"), number).m_code, 0u);
  EXPECT_EQ(number, 0x04030201u);
}

TEST_F(RegistryAccess, EndsATextAtItsFirstZeroAndTakesOneWithout) {
  platform::RegistryKey key;
  ASSERT_EQ(platform::CreateKey(platform::Hive::kCurrentUser, u"A", platform::KEY_ALL_ACCESS, key), 0u);
  const std::u16string_view inside(u"ab\0cd", 5);
  ASSERT_EQ(SetRawValue(key, u"inside", platform::REG_SZ, std::as_bytes(std::span(inside))), 0u);
  ASSERT_EQ(SetRawValue(key, u"odd", platform::REG_SZ, std::as_bytes(std::span(inside)).first(3)), 0u);
  ASSERT_EQ(SetRawValue(key, u"open", platform::REG_EXPAND_SZ, std::as_bytes(std::span(inside)).first(4)), 0u);
  ASSERT_EQ(SetRawValue(key, u"empty", platform::REG_SZ, {}), 0u);
  ASSERT_EQ(key.Close(), 0u);
  wcstring text(u"kept");
  EXPECT_EQ(Registry().FetchValue(CPath(u"\\HKCU\\A\\odd"), text).m_code, platform::ERROR_INVALID_DATA);
  EXPECT_EQ(text, u"kept");
  EXPECT_EQ(Registry().FetchValue(CPath(u"\\HKCU\\A\\inside"), text).m_code, 0u);
  EXPECT_EQ(text, u"ab");
  EXPECT_EQ(Registry().FetchValue(CPath(u"\\HKCU\\A\\open"), text).m_code, 0u);
  EXPECT_EQ(text, u"ab");
  EXPECT_EQ(Registry().FetchValue(CPath(u"\\HKCU\\A\\empty"), text).m_code, 0u);
  EXPECT_EQ(text, u"");
}

TEST_F(RegistryAccess, TellsTheCodeOfEveryCallThatFails) {
  ASSERT_EQ(Registry().SetValue(CPath(u"\\HKCU\\A\\v"), 1u).m_code, 0u);
  struct Case {
    Operation operation;
    bool isWriting;
  };
  for (const Case& c : {Case{Operation::kRegOpenKey, false}, Case{Operation::kRegQueryValue, false},
                        Case{Operation::kRegCreateKey, true}, Case{Operation::kRegSetValue, true},
                        Case{Operation::kRegCloseKey, true}}) {
    FaultPlan plan = FaultPlan::FailCall(c.operation, 1, platform::ERROR_DISK_FULL, platform::kFromThenOn);
    std::uint32_t number = 7;
    const OsError error = c.isWriting ? Registry().SetValue(CPath(u"\\HKCU\\A\\v"), 2u)
                                      : Registry().FetchValue(CPath(u"\\HKCU\\A\\v"), number);
    plan.Remove();
    EXPECT_EQ(error.m_code, platform::ERROR_DISK_FULL) << OperationName(c.operation);
    EXPECT_EQ(number, 7u);
    ASSERT_EQ(Registry().FetchValue(CPath(u"\\HKCU\\A\\v"), number).m_code, 0u);
    EXPECT_EQ(number, 1u) << OperationName(c.operation);
  }
}

TEST_F(RegistryAccess, AnswersThatNoStoreIsOpen) {
  ASSERT_EQ(platform::CloseRegistryStore(), 0u);
  EXPECT_EQ(Make(u"\\HKCU\\A"), platform::ERROR_BADDB);
}

// --- removing ---

TEST_F(RegistryAccess, RemovesTheValueWhereAPathNamesOneAndNotTheKey) {
  ASSERT_EQ(Make(u"\\HKCU\\A\\name"), 0u);
  ASSERT_EQ(Registry().SetValue(CPath(u"\\HKCU\\A\\name"), 1u).m_code, 0u);
  EXPECT_EQ(Registry().RemoveKey(CPath(u"\\HKCU\\A\\name"), true).m_code, 0u);
  std::uint32_t number = 0;
  EXPECT_EQ(Registry().FetchValue(CPath(u"\\HKCU\\A\\name"), number).m_code, platform::ERROR_FILE_NOT_FOUND);
  EXPECT_TRUE(HasKey(u"\\HKCU\\A\\name"));
  EXPECT_EQ(Registry().RemoveValue(CPath(u"\\HKCU\\A\\name")).m_code, 0u);  // now the key
  EXPECT_FALSE(HasKey(u"\\HKCU\\A\\name"));
}

TEST_F(RegistryAccess, RemovesNothingWhereItCantBeToldWhetherThereIsSuchAValue) {
  ASSERT_EQ(Make(u"\\HKCU\\A\\name\\B"), 0u);
  ASSERT_EQ(Registry().SetValue(CPath(u"\\HKCU\\A\\name"), 1u).m_code, 0u);
  for (const bool recursive : {false, true}) {
    FaultPlan plan = FaultPlan::FailCall(Operation::kRegQueryValue, 1, platform::ERROR_IO_DEVICE);
    EXPECT_EQ(Registry().RemoveKey(CPath(u"\\HKCU\\A\\name"), recursive).m_code, platform::ERROR_IO_DEVICE);
    plan.Remove();
    EXPECT_EQ(plan.hits(), 1);
    EXPECT_TRUE(HasKey(u"\\HKCU\\A\\name\\B"));
  }
  std::uint32_t number = 0;
  EXPECT_EQ(Registry().FetchValue(CPath(u"\\HKCU\\A\\name"), number).m_code, 0u);
}

TEST_F(RegistryAccess, RefusesToRemoveAKeyWithSubKeysAlone) {
  ASSERT_EQ(Make(u"\\HKCU\\A\\B"), 0u);
  EXPECT_EQ(Registry().RemoveKey(CPath(u"\\HKCU\\A"), false).m_code, platform::ERROR_ACCESS_DENIED);
  EXPECT_TRUE(HasKey(u"\\HKCU\\A\\B"));
}

TEST_F(RegistryAccess, RemovesAKeyWithAllBelowIt) {
  for (const char16_t* path : {u"\\HKCU\\A\\B\\C", u"\\HKCU\\A\\D", u"\\HKCU\\A\\B\\E", u"\\HKCU\\Other"}) {
    ASSERT_EQ(Make(path), 0u);
  }
  EXPECT_EQ(Registry().RemoveKey(CPath(u"\\HKCU\\A"), true).m_code, 0u);
  Reopen();
  EXPECT_FALSE(HasKey(u"\\HKCU\\A"));
  EXPECT_TRUE(HasKey(u"\\HKCU\\Other"));
}

TEST_F(RegistryAccess, EndsARemovalAtTheFirstFailureWithItsCode) {
  ASSERT_EQ(Make(u"\\HKCU\\A\\B\\C"), 0u);
  FaultPlan plan = FaultPlan::FailCall(Operation::kRegDeleteKey, 1, platform::ERROR_DISK_FULL);
  EXPECT_EQ(Registry().RemoveKey(CPath(u"\\HKCU\\A"), true).m_code, platform::ERROR_DISK_FULL);
  plan.Remove();
  EXPECT_TRUE(HasKey(u"\\HKCU\\A\\B\\C"));
}

TEST_F(RegistryAccess, RemovesNothingThatHasNoName) {
  ASSERT_EQ(Make(u"\\HKCU\\A\\B"), 0u);
  CPath path(u"\\HKCU\\A");
  path += CPathElement(u"");
  EXPECT_EQ(Registry().RemoveKey(path, true).m_code, platform::ERROR_FILE_NOT_FOUND);
  EXPECT_TRUE(HasKey(u"\\HKCU\\A\\B"));
}

// --- enumerating ---

TEST_F(RegistryAccess, ListsSubKeysWithTheirDefaultValues) {
  CPath defaultOfB(u"\\HKCU\\A\\b");
  defaultOfB += CPathElement(u"");
  ASSERT_EQ(Make(u"\\HKCU\\A\\c"), 0u);
  ASSERT_EQ(Registry().SetValue(defaultOfB, u"of b").m_code, 0u);
  std::vector<KeyValue> keys(1);
  ASSERT_EQ(Registry().EnumerateKeys(CPath(u"\\HKCU\\A"), keys).m_code, 0u);
  ASSERT_EQ(keys.size(), 3u);  // added to what was there
  EXPECT_EQ(keys[1].m_name, u"b");
  EXPECT_EQ(keys[1].m_value, u"of b");
  EXPECT_EQ(keys[2].m_name, u"c");
  EXPECT_EQ(keys[2].m_value, u"");
}

TEST_F(RegistryAccess, ListsValuesByTheirKinds) {
  CRegistry& registry = Registry();
  const unsigned char bytes[255] = {1, 2};
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\1text"), u"x").m_code, 0u);
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\2bytes"), bytes, sizeof bytes).m_code, 0u);
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\3number"), 5u).m_code, 0u);
  platform::RegistryKey key;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kCurrentUser, u"A", platform::KEY_ALL_ACCESS, key), 0u);
  ASSERT_EQ(platform::SetValue(key, u"4other", 11, bytes, 8), 0u);
  ASSERT_EQ(key.Close(), 0u);
  std::vector<RegValue> values;
  ASSERT_EQ(registry.EnumerateValues(CPath(u"\\HKCU\\A"), values).m_code, 0u);
  ASSERT_EQ(values.size(), 4u);
  EXPECT_EQ(values[0].m_type, 1u);
  EXPECT_EQ(std::u16string(values[0].m_name), u"1text");
  EXPECT_EQ(std::get<wcstring>(values[0].m_data), u"x");
  EXPECT_EQ(values[1].m_type, 3u);
  EXPECT_EQ(std::get<RegValue::Bytes>(values[1].m_data).m_length, 255);
  EXPECT_EQ(std::get<RegValue::Bytes>(values[1].m_data).m_data[1], 2);
  EXPECT_EQ(values[2].m_type, 4u);
  EXPECT_EQ(std::get<std::uint32_t>(values[2].m_data), 5u);
  EXPECT_EQ(values[3].m_type, 11u);
  EXPECT_EQ(std::get<std::uint32_t>(values[3].m_data), 0u);
}

TEST_F(RegistryAccess, EndsAListAtWhatIsLongerThanItsRecords) {
  CRegistry& registry = Registry();
  const unsigned char bytes[256] = {};
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\a"), 1u).m_code, 0u);
  ASSERT_EQ(registry.SetValue(CPath(u"\\HKCU\\A\\b"), bytes, sizeof bytes).m_code, 0u);
  ASSERT_EQ(registry.CreateKey(CPath(u"\\HKCU\\A\\k"), wcstring()).m_code, 0u);
  CPath longKey(u"\\HKCU\\A");
  longKey += CPathElement(wcstring(255, u'x'));
  ASSERT_EQ(registry.CreateKey(longKey, wcstring()).m_code, 0u);
  std::vector<RegValue> values;
  EXPECT_EQ(registry.EnumerateValues(CPath(u"\\HKCU\\A"), values).m_code, platform::ERROR_MORE_DATA);
  EXPECT_EQ(values.size(), 1u);
  std::vector<KeyValue> keys;
  EXPECT_EQ(registry.EnumerateKeys(CPath(u"\\HKCU\\A"), keys).m_code, platform::ERROR_MORE_DATA);
  EXPECT_EQ(keys.size(), 1u);
}

// --- saving ---

TEST_F(RegistryAccess, SavesAKeyWithAllBelowIt) {
  ASSERT_EQ(Registry().SetValue(CPath(u"\\HKCU\\A\\B\\v"), 5u).m_code, 0u);
  ASSERT_EQ(Registry().SetValue(CPath(u"\\HKCU\\A\\t"), u"text").m_code, 0u);
  ASSERT_EQ(Registry().SaveKey(CPath(u"\\HKCU\\A"), CAbsolutePath(WideName("saved.json").c_str())).m_code, 0u);
  const auto saved = nlohmann::json::parse(Contents("saved.json"));
  EXPECT_EQ(saved["values"][0]["data"], "text");
  EXPECT_EQ(saved["keys"][0]["name"], "B");
  EXPECT_EQ(saved["keys"][0]["values"][0]["data"], 5);
}

TEST_F(RegistryAccess, SavesNoKeyThatIsNotThereAndOverNoFile) {
  const CAbsolutePath file(WideName("registry.db").c_str());
  EXPECT_EQ(Registry().SaveKey(CPath(u"\\HKCU\\None"), file).m_code, platform::ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(Make(u"\\HKCU\\A"), 0u);
  EXPECT_EQ(Registry().SaveKey(CPath(u"\\HKCU\\A"), file).m_code, platform::ERROR_ALREADY_EXISTS);
  EXPECT_TRUE(HasKey(u"\\HKCU\\A"));
}

}  // namespace
}  // namespace ZepFoundation
