#include "platform/registry_read_ahead.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/fault.h"

namespace platform {
namespace {

constexpr int kKeys = 200;

std::u16string Digits(int i) {
  const std::string text = std::to_string(1000 + i);
  return {text.begin(), text.end()};
}

// A store with a key of many sub keys, each with a text, a number and one sub key of its own.
class RegistryReadAhead : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (std::filesystem::temp_directory_path() / "qxaheadXXXXXX").string();
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    m_folder = name;
    m_path = m_folder / "registry.db";
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
    Fill(kKeys);
    ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Many", KEY_ALL_ACCESS, m_many), 0u);
  }
  void TearDown() override {
    m_many.Close();
    (void)CloseRegistryStore();
    std::filesystem::remove_all(m_folder);
  }

  static void Fill(int count) {
    RegistryKey many;
    ASSERT_EQ(CreateKey(Hive::kCurrentUser, u"Software\\Many", KEY_ALL_ACCESS, many), 0u);
    for (int i = 0; i < count; ++i) {
      RegistryKey key, below;
      ASSERT_EQ(CreateKey(many, u"Key" + Digits(i), KEY_ALL_ACCESS, key), 0u);
      ASSERT_EQ(SetString(key, u"Text", u"text " + Digits(i)), 0u);
      ASSERT_EQ(SetDword(key, u"Number", static_cast<std::uint32_t>(i)), 0u);
      ASSERT_EQ(CreateKey(key, u"Below", KEY_ALL_ACCESS, below), 0u);
      static std::vector<RegistryKey> open;  // one commit for all
      open.push_back(std::move(key));
      open.push_back(std::move(below));
      if (i + 1 == count) open.clear();
    }
  }

  void RunSql(const char* sql) const {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(m_path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
  }

  // One sub key as the calls tell of it, in one text.
  static std::string Told(const RegistryKey& many, std::uint32_t index) {
    std::u16string name;
    RegistryKey key;
    KeyInfo info;
    std::u16string text;
    std::uint32_t number = 0;
    std::uint32_t type = 0;
    std::uint32_t size = 0;
    std::string told = std::to_string(EnumKey(many, index, name)) + " " + std::string(name.begin(), name.end());
    told += " " + std::to_string(OpenKey(many, name, KEY_READ, key)) + " " + std::to_string(QueryInfoKey(key, info));
    for (const std::uint32_t value : {info.subKeyCount, info.maxSubKeyLength, info.valueCount, info.maxValueNameLength,
                                      info.maxValueLength}) {
      told += " " + std::to_string(value);
    }
    told += " " + std::to_string(ReadRegistryString(key, u"tExT", text)) + " " + std::string(text.begin(), text.end());
    told += " " + std::to_string(ReadRegistryDword(key, u"Number", number)) + " " + std::to_string(number);
    told += " " + std::to_string(ReadRegistryDword(key, u"None", number));
    told += " " + std::to_string(QueryValue(key, u"Text", &type, nullptr, &size)) + " " + std::to_string(type) + " " +
            std::to_string(size);
    RegistryKey below;
    told += " " + std::to_string(OpenKey(key, u"Below", KEY_READ, below));
    return told;
  }
  static std::vector<std::string> ToldOfAll(const RegistryKey& many) {
    std::vector<std::string> all;
    for (std::uint32_t i = 0; i <= kKeys; ++i) all.push_back(Told(many, i));
    return all;
  }
  static std::uint32_t NumberOf(const RegistryKey& key) {
    std::uint32_t number = 0;
    EXPECT_EQ(ReadRegistryDword(key, u"Number", number), 0u);
    return number;
  }
  // Opens the sub key at an index, after those in front of it.
  RegistryKey OpenAt(std::uint32_t index) const {
    std::u16string name;
    for (std::uint32_t i = 0; i <= index; ++i) EXPECT_EQ(EnumKey(m_many, i, name), 0u);
    RegistryKey key;
    EXPECT_EQ(OpenKey(m_many, name, KEY_ALL_ACCESS, key), 0u);
    return key;
  }

  std::filesystem::path m_folder;
  std::string m_path;
  RegistryKey m_many;
};

TEST_F(RegistryReadAhead, TellsTheSameAsTheStore) {
  const std::vector<std::string> expected = ToldOfAll(m_many);
  const KeyReadAhead ahead(m_many);
  EXPECT_EQ(ToldOfAll(m_many), expected);
  EXPECT_EQ(ahead.Taken(), std::size_t{kKeys});
}

TEST_F(RegistryReadAhead, BeginsInTheMiddleAndEndsAfterSoMany) {
  const std::vector<std::string> expected = ToldOfAll(m_many);
  std::u16string name;
  ASSERT_EQ(EnumKey(m_many, 9, name), 0u);
  const KeyReadAhead ahead(m_many, {}, 10, 50);
  for (std::uint32_t i = 10; i <= kKeys; ++i) EXPECT_EQ(Told(m_many, i), expected[i]) << i;
  EXPECT_EQ(ahead.Taken(), 50u);
}

TEST_F(RegistryReadAhead, ReadsNothingFromAPlaceWhereTheHandleDoesNotStand) {
  std::u16string name;
  const auto taken = [&](std::uint32_t first) {
    const KeyReadAhead ahead(m_many, {}, first);
    EXPECT_EQ(EnumKey(m_many, first, name), 0u);
    return ahead.Taken();
  };
  EXPECT_EQ(taken(5), 0u);  // a fresh handle stands nowhere
  ASSERT_EQ(EnumKey(m_many, 5, name), 0u);
  EXPECT_EQ(taken(5), 0u);
  EXPECT_EQ(taken(6), 1u);
}

TEST_F(RegistryReadAhead, ShowsEachSubKeyInOrder) {
  std::vector<std::u16string> seen;
  {
    const KeyReadAhead ahead(m_many, [&](const KeyReadAhead::Seen& key) {
      std::u16string text;
      EXPECT_TRUE(key.Text(u"text", text));
      EXPECT_FALSE(key.Text(u"Number", text)) << "not a text";
      EXPECT_FALSE(key.Text(u"None", text));
      seen.push_back(std::u16string(key.Name()) + u"=" + text);
    });
    (void)ToldOfAll(m_many);
  }
  ASSERT_EQ(seen.size(), std::size_t{kKeys});
  for (int i = 0; i < kKeys; ++i) EXPECT_EQ(seen[static_cast<std::size_t>(i)], u"Key" + Digits(i) + u"=text " + Digits(i));
}

TEST_F(RegistryReadAhead, SeesAWriteOfThisProcessAtOnce) {
  const KeyReadAhead ahead(m_many);
  const RegistryKey key = OpenAt(3);
  EXPECT_EQ(NumberOf(key), 3u);
  RegistryKey writer;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Many\\Key1003", KEY_ALL_ACCESS, writer), 0u);
  ASSERT_EQ(SetDword(writer, u"Number", 99), 0u);
  EXPECT_EQ(NumberOf(key), 99u) << "not committed yet";
  ASSERT_EQ(writer.Close(), 0u);
  EXPECT_EQ(NumberOf(key), 99u);
  EXPECT_EQ(ahead.Taken(), 4u);
}

TEST_F(RegistryReadAhead, GoesOnBehindTheLastKeyAfterAWrite) {
  const KeyReadAhead ahead(m_many);
  (void)OpenAt(3);
  ASSERT_EQ(DeleteTree(Hive::kCurrentUser, u"Software\\Many\\Key1005"), 0u);
  std::u16string name;
  ASSERT_EQ(EnumKey(m_many, 4, name), 0u);
  EXPECT_EQ(name, u"Key1004");
  ASSERT_EQ(EnumKey(m_many, 5, name), 0u);
  EXPECT_EQ(name, u"Key1006");
}

TEST_F(RegistryReadAhead, SaysThatAKeyIsDeleted) {
  const KeyReadAhead ahead(m_many);
  const RegistryKey key = OpenAt(3);
  ASSERT_EQ(DeleteTree(Hive::kCurrentUser, u"Software\\Many\\Key1003"), 0u);
  std::uint32_t number = 0;
  EXPECT_EQ(ReadRegistryDword(key, u"Number", number), ERROR_KEY_DELETED);
}

TEST_F(RegistryReadAhead, SeesAWriteOfAnotherProgramAfterItsTime) {
  const KeyReadAhead ahead(m_many);
  const RegistryKey key = OpenAt(3);
  RunSql("UPDATE vals SET data=x'07000000' WHERE type=4");
  RunSql("DELETE FROM keys WHERE name=(SELECT name FROM keys WHERE parent=(SELECT parent FROM keys k JOIN vals v ON "
         "v.key=k.id WHERE v.type=4 LIMIT 1) ORDER BY fold LIMIT 1 OFFSET 5)");
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kReadAheadTrustMs + 1);
  std::this_thread::sleep_until(until);
  EXPECT_EQ(NumberOf(key), 7u);
  std::u16string name;
  ASSERT_EQ(EnumKey(m_many, 4, name), 0u);
  EXPECT_EQ(name, u"Key1004");
}

TEST_F(RegistryReadAhead, AnEarlierHandleIsNotAnsweredFromALaterReading) {
  RegistryKey key;
  {
    const KeyReadAhead first(m_many);
    key = OpenAt(3);
  }
  RegistryKey writer;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Many\\Key1003", KEY_ALL_ACCESS, writer), 0u);
  ASSERT_EQ(SetDword(writer, u"Number", 99), 0u);
  ASSERT_EQ(writer.Close(), 0u);
  const KeyReadAhead second(m_many);
  EXPECT_EQ(NumberOf(key), 99u);
}

TEST_F(RegistryReadAhead, AnswersAnyOrderOfIndices) {
  const KeyReadAhead ahead(m_many);
  for (const std::uint32_t index : {5u, 0u, 1u, 1u, 9u, 2u}) {
    std::u16string name;
    ASSERT_EQ(EnumKey(m_many, index, name), 0u);
    EXPECT_EQ(name, u"Key" + Digits(static_cast<int>(index)));
  }
}

TEST_F(RegistryReadAhead, AsksForRightsAsEver) {
  const KeyReadAhead ahead(m_many);
  std::u16string name;
  ASSERT_EQ(EnumKey(m_many, 0, name), 0u);
  RegistryKey key;
  ASSERT_EQ(OpenKey(m_many, name, KEY_SET_VALUE, key), 0u);
  std::uint32_t number = 0;
  EXPECT_EQ(ReadRegistryDword(key, u"Number", number), ERROR_ACCESS_DENIED);
  KeyInfo info;
  EXPECT_EQ(QueryInfoKey(key, info), ERROR_ACCESS_DENIED);
}

TEST_F(RegistryReadAhead, LetsEachCallFail) {
  const KeyReadAhead ahead(m_many);
  const RegistryKey key = OpenAt(0);
  std::u16string name;
  std::uint32_t number = 0;
  KeyInfo info;
  RegistryKey other;
  struct Row {
    Operation operation;
    std::function<ErrorCode()> call;
  };
  const Row rows[] = {
      {Operation::kRegEnumKey, [&] { return EnumKey(m_many, 1, name); }},
      {Operation::kRegOpenKey, [&] { return OpenKey(m_many, u"Key1000", KEY_READ, other); }},
      {Operation::kRegQueryInfoKey, [&] { return QueryInfoKey(key, info); }},
      {Operation::kRegQueryValue, [&] { return ReadRegistryDword(key, u"Number", number); }},
  };
  for (const Row& row : rows) {
    const FaultPlan plan = FaultPlan::FailCall(row.operation, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(row.call(), ERROR_ACCESS_DENIED) << OperationName(row.operation);
    EXPECT_EQ(row.call(), 0u) << OperationName(row.operation);
  }
}

TEST_F(RegistryReadAhead, ReadsNothingAheadWithoutAThread) {
  FaultPlan plan = FaultPlan::FailCall(Operation::kCreateThread, 1, ERROR_NO_PROC_SLOTS, kOnce, "registry-ahead");
  const KeyReadAhead ahead(m_many);
  EXPECT_EQ(plan.hits(), 1);
  plan.Remove();
  EXPECT_EQ(NumberOf(OpenAt(kKeys - 1)), static_cast<std::uint32_t>(kKeys - 1));
  EXPECT_EQ(ahead.Taken(), 0u);
}

TEST_F(RegistryReadAhead, ReadsNothingAheadOfAnOpenBatch) {
  RegistryKey writer;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Many\\Key1000", KEY_ALL_ACCESS, writer), 0u);
  ASSERT_EQ(SetDword(writer, u"Number", 99), 0u);
  const KeyReadAhead ahead(m_many);
  EXPECT_EQ(NumberOf(OpenAt(0)), 99u);
  EXPECT_EQ(ahead.Taken(), 0u);
  EXPECT_EQ(writer.Close(), 0u);
}

TEST_F(RegistryReadAhead, IsOneAtATime) {
  const KeyReadAhead first(m_many);
  {
    const KeyReadAhead second(m_many);
    EXPECT_EQ(second.Taken(), 0u);
  }
  (void)OpenAt(2);
  EXPECT_EQ(first.Taken(), 3u);
}

TEST_F(RegistryReadAhead, EndsWhileTheReaderWaits) {
  Fill(3000);  // more than are read without anybody taking them
  std::mutex lock;
  std::size_t seen = 0;
  const KeyReadAhead ahead(m_many, [&](const KeyReadAhead::Seen&) {
    const std::lock_guard hold(lock);
    ++seen;
  });
  std::u16string name;
  EXPECT_EQ(EnumKey(m_many, 0, name), 0u);
}

TEST_F(RegistryReadAhead, OutlivesTheStore) {
  {
    const KeyReadAhead ahead(m_many);
    (void)OpenAt(2);
    ASSERT_EQ(CloseRegistryStore(), 0u);
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
    std::u16string name;
    EXPECT_EQ(EnumKey(m_many, 3, name), ERROR_INVALID_HANDLE);
  }
  RegistryKey again;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Many", KEY_READ, again), 0u);
  std::u16string name;
  EXPECT_EQ(EnumKey(again, 0, name), 0u);
}

}  // namespace
}  // namespace platform
