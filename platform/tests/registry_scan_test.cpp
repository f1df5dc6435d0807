#include "platform/registry_scan.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

constexpr std::uint32_t kKeys = 200;
constexpr std::u16string_view kMany = u"Software\\Many";
constexpr std::string_view kAskedNames[] = {"Text", "Number"};

std::u16string Digits(std::uint32_t i) {
  const std::string text = std::to_string(1000 + i);
  return {text.begin(), text.end()};
}

// A store with a key of many sub keys that were made in another order than that of their names, each with a text, a
// number, a value that nobody asks for, and a sub key with values of the same names.
class RegistryScanTest : public testing::Test {
 protected:
  void SetUp() override {
    m_path = m_folder + "/registry.db";
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
    ASSERT_EQ(CreateKey(Hive::kCurrentUser, kMany, KEY_ALL_ACCESS, m_many), 0u);
    std::vector<RegistryKey> open;  // one commit for all
    for (std::uint32_t i = 0; i < kKeys; ++i) {
      const std::uint32_t number = i * 77 % kKeys;
      RegistryKey key, below;
      ASSERT_EQ(CreateKey(m_many, u"Key" + Digits(number), KEY_ALL_ACCESS, key), 0u);
      if (number != 5) {
        ASSERT_EQ(SetString(key, u"tExT", u"text " + Digits(number)), 0u);
      }
      ASSERT_EQ(SetDword(key, u"Number", number), 0u);
      ASSERT_EQ(SetString(key, u"Another", u"x"), 0u);
      ASSERT_EQ(CreateKey(key, u"Below", KEY_ALL_ACCESS, below), 0u);
      ASSERT_EQ(SetString(below, u"Text", u"below"), 0u);
      open.push_back(std::move(key));
      open.push_back(std::move(below));
    }
    open.clear();
    m_many.Close();
    ASSERT_EQ(OpenKey(Hive::kCurrentUser, kMany, KEY_ALL_ACCESS, m_many), 0u);
  }
  void TearDown() override {
    m_many.Close();
    (void)CloseRegistryStore();
  }

  void RunSql(const char* sql) const {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(m_path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
  }
  [[nodiscard]] bool Open(RegistryScan& scan) const { return scan.Open(m_path, Hive::kCurrentUser, kMany); }

  const TemporaryFolder m_temporary{"qxscan"};
  const std::string m_folder = m_temporary.Path();
  std::string m_path;
  RegistryKey m_many;
};

std::u16string TextOf(const RegistryScan::Value& value) {
  std::u16string text(value.data.size() / 2, u'\0');
  if (!text.empty()) std::memcpy(text.data(), value.data.data(), value.data.size());
  return text;
}

TEST_F(RegistryScanTest, GivesEachSubKeyOnceWithItsIndexAndTheValuesThatWereAskedFor) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  ASSERT_EQ(scan.Size(), kKeys);
  std::map<std::uint32_t, int> seen;
  std::size_t greatest = 0;
  EXPECT_TRUE(scan.Read(kAskedNames, 7, [&](RegistryScan::Batch&& batch) {
    greatest = std::max(greatest, batch.Size());
    for (std::size_t i = 0; i < batch.Size(); ++i) {
      const std::uint32_t index = batch.Index(i);
      ++seen[index];
      const RegistryScan::Value text = batch.At(i, 0);
      EXPECT_EQ(text.isThere, index != 5);
      if (text.isThere) {
        EXPECT_EQ(text.type, REG_SZ);
        EXPECT_EQ(TextOf(text), u"text " + Digits(index) + u'\0');
      }
      const RegistryScan::Value number = batch.At(i, 1);
      std::uint32_t value = 0;
      EXPECT_TRUE(number.isThere && number.type == REG_DWORD && number.data.size() == sizeof value);
      std::memcpy(&value, number.data.data(), sizeof value);
      EXPECT_EQ(value, index);
    }
    return true;
  }));
  EXPECT_EQ(seen.size(), kKeys);
  for (const auto& [index, times] : seen) EXPECT_EQ(times, 1) << index;
  EXPECT_EQ(greatest, 7u);
}

TEST_F(RegistryScanTest, NumbersSubKeysAsTheyAreEnumerated) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  for (std::uint32_t i = 0; i < kKeys; ++i) {
    std::u16string name;
    ASSERT_EQ(EnumKey(m_many, i, name), 0u);
    std::u16string folded;
    const auto bytes = scan.Folded(i);
    for (std::size_t at = 0; at < bytes.size(); at += 2) {
      folded += static_cast<char16_t>(bytes[at] << 8 | bytes[at + 1]);
    }
    EXPECT_EQ(folded, u"KEY" + name.substr(3));
  }
}

TEST_F(RegistryScanTest, EndsWhenNobodyWantsMore) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  int given = 0;
  EXPECT_FALSE(scan.Read(kAskedNames, 1, [&](RegistryScan::Batch&&) { return ++given < 3; }));
  EXPECT_EQ(given, 3);
}

TEST_F(RegistryScanTest, LetsAnEnumerationGoOnAnywhere) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  for (const std::uint32_t index : {150u, 0u, 1u, 199u, 42u}) {
    scan.PlaceBefore(m_many, index);
    std::u16string name;
    ASSERT_EQ(EnumKey(m_many, index, name), 0u);
    EXPECT_EQ(name, u"Key" + Digits(index));
  }
}

TEST_F(RegistryScanTest, NeedsNoOpenStore) {
  m_many.Close();
  ASSERT_EQ(CloseRegistryStore(), 0u);
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  std::size_t count = 0;
  EXPECT_TRUE(scan.Read(kAskedNames, 64, [&](RegistryScan::Batch&& batch) {
    count += batch.Size();
    return true;
  }));
  EXPECT_EQ(count, kKeys);
  EXPECT_FALSE(scan.Holds());
  ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  EXPECT_TRUE(scan.Holds());
}

// Whoever opened the store while it is read keeps other programs from taking its log away.
TEST_F(RegistryScanTest, LeavesTheLocksOfAStoreThatIsOpenedMeanwhile) {
  m_many.Close();
  ASSERT_EQ(CloseRegistryStore(), 0u);
  {
    RegistryScan scan;
    ASSERT_TRUE(Open(scan));
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
    ASSERT_EQ(OpenKey(Hive::kCurrentUser, kMany, KEY_READ, m_many), 0u);
  }
  const int fd = ::open(m_path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  struct flock lock {};  // the range that readers share
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0x40000002;
  lock.l_len = 510;
  EXPECT_EQ(::fcntl(fd, F_OFD_GETLK, &lock), 0);
  EXPECT_EQ(lock.l_type, F_RDLCK);
  ::close(fd);
}

TEST_F(RegistryScanTest, HoldsUntilThisProcessWrites) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  ASSERT_TRUE(scan.Read(kAskedNames, 64, [](RegistryScan::Batch&&) { return true; }));
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  std::u16string name;
  EXPECT_EQ(EnumKey(m_many, 0, name), 0u);
  EXPECT_EQ(QueryValueBytes(m_many, u"None", type, data), ERROR_FILE_NOT_FOUND);
  EXPECT_TRUE(scan.Holds());
  ASSERT_EQ(SetDword(m_many, u"New", 1), 0u);
  EXPECT_FALSE(scan.Holds()) << "what isn't committed yet counts too";
  ASSERT_EQ(m_many.Close(), 0u);
  EXPECT_FALSE(scan.Holds());
}

TEST_F(RegistryScanTest, HoldsUntilAnotherProgramWrites) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  ASSERT_TRUE(scan.Read(kAskedNames, 64, [](RegistryScan::Batch&&) { return true; }));
  EXPECT_TRUE(scan.Holds());
  RunSql("UPDATE vals SET type=3 WHERE type=4");
  EXPECT_FALSE(scan.Holds());
}

TEST_F(RegistryScanTest, NoticesAWriteWhileItReads) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  bool written = false;
  EXPECT_TRUE(scan.Read(kAskedNames, 64, [&](RegistryScan::Batch&&) {
    if (!written) RunSql("UPDATE vals SET type=3 WHERE type=4");
    written = true;
    return true;
  }));
  EXPECT_FALSE(scan.Holds());
}

TEST_F(RegistryScanTest, HoldsForItsOwnFileAlone) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  m_many.Close();
  ASSERT_EQ(CloseRegistryStore(), 0u);
  ASSERT_EQ(OpenRegistryStore(m_folder + "/other.db"), 0u);
  EXPECT_EQ(RegistryStoreFile(), m_folder + "/other.db");
  EXPECT_FALSE(scan.Holds());
}

TEST_F(RegistryScanTest, GivesWayToCallsThatATestLetsFail) {
  RegistryScan scan;
  ASSERT_TRUE(Open(scan));
  {
    const FaultPlan plan = FaultPlan::CountOnly();
    EXPECT_FALSE(scan.Holds());
  }
  EXPECT_TRUE(scan.Holds());
}

TEST_F(RegistryScanTest, SaysThatItCanNotRead) {
  std::ofstream(m_folder + "/text.db") << "no store, but a file that is longer than a header of one hundred bytes: "
                                       << std::string(200, 'x');
  struct Case {
    const char* what;
    std::string file;
    Hive hive;
    std::u16string_view key;
  };
  const Case cases[] = {
      {"no file", m_folder + "/none.db", Hive::kCurrentUser, kMany},
      {"no store", m_folder + "/text.db", Hive::kCurrentUser, kMany},
      {"a directory", m_folder, Hive::kCurrentUser, kMany},
      {"no key", m_path, Hive::kCurrentUser, u"Software\\None"},
      {"no root", m_path, Hive::kPerformanceData, kMany},
  };
  for (const Case& c : cases) {
    RegistryScan scan;
    EXPECT_FALSE(scan.Open(c.file, c.hive, c.key)) << c.what;
    EXPECT_FALSE(scan.Holds()) << c.what;
  }
  EXPECT_FALSE(std::filesystem::exists(m_folder + "/none.db"));
  const FaultPlan plan = FaultPlan::FailCall(Operation::kRegOpenStore, 1, ERROR_BUSY);
  RegistryScan scan;
  EXPECT_FALSE(Open(scan));
}

TEST_F(RegistryScanTest, LeavesTheStoreAsItIs) {
  m_many.Close();
  ASSERT_EQ(CloseRegistryStore(), 0u);
  const auto bytes = [this] {
    std::ifstream in(m_path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const std::string before = bytes();
  {
    RegistryScan scan;
    ASSERT_TRUE(Open(scan));
    ASSERT_TRUE(scan.Read(kAskedNames, 64, [](RegistryScan::Batch&&) { return true; }));
  }
  EXPECT_EQ(bytes(), before);
}

}  // namespace
}  // namespace platform
