#include "platform/registry_sub_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "platform/testing/fault.h"
#include "platform/tests/store_fixture.h"

namespace platform {
namespace {

using ::testing::ElementsAre;

class RegistrySubKeys : public StoreFixture {
 protected:
  // Made and committed, and opened anew.
  static RegistryKey Make(std::u16string_view path) {
    RegistryKey key;
    EXPECT_EQ(CreateKey(Hive::kCurrentUser, path, KEY_ALL_ACCESS, key), 0u);
    EXPECT_EQ(key.Close(), 0u);
    EXPECT_EQ(OpenKey(Hive::kCurrentUser, path, KEY_ALL_ACCESS, key), 0u);
    return key;
  }
};

// What ReadSubKeys() tells of the values "text" and "number", one line a sub key.
std::vector<std::string> Told(const RegistryKey& key, std::u16string_view after, std::size_t most) {
  const std::u16string_view names[] = {u"TEXT", u"number"};
  std::vector<std::string> told;
  EXPECT_EQ(ReadSubKeys(key, after, most, names,
                        [&](const SubKeyValues& sub) {
                          std::u16string text;
                          std::uint32_t number = 0;
                          std::string line(sub.Name().begin(), sub.Name().end());
                          const ErrorCode textCode = sub.Text(0, text);
                          const ErrorCode numberCode = sub.Dword(1, number);
                          line += textCode == 0 ? " " + std::string(text.begin(), text.end())
                                                : " !" + std::to_string(textCode);
                          line += numberCode == 0 ? " " + std::to_string(number) : " !" + std::to_string(numberCode);
                          told.push_back(line);
                        }),
            0u);
  return told;
}

TEST_F(RegistrySubKeys, SubKeysComeWithTheValuesAskedForInOrderOfNames) {
  const RegistryKey key = Make(u"Software\\Many");
  for (const std::u16string_view name : {u"b", u"D", u"a", u"c"}) {
    RegistryKey sub;
    ASSERT_EQ(CreateKey(key, name, KEY_ALL_ACCESS, sub), 0u);
    if (name != u"c") {
      ASSERT_EQ(SetString(sub, u"Text", std::u16string(u"of ") + std::u16string(name)), 0u);
    }
    ASSERT_EQ(SetDword(sub, u"Number", name[0]), 0u);
    ASSERT_EQ(SetDword(sub, u"Other", 1), 0u);
    // As it is in the batch, and after it.
    EXPECT_EQ(Told(key, {}, 1).size(), 1u);
    ASSERT_EQ(sub.Close(), 0u);
  }
  EXPECT_THAT(Told(key, u"", 9), ElementsAre("a of a 97", "b of b 98", "c !2 99", "D of D 68"));
  EXPECT_THAT(Told(key, u"", 2), ElementsAre("a of a 97", "b of b 98"));
  EXPECT_THAT(Told(key, u"B", 1), ElementsAre("c !2 99"));
  EXPECT_THAT(Told(key, u"bb", 9), ElementsAre("c !2 99", "D of D 68"));
  EXPECT_TRUE(Told(key, u"d", 9).empty());
}

TEST_F(RegistrySubKeys, SubKeysOfAWrongTypeSayAsSingleReadsDo) {
  const RegistryKey key = Make(u"Software\\Many");
  RegistryKey sub;
  ASSERT_EQ(CreateKey(key, u"a", KEY_ALL_ACCESS, sub), 0u);
  ASSERT_EQ(SetDword(sub, u"text", 1), 0u);
  ASSERT_EQ(SetRawValue(sub, u"number", REG_DWORD, std::as_bytes(std::span(std::u16string_view(u"abc")))), 0u);
  ASSERT_EQ(sub.Close(), 0u);
  EXPECT_THAT(Told(key, u"", 9), ElementsAre("a !13 !234"));
  const FaultPlan plan = FaultPlan::FailCall(Operation::kRegQueryValue, 2, 4711);
  EXPECT_THAT(Told(key, u"", 9), ElementsAre("a !13 !4711"));
}

TEST_F(RegistrySubKeys, SubKeysOfADeletedKeyOrWithoutTheRightAreRefused) {
  const RegistryKey key = Make(u"Software\\Gone");
  const auto read = [](const RegistryKey& of) { return ReadSubKeys(of, u"", 9, {}, [](const SubKeyValues&) {}); };
  EXPECT_EQ(read(key), 0u);
  RegistryKey writing;
  ASSERT_EQ(OpenKey(key, u"", KEY_WRITE, writing), 0u);
  EXPECT_EQ(read(writing), ERROR_ACCESS_DENIED);
  writing.Close();
  ASSERT_EQ(DeleteKey(Hive::kCurrentUser, u"Software\\Gone"), 0u);
  EXPECT_EQ(read(key), ERROR_KEY_DELETED);
  EXPECT_EQ(read(RegistryKey()), ERROR_INVALID_HANDLE);
  const RegistryKey other = Make(u"Software\\A");
  const FaultPlan plan = FaultPlan::FailCall(Operation::kRegEnumKey, 1, 4711);
  EXPECT_EQ(read(other), 4711u);
}

TEST_F(RegistrySubKeys, AllValuesOfAKeyComeInOrderOfNames) {
  const RegistryKey key = Make(u"Software\\Values");
  std::vector<RegistryValue> values(1);
  EXPECT_EQ(ReadRegistryValues(key, values), 0u);
  EXPECT_TRUE(values.empty());
  for (const char16_t* name : {u"b", u"C", u"", u"a"}) ASSERT_EQ(SetString(key, name, name), 0u);
  ASSERT_EQ(SetRawValue(key, u"empty", REG_BINARY, {}), 0u);
  ASSERT_EQ(ReadRegistryValues(key, values), 0u);
  std::vector<std::u16string> names;
  for (const RegistryValue& value : values) names.push_back(value.name);
  EXPECT_THAT(names, ElementsAre(u"", u"a", u"b", u"C", u"empty"));
  for (const RegistryValue& value : values) {
    std::uint32_t type = 0;
    std::vector<std::byte> data;
    EXPECT_EQ(QueryValueBytes(key, value.name, type, data), 0u);
    EXPECT_EQ(value.type, type);
    EXPECT_EQ(value.data, data);
  }
  RegistryKey writing;
  ASSERT_EQ(OpenKey(key, u"", KEY_WRITE, writing), 0u);
  EXPECT_EQ(ReadRegistryValues(writing, values), ERROR_ACCESS_DENIED);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegEnumValue, 1, 4711);
    EXPECT_EQ(ReadRegistryValues(key, values), 4711u);
  }
  EXPECT_EQ(values.size(), 5u) << "left as they were";
  ASSERT_EQ(DeleteKey(Hive::kCurrentUser, u"Software\\Values"), 0u);
  EXPECT_EQ(ReadRegistryValues(key, values), ERROR_KEY_DELETED);
}

TEST_F(RegistrySubKeys, TheStampChangesWithEveryWriteOfAnybody) {
  const RegistryKey key = Make(u"Software\\A");
  RegistryStamp last;
  ASSERT_EQ(ReadRegistryStamp(key, last), 0u);
  const auto changed = [&] {
    RegistryStamp now;
    EXPECT_EQ(ReadRegistryStamp(key, now), 0u);
    const bool differs = now != last;
    last = now;
    return differs;
  };
  EXPECT_FALSE(changed());
  RegistryKey sub;
  ASSERT_EQ(CreateKey(key, u"b", KEY_ALL_ACCESS, sub), 0u);
  EXPECT_TRUE(changed());
  ASSERT_EQ(SetDword(sub, u"v", 1), 0u);
  EXPECT_TRUE(changed());
  ASSERT_EQ(sub.Close(), 0u);
  (void)Told(key, u"", 9);
  (void)changed();
  EXPECT_FALSE(changed());  // reading is none
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, ERROR_DISK_FULL);
    ASSERT_EQ(OpenKey(key, u"b", KEY_ALL_ACCESS, sub), 0u);
    ASSERT_EQ(SetDword(sub, u"v", 2), 0u);
    (void)changed();
    EXPECT_EQ(sub.Close(), ERROR_DISK_FULL);
  }
  EXPECT_TRUE(changed());  // the loss took a write back
  ASSERT_EQ(DeleteKey(key, u"b"), 0u);
  EXPECT_TRUE(changed());
  Reopen();
  const RegistryKey again = Make(u"Software\\A");
  RegistryStamp now;
  ASSERT_EQ(ReadRegistryStamp(again, now), 0u);
  EXPECT_NE(now.store, last.store);
  last = now;
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(m_path.c_str(), &other), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(other, "UPDATE keys SET name=x'41' WHERE id=1", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(other);
  ASSERT_EQ(ReadRegistryStamp(again, now), 0u);
  EXPECT_NE(now, last);
}

}  // namespace
}  // namespace platform
