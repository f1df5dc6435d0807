// foundation/tests/cconfig_info_test.cpp
#include "foundation/include/zfcconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "foundation/tests/registry_store.h"
#include "platform/testing/fault.h"

namespace ZepFoundation {
namespace {

using ::testing::ElementsAre;

class ConfigInfo : public WithRegistryStore {
 protected:
  ConfigInfo() { Config().BasePath(CPath()); }
  ~ConfigInfo() override { Config().BasePath(CPath()); }
  static CConfigInfo& Config() { return CConfigInfo::Instance(); }
  static std::uint32_t NumberAt(const char16_t* path) {
    std::uint32_t number = 0;
    EXPECT_EQ(CRegistry::Instance().FetchValue(CPath(path), number).m_code, 0u);
    return number;
  }
};

TEST_F(ConfigInfo, IsOneInstanceForAllThreads) {
  std::vector<CConfigInfo*> seen(8);
  std::vector<std::thread> threads;
  for (CConfigInfo*& place : seen) threads.emplace_back([&place] { place = &CConfigInfo::Instance(); });
  for (std::thread& thread : threads) thread.join();
  for (const CConfigInfo* instance : seen) EXPECT_EQ(instance, &Config());
}

TEST_F(ConfigInfo, PutsARelativePathBelowTheProductsKey) {
  EXPECT_EQ(Config().SetUserValue(CPath(u"A\\v"), 1u), 1);
  EXPECT_EQ(Config().SetSystemValue(CPath(u"v"), 2u), 1);
  EXPECT_EQ(NumberAt(u"\\HKCU\\Software\\Korvane\\A\\v"), 1u);
  EXPECT_EQ(NumberAt(u"\\HKLM\\Software\\Korvane\\v"), 2u);
}

TEST_F(ConfigInfo, PutsARelativeBasePathBetweenProductAndPath) {
  Config().BasePath(CPath(u"Base"));
  EXPECT_EQ(Config().SetUserValue(CPath(u"v"), 1u), 1);
  EXPECT_EQ(NumberAt(u"\\HKCU\\Software\\Korvane\\Base\\v"), 1u);
}

TEST_F(ConfigInfo, TakesARootedBasePathInPlaceOfTheProductsKey) {
  Config().BasePath(CPath(u"\\Software\\Other"));
  EXPECT_EQ(Config().SetSystemValue(CPath(u"v"), 1u), 1);
  EXPECT_EQ(NumberAt(u"\\HKLM\\Software\\Other\\v"), 1u);
  EXPECT_EQ(Config().BasePath().Path(), u"\\Software\\Other");
}

TEST_F(ConfigInfo, TakesARootedPathAsItIs) {
  Config().BasePath(CPath(u"\\Software\\Other"));
  EXPECT_EQ(Config().SetUserValue(CPath(u"\\Software\\Third\\v"), 1u), 1);
  EXPECT_EQ(NumberAt(u"\\HKCU\\Software\\Third\\v"), 1u);
}

TEST_F(ConfigInfo, GivesBackEachKindOfValueOfUserAndSystem) {
  const unsigned char bytes[] = {1, 2};
  CConfigInfo& config = Config();
  EXPECT_EQ(config.SetUserValue(CPath(u"n"), 1u) + config.SetUserValue(CPath(u"t"), u"user") +
                config.SetUserValue(CPath(u"b"), bytes, 2),
            3);
  EXPECT_EQ(config.SetSystemValue(CPath(u"n"), 2u) + config.SetSystemValue(CPath(u"t"), u"system") +
                config.SetSystemValue(CPath(u"b"), bytes, 1),
            3);
  std::uint32_t number = 0;
  wcstring text;
  unsigned char read[4];
  std::uint32_t size = sizeof read;
  EXPECT_EQ(config.GetUserValue(CPath(u"n"), number) + config.GetUserValue(CPath(u"t"), text) +
                config.GetUserValue(CPath(u"b"), read, size),
            3);
  EXPECT_EQ(number, 1u);
  EXPECT_EQ(text, u"user");
  EXPECT_EQ(size, 2u);
  size = sizeof read;
  EXPECT_EQ(config.GetSystemValue(CPath(u"n"), number) + config.GetSystemValue(CPath(u"t"), text) +
                config.GetSystemValue(CPath(u"b"), read, size),
            3);
  EXPECT_EQ(number, 2u);
  EXPECT_EQ(text, u"system");
  EXPECT_EQ(size, 1u);
}

TEST_F(ConfigInfo, KeepsThePlatformsCodeOfAFailureAndTheTarget) {
  std::uint32_t number = 7;
  EXPECT_EQ(Config().GetUserValue(CPath(u"none"), number), 0);
  EXPECT_EQ(Config().LastError(), platform::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(number, 7u);
  {
    const auto plan = platform::FaultPlan::FailCall(platform::Operation::kRegCreateKey, 1, platform::ERROR_DISK_FULL);
    EXPECT_EQ(Config().CreateUserKey(CPath(u"A")), 0);
  }
  EXPECT_EQ(Config().LastError(), platform::ERROR_DISK_FULL);
  EXPECT_EQ(Config().CreateUserKey(CPath(u"A")), 1);
  EXPECT_EQ(Config().LastError(), platform::ERROR_SUCCESS);
}

TEST_F(ConfigInfo, MakesListsAndRemovesKeys) {
  CConfigInfo& config = Config();
  EXPECT_EQ(config.CreateUserKey(CPath(u"A\\B")), 1);
  EXPECT_EQ(config.CreateSystemKey(CPath(u"A\\C")), 1);
  std::vector<KeyValue> keys;
  EXPECT_EQ(config.EnumerateUserKeys(CPath(u"A"), keys), 1);
  EXPECT_EQ(config.EnumerateSystemKeys(CPath(u"A"), keys), 1);
  ASSERT_EQ(keys.size(), 2u);
  EXPECT_EQ(keys[0].m_name, u"B");
  EXPECT_EQ(keys[1].m_name, u"C");
  EXPECT_EQ(config.RemoveUser(CPath(u"A"), false), 0);
  EXPECT_EQ(config.LastError(), platform::ERROR_ACCESS_DENIED);
  EXPECT_EQ(config.RemoveUser(CPath(u"A"), true), 1);
  EXPECT_EQ(config.RemoveSystem(CPath(u"A"), true), 1);
  EXPECT_EQ(config.EnumerateUserKeys(CPath(u"A"), keys), 0);
}

TEST_F(ConfigInfo, FetchesTheDefaultValueOfAKey) {
  CPath name(u"A");
  name += CPathElement(u"");
  EXPECT_EQ(Config().SetUserValue(name, u"user") + Config().SetSystemValue(name, u"system"), 2);
  wcstring value;
  EXPECT_EQ(Config().FetchUserKeyData(CPath(u"A"), value), 1);
  EXPECT_EQ(value, u"user");
  EXPECT_EQ(Config().FetchSystemKeyData(CPath(u"A"), value), 1);
  EXPECT_EQ(value, u"system");
  EXPECT_EQ(Config().FetchSystemKeyData(CPath(u"B"), value), 0);
  EXPECT_EQ(Config().LastError(), platform::ERROR_FILE_NOT_FOUND);
}

// --- steps ---

TEST_F(ConfigInfo, StepsThroughKeysUntilNoMoreItems) {
  EXPECT_EQ(Config().CreateUserKey(CPath(u"A\\1")) + Config().CreateUserKey(CPath(u"A\\2")), 2);
  wcstring name;
  EXPECT_EQ(Config().StepUserKey(CPath(u"A"), name), 1);
  EXPECT_EQ(name, u"1");
  EXPECT_EQ(Config().StepSystemKey(name), 1);  // continues whatever was begun
  EXPECT_EQ(name, u"2");
  EXPECT_EQ(Config().StepUserKey(name), 0);
  EXPECT_EQ(Config().LastError(), platform::ERROR_NO_MORE_ITEMS);
  EXPECT_EQ(name, u"2");
  EXPECT_EQ(Config().StepUserKey(CPath(u"A"), name), 1);  // from the beginning
  EXPECT_EQ(name, u"1");
}

TEST_F(ConfigInfo, StepsThroughValuesWithTheirTypes) {
  const unsigned char bytes[300] = {};
  EXPECT_EQ(Config().SetSystemValue(CPath(u"A\\1"), u"text") + Config().SetSystemValue(CPath(u"A\\2"), bytes, 300) +
                Config().SetSystemValue(CPath(u"A\\3"), 1u),
            3);
  platform::RegistryKey key;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, u"Software\\Korvane\\A", platform::KEY_ALL_ACCESS, key),
            0u);
  ASSERT_EQ(platform::SetValue(key, u"4", platform::REG_NONE, bytes, 1), 0u);
  ASSERT_EQ(key.Close(), 0u);
  std::vector<CConfigInfo::ValueType> types;
  std::string names;
  wcstring name;
  CConfigInfo::ValueType type{};
  for (unsigned char more = Config().StepSystemValue(CPath(u"A"), name, type); more != 0;
       more = Config().StepUserValue(name, type)) {
    types.push_back(type);
    names += name.ascii();
  }
  EXPECT_EQ(names, "1234");
  EXPECT_THAT(types, ElementsAre(CConfigInfo::kString, CConfigInfo::kBinary, CConfigInfo::kNumber, CConfigInfo::kNone));
  EXPECT_EQ(Config().LastError(), platform::ERROR_NO_MORE_ITEMS);
}

TEST_F(ConfigInfo, BeginsNoStepsWhereThereIsNoKey) {
  EXPECT_EQ(Config().CreateUserKey(CPath(u"A\\1")), 1);
  wcstring name(u"kept");
  CConfigInfo::ValueType type = CConfigInfo::kNumber;
  EXPECT_EQ(Config().StepUserKey(CPath(u"A"), name), 1);
  EXPECT_EQ(Config().StepUserValue(CPath(u"none"), name, type), 0);
  EXPECT_EQ(Config().LastError(), platform::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Config().StepSystemValue(name, type), 0);  // the earlier enumeration was closed
  EXPECT_EQ(Config().LastError(), platform::ERROR_INVALID_HANDLE);
  EXPECT_EQ(type, CConfigInfo::kNumber);
}

TEST_F(ConfigInfo, PrintsItsPathsAndLastCode) {
  Config().BasePath(CPath(u"Base"));
  EXPECT_EQ(Config().CreateUserKey(CPath(u"A")), 1);
  std::ostringstream out;
  EXPECT_EQ(Config().Print(out), 1);
  EXPECT_EQ(out.str(), "\\HKCU\\Software\\Korvane\n\\HKLM\\Software\\Korvane\nBase\n0\n");
  out.setstate(std::ios_base::failbit);
  EXPECT_EQ(Config().Print(out), 0);
}

}  // namespace
}  // namespace ZepFoundation
