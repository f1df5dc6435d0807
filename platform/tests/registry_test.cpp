#include "platform/registry.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/file.h"
#include "platform/registry_scan.h"
#include "platform/testing/fault.h"
#include "platform/testing/registry_hook.h"
#include "platform/tests/store_fixture.h"

namespace platform {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::span<const std::byte> BytesOf(std::u16string_view text) {
  return std::as_bytes(std::span(text));
}

std::u16string Number(int i) {
  const std::string text = std::to_string(i);
  return {text.begin(), text.end()};
}

class Registry : public StoreFixture {
 protected:
  static RegistryKey Make(std::u16string_view path) {
    RegistryKey key;
    EXPECT_EQ(CreateKey(Hive::kCurrentUser, path, KEY_ALL_ACCESS, key), 0u);
    return key;
  }
  static ErrorCode Has(std::u16string_view path) {
    RegistryKey key;
    return OpenKey(Hive::kCurrentUser, path, KEY_READ, key);
  }
  static ErrorCode HasValue(std::u16string_view path, std::u16string_view name) {
    RegistryKey key;
    if (const ErrorCode code = OpenKey(Hive::kCurrentUser, path, KEY_READ, key); code != 0) return code;
    std::uint32_t size = 0;
    return QueryValue(key, name, nullptr, nullptr, &size);
  }
  static std::vector<std::u16string> KeyNames(const RegistryKey& key) {
    std::vector<std::u16string> names;
    std::u16string name;
    for (std::uint32_t i = 0; EnumKey(key, i, name) == 0; ++i) names.push_back(name);
    return names;
  }

  // How many keys of that name another program sees, that is, a start after a kill of this one.
  int CommittedKeys(std::u16string_view name) const {
    int count = -1;
    sqlite3* db = nullptr;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_open(m_path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT count(*) FROM keys WHERE name = ?", -1, &statement, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db);
    sqlite3_bind_blob(statement, 1, name.data(), static_cast<int>(name.size() * sizeof(char16_t)), SQLITE_STATIC);
    if (sqlite3_step(statement) == SQLITE_ROW) count = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return count;
  }

  // Runs a statement on a connection of its own, as another program would.
  void RunSql(const char* sql) const {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(m_path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
  }
};

// --- The store's life ---

TEST_F(Registry, MakesItsFileForTheOwnerAlone) {
  RegistryKey key = Make(u"Software\\A");
  ASSERT_EQ(key.Close(), 0u);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    struct stat status {};
    ASSERT_EQ(::stat((m_path + suffix).c_str(), &status), 0) << suffix;
    EXPECT_EQ(status.st_mode & 0777, 0600u) << suffix;
  }
}

TEST_F(Registry, KeepsEverythingOverAReopening) {
  RegistryKey key = Make(u"Software\\A");
  ASSERT_EQ(SetString(key, u"Text", u"kept"), 0u);
  ASSERT_EQ(SetDword(key, u"Number", 7), 0u);
  ASSERT_EQ(key.Close(), 0u);
  Reopen();
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\A", KEY_READ, key), 0u);
  std::u16string text;
  std::uint32_t number = 0;
  EXPECT_EQ(ReadRegistryString(key, u"Text", text), 0u);
  EXPECT_EQ(ReadRegistryDword(key, u"Number", number), 0u);
  EXPECT_EQ(text, u"kept");
  EXPECT_EQ(number, 7u);
}

TEST_F(Registry, OpensOneStoreAtATime) {
  std::string why;
  EXPECT_EQ(OpenRegistryStore(m_folder / "other.db", &why), ERROR_BUSY);
  EXPECT_THAT(why, HasSubstr("open already"));
  EXPECT_FALSE(std::filesystem::exists(m_folder / "other.db"));
}

TEST_F(Registry, AnswersWithoutAStoreThatNoneIsOpen) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  EXPECT_EQ(CloseRegistryStore(), ERROR_BADDB);
  EXPECT_EQ(Has(u"Software"), ERROR_BADDB);
  EXPECT_EQ(DeleteKey(Hive::kCurrentUser, u"Software\\A"), ERROR_BADDB);
}

TEST_F(Registry, TakesKeysOfAClosedStoreForInvalid) {
  RegistryKey key;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software", KEY_READ, key), 0u);
  Reopen();
  KeyInfo info;
  EXPECT_EQ(QueryInfoKey(key, info), ERROR_INVALID_HANDLE);
  EXPECT_EQ(key.Close(), ERROR_INVALID_HANDLE);
}

TEST_F(Registry, RefusesADirectoryThatIsMissing) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  std::string why;
  EXPECT_EQ(OpenRegistryStore(m_folder / "none" / "registry.db", &why), ERROR_PATH_NOT_FOUND);
  EXPECT_THAT(why, HasSubstr("none/registry.db"));
}

TEST_F(Registry, RefusesANewerSchemaAndLeavesItAsItIs) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  RunSql("PRAGMA user_version=2");
  const auto read = [&] {
    std::ifstream in(m_path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const std::string before = read();
  std::string why;
  EXPECT_EQ(OpenRegistryStore(m_path, &why), ERROR_NOT_SUPPORTED);
  EXPECT_THAT(why, HasSubstr("newer version (schema 2, this program knows 1)"));
  std::string where;
  EXPECT_EQ(CheckRegistryStore(m_path, where), ERROR_NOT_SUPPORTED);
  EXPECT_EQ(where, why);
  EXPECT_EQ(read(), before);
}

TEST_F(Registry, RefusesADatabaseOfSomebodyElse) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  std::filesystem::remove(m_path);
  RunSql("CREATE TABLE other(x)");
  std::string why;
  EXPECT_EQ(OpenRegistryStore(m_path, &why), ERROR_REGISTRY_CORRUPT);
  EXPECT_THAT(why, HasSubstr("not a registry store"));
}

TEST_F(Registry, FindsASoundStoreSound) {
  ASSERT_EQ(Make(u"Software\\A").Close(), 0u);
  std::string where = "unset";
  EXPECT_EQ(CheckRegistryStore(m_path, where), 0u);
  EXPECT_EQ(where, "");
  EXPECT_EQ(Has(u"Software\\A"), 0u) << "the check of an open store leaves it working";
  EXPECT_EQ(CheckRegistryStore(m_folder / "none.db", where), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(CheckRegistryStore(m_path + "/registry.db", where), ERROR_PATH_NOT_FOUND);
}

TEST_F(Registry, NamesThePlaceOfADamageAndKeepsACopy) {
  {
    RegistryKey key = Make(u"Software\\A");
    for (int i = 0; i < 400; ++i) ASSERT_EQ(SetString(key, Number(i), std::u16string(100, u'x')), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  std::string copy;
  EXPECT_EQ(KeepDamagedCopy(m_path, copy), ERROR_BUSY) << "not while it is open";
  ASSERT_EQ(CloseRegistryStore(), 0u);
  {
    std::fstream file(m_path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096 * 7);
    const std::string junk(4096 * 3, '\xA5');
    file.write(junk.data(), static_cast<std::streamsize>(junk.size()));
  }
  std::string where;
  EXPECT_EQ(CheckRegistryStore(m_path, where), ERROR_REGISTRY_CORRUPT);
  EXPECT_THAT(where, HasSubstr(m_path));
  EXPECT_THAT(where, HasSubstr("age "));  // "page 8" or "Page 8", as the finding says it

  ASSERT_EQ(KeepDamagedCopy(m_path, copy), 0u);
  EXPECT_EQ(copy, m_path + ".damaged");
  EXPECT_EQ(std::filesystem::file_size(copy), std::filesystem::file_size(m_path));
  ASSERT_EQ(KeepDamagedCopy(m_path, copy), 0u);
  EXPECT_EQ(copy, m_path + ".damaged") << "an equal copy is enough";
  {
    std::ofstream file(m_path, std::ios::app | std::ios::binary);
    file << "more";
  }
  ASSERT_EQ(KeepDamagedCopy(m_path, copy), 0u);
  EXPECT_EQ(copy, m_path + ".damaged.2");
}

TEST_F(Registry, CallsAStoreWithOtherTablesDamaged) {
  ASSERT_EQ(Make(u"Software\\A").Close(), 0u);
  ASSERT_EQ(CloseRegistryStore(), 0u);
  RunSql("PRAGMA writable_schema=ON;"
         "UPDATE sqlite_master SET sql=replace(sql, 'REFERENCES keys(id)', 'REFERENCES keys(ie)')");
  std::string where;
  EXPECT_EQ(CheckRegistryStore(m_path, where), ERROR_REGISTRY_CORRUPT);
  EXPECT_THAT(where, HasSubstr("foreign key mismatch"));
}

TEST_F(Registry, CallsAFileThatIsNoDatabaseDamaged) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  {
    std::ofstream file(m_path, std::ios::trunc | std::ios::binary);
    file << std::string(8192, 'q');
  }
  std::string why;
  std::string where;
  EXPECT_EQ(OpenRegistryStore(m_path, &why), ERROR_REGISTRY_CORRUPT);
  EXPECT_EQ(CheckRegistryStore(m_path, where), ERROR_REGISTRY_CORRUPT);
  EXPECT_THAT(where, HasSubstr("not a database"));
}

TEST_F(Registry, CallsAnEmptiedFileBesideItsLogDamagedAndLeavesTheLog) {
  const std::string before = m_folder / "before";
  const std::string log = m_path + "-wal";
  ASSERT_EQ(Make(u"Software\\A").Close(), 0u);
  std::filesystem::copy_file(log, before);  // the close of the store writes the log back
  ASSERT_EQ(CloseRegistryStore(), 0u);
  std::filesystem::copy_file(before, log);
  std::filesystem::resize_file(m_path, 0);
  const auto bytes = [](const std::string& name) {
    std::string contents;
    EXPECT_EQ(ReadWholeFile(name, contents), 0u) << name;
    return contents;
  };
  RegistryScan scan;
  EXPECT_FALSE(scan.Open(m_path, Hive::kCurrentUser, u"Software"));
  std::string where;
  EXPECT_EQ(CheckRegistryStore(m_path, where), ERROR_REGISTRY_CORRUPT);
  EXPECT_EQ(where, m_path + ": is empty, and its write-ahead log isn't");
  std::string why;
  EXPECT_EQ(OpenRegistryStore(m_path, &why), ERROR_REGISTRY_CORRUPT);
  EXPECT_EQ(why, where);
  std::filesystem::create_symlink(m_path, m_folder / "link.db");
  EXPECT_EQ(OpenRegistryStore(m_folder / "link.db"), ERROR_REGISTRY_CORRUPT);
  EXPECT_TRUE(bytes(log) == bytes(before));
  std::string copy;
  ASSERT_EQ(KeepDamagedCopy(m_path, copy), 0u);
  EXPECT_TRUE(bytes(copy + "-wal") == bytes(before));

  std::filesystem::resize_file(log, 0);
  EXPECT_EQ(OpenRegistryStore(m_path, &why), 0u) << "one that was never written is made: " << why;
}

// --- Batches ---

TEST_F(Registry, ShowsAWriteToEveryHandleBeforeItIsCommitted) {
  RegistryKey writer = Make(u"Software\\A");
  ASSERT_EQ(SetDword(writer, u"N", 5), 0u);
  RegistryKey reader;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"software\\a", KEY_READ, reader), 0u);
  std::uint32_t number = 0;
  EXPECT_EQ(ReadRegistryDword(reader, u"n", number), 0u);
  EXPECT_EQ(number, 5u);
}

// Forks a child that runs `work` and dies without closing anything.
template <typename Work>
void DieAfter(Work work) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    work();
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(Registry, ValuesReadBehindAQuestionAboutTheirKeyShowWhatWasWrittenMeanwhile) {
  RegistryKey writer = Make(u"Copies\\Key");
  ASSERT_EQ(SetDword(writer, u"A", 1), 0u);
  ASSERT_EQ(SetDword(writer, u"B", 1), 0u);
  ASSERT_EQ(writer.Close(), 0u);
  RegistryKey reader;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Copies\\Key", KEY_READ, reader), 0u);
  KeyInfo info;
  ASSERT_EQ(QueryInfoKey(reader, info), 0u);
  EXPECT_EQ(info.valueCount, 2u);
  std::uint32_t value = 0;
  EXPECT_EQ(ReadRegistryDword(reader, u"a", value), 0u);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(ReadRegistryDword(reader, u"C", value), ERROR_FILE_NOT_FOUND);

  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Copies\\Key", KEY_ALL_ACCESS, writer), 0u);
  ASSERT_EQ(SetDword(writer, u"A", 2), 0u);
  EXPECT_EQ(ReadRegistryDword(reader, u"A", value), 0u);
  EXPECT_EQ(value, 2u);
  ASSERT_EQ(QueryInfoKey(reader, info), 0u);
  ASSERT_EQ(DeleteValue(writer, u"B"), 0u);
  EXPECT_EQ(ReadRegistryDword(reader, u"B", value), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(writer.Close(), 0u);

  // What another program writes shows within milliseconds.
  ASSERT_EQ(QueryInfoKey(reader, info), 0u);
  RunSql("UPDATE vals SET data=x'07000000' WHERE fold=x'0041'");
  const std::uint32_t begun = TickCount();
  do {
    ASSERT_EQ(ReadRegistryDword(reader, u"A", value), 0u);
  } while (value != 7 && TickCount() - begun < 60000);
  EXPECT_EQ(value, 7u);
}

TEST_F(Registry, TheDefaultValueIsReadBehindAQuestionAboutItsKey) {
  RegistryKey key = Make(u"Copies\\Default");
  KeyInfo info;
  for (const bool isSet : {false, true}) {
    if (isSet) {
      ASSERT_EQ(SetString(key, u"", u"night"), 0u);
    }
    ASSERT_EQ(QueryInfoKey(key, info), 0u);
    std::u16string text;
    EXPECT_EQ(ReadRegistryString(key, u"", text), isSet ? 0u : ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ReadRegistryString(key, u"A", text), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text, isSet ? u"night" : u"");
  }
  ASSERT_EQ(key.Close(), 0u);
}

TEST_F(Registry, AQuestionAboutAKeyIsAnsweredAnewBehindAnyChange) {
  RegistryKey key = Make(u"Asked\\Key");
  ASSERT_EQ(SetDword(key, u"A", 1), 0u);
  ASSERT_EQ(key.Close(), 0u);
  ASSERT_EQ(Make(u"Asked\\Other").Close(), 0u);
  const auto ask = [](const char16_t* path) {
    RegistryKey asked;
    KeyInfo info;
    EXPECT_EQ(OpenKey(Hive::kCurrentUser, path, KEY_READ, asked), 0u);
    EXPECT_EQ(QueryInfoKey(asked, info), 0u);
    return std::pair(info.subKeyCount, info.valueCount);
  };
  for (int i = 0; i < 2; ++i) EXPECT_EQ(ask(u"Asked\\Key"), std::pair(0u, 1u));
  EXPECT_EQ(ask(u"Asked\\Other"), std::pair(0u, 0u));
  EXPECT_EQ(ask(u"Asked\\Key"), std::pair(0u, 1u));
  // Of another program, and of this one: written, not yet committed, and taken back.
  RunSql("DELETE FROM vals WHERE fold=x'0041'");
  EXPECT_EQ(ask(u"Asked\\Key"), std::pair(0u, 0u));
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Asked\\Key", KEY_ALL_ACCESS, key), 0u);
  ASSERT_EQ(SetDword(key, u"B", 1), 0u);
  EXPECT_EQ(ask(u"Asked\\Key"), std::pair(0u, 1u));
  ASSERT_EQ(DeleteValue(key, u"B"), 0u);
  EXPECT_EQ(ask(u"Asked\\Key"), std::pair(0u, 0u));
  ASSERT_EQ(key.Close(), 0u);
  ASSERT_EQ(Make(u"Asked\\Key\\Below").Close(), 0u);
  EXPECT_EQ(ask(u"Asked\\Key"), std::pair(1u, 0u));
  ASSERT_EQ(DeleteTree(Hive::kCurrentUser, u"Asked\\Key"), 0u);
  ASSERT_EQ(Make(u"Asked\\Key").Close(), 0u);
  EXPECT_EQ(ask(u"Asked\\Key"), std::pair(0u, 0u));
}

TEST_F(Registry, APathThatWasFollowedIsFollowedAnewBehindAnyChange) {
  ASSERT_EQ(Make(u"Way\\To\\Key").Close(), 0u);
  EXPECT_EQ(Has(u"Way\\To\\Key"), 0u);
  RunSql("DELETE FROM keys WHERE id=(SELECT max(id) FROM keys)");
  EXPECT_EQ(Has(u"Way\\To\\Key"), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(Make(u"Way\\To\\Key").Close(), 0u);
  EXPECT_EQ(Has(u"Way\\To\\Key"), 0u);
  ASSERT_EQ(DeleteTree(Hive::kCurrentUser, u"Way"), 0u);
  EXPECT_EQ(Has(u"Way\\To\\Key"), ERROR_FILE_NOT_FOUND);
}

TEST_F(Registry, ForgetsTheOpenBatchOfAProcessThatDies) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  DieAfter([&] {
    RegistryKey key;
    if (OpenRegistryStore(m_path) != 0) ::_exit(1);
    if (CreateKey(Hive::kCurrentUser, u"Software\\Killed", KEY_ALL_ACCESS, key) != 0) ::_exit(2);
    if (SetString(key, u"v", u"x") != 0) ::_exit(3);
    ::_exit(0);
  });
  ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  EXPECT_EQ(Has(u"Software\\Killed"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Make(u"Software\\Next").Close(), 0u);
}

TEST_F(Registry, KeepsTheCommittedBatchOfAProcessThatDies) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  DieAfter([&] {
    RegistryKey key;
    if (OpenRegistryStore(m_path) != 0) ::_exit(1);
    if (CreateKey(Hive::kCurrentUser, u"Software\\Killed", KEY_ALL_ACCESS, key) != 0) ::_exit(2);
    if (SetString(key, u"v", u"x") != 0 || key.Close() != 0) ::_exit(3);
    ::_exit(0);
  });
  ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  EXPECT_EQ(HasValue(u"Software\\Killed", u"v"), 0u);
}

TEST_F(Registry, CommitsEverythingWhenAnyWriterCloses) {
  RegistryKey first = Make(u"Software\\First");
  RegistryKey second = Make(u"Software\\Second");
  RegistryKey reader;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software", KEY_READ, reader), 0u);
  ASSERT_EQ(reader.Close(), 0u);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, ERROR_DISK_FULL, kOnce, "First");
    ASSERT_EQ(second.Close(), 0u);
    EXPECT_EQ(first.Close(), ERROR_DISK_FULL);
  }
  EXPECT_EQ(Has(u"Software\\First"), 0u) << "it was committed before";
  EXPECT_EQ(Has(u"Software\\Second"), 0u);
}

TEST_F(Registry, DoesNotCommitWhenAReaderCloses) {
  RegistryKey writer = Make(u"Software\\A");
  RegistryKey reader;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\A", KEY_READ, reader), 0u);
  ASSERT_EQ(reader.Close(), 0u);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, ERROR_DISK_FULL);
  EXPECT_EQ(writer.Close(), ERROR_DISK_FULL);
  EXPECT_EQ(Has(u"Software\\A"), ERROR_FILE_NOT_FOUND);
}

TEST_F(Registry, ReportsAFailedCommitAtTheCloseAndKeepsNothingOfIt) {
  RegistryKey key = Make(u"Software\\A");
  ASSERT_EQ(SetString(key, u"v", u"x"), 0u);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(key.Close(), ERROR_REGISTRY_IO_FAILED);
  }
  EXPECT_FALSE(key.IsOpen());
  EXPECT_EQ(Has(u"Software\\A"), ERROR_FILE_NOT_FOUND);
  key = Make(u"Software\\A");
  EXPECT_EQ(key.Close(), 0u) << "the next batch works";
}

TEST_F(Registry, GivesTheLossOfABatchToEveryHandleThatWroteIntoIt) {
  ASSERT_EQ(Make(u"Software\\Old").Close(), 0u);
  RegistryKey first = Make(u"Software\\Old");
  ASSERT_EQ(SetString(first, u"v", u"x"), 0u);
  RegistryKey second = Make(u"Software\\New");
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, ERROR_DISK_FULL);
    EXPECT_EQ(second.Close(), ERROR_DISK_FULL);
  }
  EXPECT_EQ(SetString(first, u"w", u"y"), ERROR_DISK_FULL) << "no half of a change may remain";
  RegistryKey child;
  EXPECT_EQ(CreateKey(first, u"Child", KEY_WRITE, child), ERROR_DISK_FULL);
  EXPECT_EQ(DeleteTree(first, u"Child"), ERROR_DISK_FULL);
  EXPECT_EQ(DeleteValue(first, u"v"), ERROR_DISK_FULL);
  EXPECT_EQ(first.Close(), ERROR_DISK_FULL);
  EXPECT_EQ(HasValue(u"Software\\Old", u"v"), ERROR_FILE_NOT_FOUND);
}

TEST_F(Registry, DoesNotTakeAKeyOfALostBatchForALaterOne) {
  RegistryKey lost = Make(u"Software\\Lost");
  RegistryKey other;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Lost", KEY_ALL_ACCESS, other), 0u);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, ERROR_DISK_FULL);
    ASSERT_EQ(lost.Close(), ERROR_DISK_FULL);
  }
  RegistryKey later = Make(u"Software\\Later");
  ASSERT_EQ(SetString(later, u"v", u"x"), 0u);
  std::uint32_t size = 0;
  EXPECT_EQ(QueryValue(other, u"v", nullptr, nullptr, &size), ERROR_KEY_DELETED);
  EXPECT_EQ(SetString(other, u"v", u"y"), ERROR_KEY_DELETED);
  EXPECT_EQ(later.Close(), 0u);
}

TEST_F(Registry, LosesTheWholeBatchOnAFullDisk) {
  ASSERT_EQ(Make(u"Software\\Old").Close(), 0u);
  ASSERT_EQ(LimitRegistryGrowth(2), 0u);
  RegistryKey key = Make(u"Software\\Full");
  ASSERT_EQ(SetString(key, u"small", u"x"), 0u);
  const std::vector<std::byte> large(1 << 20);
  EXPECT_EQ(SetValue(key, u"large", REG_BINARY, large), ERROR_DISK_FULL);
  EXPECT_EQ(key.Close(), ERROR_DISK_FULL);
  EXPECT_EQ(Has(u"Software\\Full"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Has(u"Software\\Old"), 0u);
  EXPECT_EQ(Make(u"Software\\Next").Close(), 0u);
}

// SQLite takes a whole transaction back for a read that finds no memory or that the disk fails.
TEST_F(Registry, LosesTheWholeBatchToAReadThatTakesItBack) {
  RegistryKey key = Make(u"Software\\Old");
  ASSERT_EQ(SetValue(key, u"large", REG_BINARY, std::vector<std::byte>(8 << 20)), 0u);
  ASSERT_EQ(key.Close(), 0u);
  RegistryKey old;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Old", KEY_ALL_ACCESS, old), 0u);
  for (const bool fromAnotherThread : {false, true}) {
    SCOPED_TRACE(fromAnotherThread);
    key = Make(u"Software\\New");
    ASSERT_EQ(SetString(key, u"first", u"x"), 0u);
    RegistryKey second = Make(u"Software\\Second");
    const auto read = [&] {
      sqlite3_hard_heap_limit64(sqlite3_memory_used() + (1 << 20));
      std::uint32_t type = 0;
      std::vector<std::byte> data;
      EXPECT_EQ(QueryValueBytes(old, u"large", type, data), ERROR_NOT_ENOUGH_MEMORY);
      sqlite3_hard_heap_limit64(0);
    };
    if (fromAnotherThread) {
      std::thread(read).join();
    } else {
      read();
    }
    EXPECT_EQ(SetString(key, u"last", u"y"), ERROR_NOT_ENOUGH_MEMORY);
    RegistryKey below;
    EXPECT_EQ(CreateKey(second, u"Below", KEY_WRITE, below), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(key.Close(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(second.Close(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(Has(u"Software\\New"), ERROR_FILE_NOT_FOUND);
    ASSERT_EQ(SetString(old, u"half", u"z"), 0u) << "a batch of its own";
    ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Old", KEY_ALL_ACCESS, second), 0u);
    EXPECT_EQ(old.Close(), 0u);
    old = std::move(second);
    EXPECT_EQ(HasValue(u"Software\\Old", u"half"), 0u);
  }
}

// What comes behind such a read doesn't stand alone, whoever writes it.
TEST_F(Registry, KeepsNothingThatIsWrittenIntoABatchThatAReadTookBack) {
  RegistryKey key = Make(u"Software\\Old");
  ASSERT_EQ(SetValue(key, u"large", REG_BINARY, std::vector<std::byte>(8 << 20)), 0u);
  ASSERT_EQ(key.Close(), 0u);
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Old", KEY_ALL_ACCESS, key), 0u);
  ASSERT_EQ(SetString(key, u"first", u"x"), 0u);
  sqlite3_hard_heap_limit64(sqlite3_memory_used() + (1 << 20));
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  EXPECT_EQ(QueryValueBytes(key, u"large", type, data), ERROR_NOT_ENOUGH_MEMORY);
  sqlite3_hard_heap_limit64(0);
  (void)SetString(key, u"last", u"y");
  EXPECT_EQ(key.Close(), ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(HasValue(u"Software\\Old", u"first"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(HasValue(u"Software\\Old", u"last"), ERROR_FILE_NOT_FOUND) << "half of a change";
}

// A commit into files that no start finds again would be lost with the process, whoever was told that it is safe.
TEST_F(Registry, CommitsNothingIntoFilesThatAreGone) {
  const std::string kept = m_path + ".kept";
  const std::string log = m_path + "-wal";
  const auto restore = [&](const std::string& name) { std::filesystem::rename(kept, name); };
  struct Case {
    int line;
    const std::string& name;
    bool comesAnother;
  };
  const Case cases[] = {
      {__LINE__, m_path, false}, {__LINE__, m_path, true}, {__LINE__, log, false}, {__LINE__, log, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    RegistryKey key = Make(u"Software\\Kept");
    ASSERT_EQ(key.Close(), 0u);
    key = Make(u"Software\\Lost");
    RegistryKey other;
    ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software", KEY_ALL_ACCESS, other), 0u);
    std::filesystem::rename(c.name, kept);
    if (c.comesAnother) std::filesystem::copy_file(kept, c.name);
    EXPECT_EQ(key.Close(), ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(Has(u"Software\\Lost"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SetDword(other, u"v", 1), 0u);
    EXPECT_EQ(other.Close(), ERROR_REGISTRY_IO_FAILED) << "the next one too";
    EXPECT_EQ(DeleteTree(Hive::kCurrentUser, u"Software\\Kept"), ERROR_REGISTRY_IO_FAILED);
    restore(c.name);
    EXPECT_EQ(Has(u"Software\\Kept"), 0u);
    key = Make(u"Software\\Behind");
    EXPECT_EQ(key.Close(), 0u) << "they are back";
    Reopen();
    EXPECT_EQ(Has(u"Software\\Behind"), 0u);
    EXPECT_EQ(DeleteTree(Hive::kCurrentUser, u"Software\\Behind"), 0u);
  }
}

TEST_F(Registry, CommitsIntoAFileThatALinkLeadsTo) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  std::filesystem::create_directory(m_folder / "there");
  std::filesystem::rename(m_path, m_folder / "there" / "store");
  std::filesystem::create_symlink("there/store", m_path);
  ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  RegistryKey key = Make(u"Software\\A");
  EXPECT_EQ(key.Close(), 0u);
  Reopen();
  EXPECT_EQ(Has(u"Software\\A"), 0u);
}

TEST_F(Registry, CommitsTheOpenBatchWhenTheStoreCloses) {
  RegistryKey key = Make(u"Software\\A");
  Reopen();
  EXPECT_EQ(Has(u"Software\\A"), 0u);
  EXPECT_EQ(key.Close(), ERROR_INVALID_HANDLE);
}

TEST_F(Registry, LeavesNoBatchOpenBehindARefusedWrite) {
  RegistryKey stale = Make(u"Software\\Gone");
  ASSERT_EQ(stale.Close(), 0u);
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\Gone", KEY_ALL_ACCESS, stale), 0u);
  ASSERT_EQ(DeleteKey(Hive::kCurrentUser, u"Software\\Gone"), 0u);
  EXPECT_EQ(SetString(stale, u"v", u"x"), ERROR_KEY_DELETED);
  EXPECT_EQ(DeleteValue(stale, u"v"), ERROR_KEY_DELETED);
  // An open batch would keep this other connection out for good.
  RunSql("BEGIN IMMEDIATE; COMMIT");
}

TEST_F(Registry, SeesWhatAnotherProcessCommitted) {
  RegistryKey key;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software", KEY_READ, key), 0u);
  std::u16string name;
  EXPECT_EQ(EnumKey(key, 0, name), ERROR_NO_MORE_ITEMS);
  RunSql("INSERT INTO keys(parent,name,fold) SELECT id, x'4100', x'0041' FROM keys WHERE parent=2");
  EXPECT_EQ(EnumKey(key, 0, name), 0u);
  EXPECT_EQ(name, u"A");
}

// --- Names ---

TEST_F(Registry, ComparesNamesWithoutRegardToCaseAndKeepsTheirCase) {
  RegistryKey key = Make(u"Software\\MixedCase");
  bool created = true;
  ASSERT_EQ(CreateKey(Hive::kCurrentUser, u"SOFTWARE\\mIXEDcASE", KEY_ALL_ACCESS, key, &created), 0u);
  EXPECT_FALSE(created);
  RegistryKey parent;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"software", KEY_READ, parent), 0u);
  EXPECT_THAT(KeyNames(parent), ElementsAre(u"MixedCase"));
  ASSERT_EQ(SetString(key, u"Name", u"1"), 0u);
  ASSERT_EQ(SetString(key, u"NAME", u"2"), 0u);
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  ASSERT_EQ(EnumValue(key, 0, name, type, data), 0u);
  EXPECT_EQ(name, u"Name");
  EXPECT_EQ(EnumValue(key, 1, name, type, data), ERROR_NO_MORE_ITEMS);
  std::u16string text;
  ASSERT_EQ(ReadRegistryString(key, u"nAmE", text), 0u);
  EXPECT_EQ(text, u"2");
}

TEST_F(Registry, FoldsLettersOfOtherAlphabets) {
  struct Case {
    int line;
    const char16_t* made;
    const char16_t* opened;
    bool isSame;
  };
  const Case cases[] = {
      {__LINE__, u"\u00e4rger", u"\u00c4RGER", true},
      {__LINE__, u"\u0434\u0430", u"\u0414\u0410", true},
      {__LINE__, u"\u03c3", u"\u03a3", true},
      {__LINE__, u"\u0131", u"I", false},
      {__LINE__, u"\u017f", u"S", false},
      {__LINE__, u"\u00df", u"SS", false},
      {__LINE__, u"\U0001F600", u"\U0001F600", true},
      {__LINE__, u"\U0001F600", u"\U0001F601", false},
  };
  for (const Case& c : cases) {
    RegistryKey key = Make(u"Software\\Fold");
    RegistryKey child;
    ASSERT_EQ(CreateKey(key, c.made, KEY_WRITE, child), 0u) << c.line;
    EXPECT_EQ(OpenKey(key, c.opened, KEY_READ, child), c.isSame ? 0u : ERROR_FILE_NOT_FOUND) << c.line;
    ASSERT_EQ(DeleteTree(Hive::kCurrentUser, u"Software\\Fold"), 0u);
  }
}

TEST_F(Registry, KeepsNamesThatAreNoWholeText) {
  RegistryKey key = Make(u"Software\\A");
  const std::u16string lone(1, char16_t{0xD800});
  RegistryKey child;
  ASSERT_EQ(CreateKey(key, lone, KEY_WRITE, child), 0u);
  EXPECT_THAT(KeyNames(key), ElementsAre(lone));
}

TEST_F(Registry, BoundsTheLengthOfNames) {
  RegistryKey key = Make(u"Software\\A");
  RegistryKey child;
  const std::u16string longest(kMaxKeyNameLength, u'n');
  EXPECT_EQ(CreateKey(key, longest, KEY_WRITE, child), 0u);
  EXPECT_EQ(CreateKey(key, longest + u"n", KEY_WRITE, child), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(CreateKey(key, u"New\\" + longest + u"n", KEY_WRITE, child), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(OpenKey(key, u"New", KEY_READ, child), ERROR_FILE_NOT_FOUND) << "all of a path or nothing";
  const std::u16string longestValue(kMaxValueNameLength, u'v');
  EXPECT_EQ(SetDword(key, longestValue, 1), 0u);
  EXPECT_EQ(SetDword(key, longestValue + u"v", 1), ERROR_INVALID_PARAMETER);
  const std::u16string withNul(u"a\0b", 3);
  EXPECT_EQ(SetDword(key, withNul, 1), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(CreateKey(key, withNul, KEY_WRITE, child), ERROR_INVALID_PARAMETER);
  KeyInfo info;
  ASSERT_EQ(QueryInfoKey(key, info), 0u);
  EXPECT_EQ(info.subKeyCount, 1u);
  EXPECT_EQ(info.maxSubKeyLength, kMaxKeyNameLength);
  EXPECT_EQ(info.maxValueNameLength, kMaxValueNameLength);
}

TEST_F(Registry, SaysThatAnEmptyPathWasCreated) {
  RegistryKey key;
  bool created = false;
  EXPECT_EQ(CreateKey(Hive::kCurrentUser, u"", KEY_ALL_ACCESS, key, &created), 0u);
  EXPECT_TRUE(created);
}

TEST_F(Registry, ReadsTheNamesOfRoots) {
  struct Case {
    int line;
    const char16_t* text;
    bool isKey;
    Hive hive;
    const char16_t* subKey;
  };
  const Case cases[] = {
      {__LINE__, u"HKLM\\SOFTWARE\\A", true, Hive::kLocalMachine, u"SOFTWARE\\A"},
      {__LINE__, u"hkey_local_machine\\x", true, Hive::kLocalMachine, u"x"},
      {__LINE__, u"HKCR\\AppID", true, Hive::kClassesRoot, u"AppID"},
      {__LINE__, u"HKEY_CLASSES_ROOT", true, Hive::kClassesRoot, u""},
      {__LINE__, u"hkcu\\", true, Hive::kCurrentUser, u""},
      {__LINE__, u"HKU\\a", true, Hive::kUsers, u"a"},
      {__LINE__, u"HKCC\\a", true, Hive::kCurrentConfig, u"a"},
      {__LINE__, u"HKEY_DYN_DATA\\a", true, Hive::kDynData, u"a"},
      {__LINE__, u"HKEY_PERFORMANCE_DATA", true, Hive::kPerformanceData, u""},
      {__LINE__, u"HKLM\\\\a", true, Hive::kLocalMachine, u"\\a"},
      {__LINE__, u"", false, {}, u""},
      {__LINE__, u"\\HKLM", false, {}, u""},
      {__LINE__, u"HKLMX\\a", false, {}, u""},
      {__LINE__, u"HKLM/a", false, {}, u""},
  };
  for (const Case& c : cases) {
    Hive hive{};
    std::u16string subKey;
    ASSERT_EQ(ParseKeyPath(c.text, hive, subKey), c.isKey) << c.line;
    EXPECT_EQ(hive, c.hive) << c.line;
    EXPECT_EQ(subKey, c.subKey) << c.line;
  }
}

TEST_F(Registry, KeepsItsRootsApart) {
  RegistryKey key;
  ASSERT_EQ(CreateKey(Hive::kClassesRoot, u"Software\\A", KEY_WRITE, key), 0u);
  EXPECT_EQ(Has(u"Software\\A"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(DeleteTree(Hive::kClassesRoot, u""), ERROR_ACCESS_DENIED);
}

// --- Keys ---

TEST_F(Registry, RefusesToUseAHandleBeyondItsRights) {
  RegistryKey key = Make(u"Software\\A");
  ASSERT_EQ(SetDword(key, u"v", 1), 0u);
  ASSERT_EQ(key.Close(), 0u);
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\A", KEY_WRITE, key), 0u);
  std::uint32_t number = 0;
  std::u16string name;
  KeyInfo info;
  EXPECT_EQ(ReadRegistryDword(key, u"v", number), ERROR_ACCESS_DENIED);
  EXPECT_EQ(EnumKey(key, 0, name), ERROR_ACCESS_DENIED);
  EXPECT_EQ(QueryInfoKey(key, info), ERROR_ACCESS_DENIED);
  EXPECT_EQ(SetDword(key, u"v", 2), 0u);
}

TEST_F(Registry, DeletesAWholeTreeWithItsValues) {
  std::u16string path = u"Software\\Top";
  RegistryKey key = Make(path);
  RegistryKey deep;
  // Two levels are there; as deep as keys may nest.
  std::u16string rest;
  for (std::uint32_t depth = 2; depth < kMaxKeyDepth; ++depth) rest += depth == 2 ? u"d" : u"\\d";
  ASSERT_EQ(CreateKey(key, rest, KEY_ALL_ACCESS, deep), 0u);
  ASSERT_EQ(SetDword(deep, u"v", 1), 0u);
  RegistryKey beyond;
  EXPECT_EQ(CreateKey(deep, u"d", KEY_WRITE, beyond), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(DeleteKey(Hive::kCurrentUser, path), ERROR_ACCESS_DENIED);
  ASSERT_EQ(DeleteTree(Hive::kCurrentUser, path), 0u);
  EXPECT_EQ(Has(path), ERROR_FILE_NOT_FOUND);
  std::uint32_t number = 0;
  EXPECT_EQ(ReadRegistryDword(deep, u"v", number), ERROR_KEY_DELETED);
  KeyInfo info;
  EXPECT_EQ(QueryInfoKey(deep, info), ERROR_KEY_DELETED);
  std::u16string name;
  EXPECT_EQ(EnumKey(deep, 0, name), ERROR_KEY_DELETED);
  EXPECT_EQ(OpenKey(deep, u"x", KEY_READ, beyond), ERROR_KEY_DELETED);
}

TEST_F(Registry, NeverTakesANewKeyForADeletedOne) {
  RegistryKey old = Make(u"Software\\A");
  ASSERT_EQ(DeleteKey(Hive::kCurrentUser, u"Software\\A"), 0u);
  RegistryKey anew = Make(u"Software\\A");
  EXPECT_EQ(SetDword(old, u"v", 1), ERROR_KEY_DELETED);
  EXPECT_EQ(SetDword(anew, u"v", 1), 0u);
}

TEST_F(Registry, OpensIntoTheParentsOwnHandle) {
  ASSERT_EQ(Make(u"Software\\A\\B").Close(), 0u);
  RegistryKey key;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software", KEY_READ, key), 0u);
  ASSERT_EQ(OpenKey(key, u"A", KEY_READ, key), 0u);
  EXPECT_THAT(KeyNames(key), ElementsAre(u"B"));
}

// --- Values ---

TEST_F(Registry, ChecksEveryTextThatItReads) {
  struct Case {
    int line;
    std::uint32_t type;
    std::string bytes;
    ErrorCode code;
    std::u16string text;
  };
  using namespace std::string_literals;
  const Case cases[] = {
      {__LINE__, REG_SZ, "a\0b\0\0\0"s, 0, u"ab"},
      {__LINE__, REG_EXPAND_SZ, "a\0\0\0"s, 0, u"a"},
      {__LINE__, REG_MULTI_SZ, "a\0\0\0b\0\0\0\0\0"s, 0, u"a"},
      {__LINE__, REG_MULTI_SZ, "\0\0\0\0"s, 0, u""},
      {__LINE__, REG_SZ, "\0\0"s, 0, u""},
      {__LINE__, REG_SZ, "a\0\0\0b\0\0\0"s, 0, u"a"},
      {__LINE__, REG_SZ, "a\0b\0"s, ERROR_INVALID_DATA, u""},
      {__LINE__, REG_SZ, "a\0\0\0\0"s, ERROR_INVALID_DATA, u""},
      {__LINE__, REG_SZ, ""s, ERROR_INVALID_DATA, u""},
      {__LINE__, REG_MULTI_SZ, "a\0\0\0"s, ERROR_INVALID_DATA, u""},
      {__LINE__, REG_MULTI_SZ, "\0\0"s, ERROR_INVALID_DATA, u""},
      {__LINE__, REG_DWORD, "\1\0\0\0"s, ERROR_INVALID_DATA, u""},
      {__LINE__, REG_BINARY, "a\0\0\0"s, ERROR_INVALID_DATA, u""},
  };
  const RegistryKey key = Make(u"Software\\A");
  for (const Case& c : cases) {
    ASSERT_EQ(SetRawValue(key, u"v", c.type, std::as_bytes(std::span(c.bytes))), 0u) << c.line;
    std::u16string text;
    EXPECT_EQ(ReadRegistryString(key, u"v", text), c.code) << c.line;
    EXPECT_EQ(text, c.text) << c.line;
  }
}

TEST_F(Registry, ChecksEveryNumberThatItReads) {
  struct Case {
    int line;
    std::uint32_t type;
    std::vector<unsigned char> bytes;
    ErrorCode code;
  };
  const Case cases[] = {
      {__LINE__, REG_DWORD, {1, 2, 3, 4}, 0},
      {__LINE__, REG_DWORD, {1, 2}, ERROR_INVALID_DATA},
      {__LINE__, REG_DWORD, {1, 2, 3, 4, 5, 6, 7, 8}, ERROR_MORE_DATA},
      {__LINE__, REG_BINARY, {1, 2, 3, 4}, ERROR_INVALID_DATA},
      {__LINE__, REG_SZ, {'1', 0, 0, 0}, ERROR_INVALID_DATA},
  };
  const RegistryKey key = Make(u"Software\\A");
  for (const Case& c : cases) {
    ASSERT_EQ(SetRawValue(key, u"v", c.type, std::as_bytes(std::span(c.bytes))), 0u) << c.line;
    std::uint32_t number = 0;
    EXPECT_EQ(ReadRegistryDword(key, u"v", number), c.code) << c.line;
    EXPECT_EQ(number, c.code == 0 ? 0x04030201u : 0u) << c.line;
  }
}

TEST_F(Registry, AddsAMissingTerminatorToTextOnly) {
  struct Case {
    int line;
    std::uint32_t type;
    std::u16string text;
    std::size_t stored;
  };
  const Case cases[] = {
      {__LINE__, REG_SZ, u"ab", 6},
      {__LINE__, REG_EXPAND_SZ, u"ab", 6},
      {__LINE__, REG_MULTI_SZ, u"ab", 6},
      {__LINE__, REG_BINARY, u"ab", 4},
      {__LINE__, REG_SZ, std::u16string(u"ab\0", 3), 6},
      {__LINE__, REG_SZ, u"", 0},
  };
  const RegistryKey key = Make(u"Software\\A");
  for (const Case& c : cases) {
    ASSERT_EQ(SetValue(key, u"v", c.type, BytesOf(c.text)), 0u) << c.line;
    std::uint32_t type = 0;
    std::vector<std::byte> data;
    ASSERT_EQ(QueryValueBytes(key, u"v", type, data), 0u) << c.line;
    EXPECT_EQ(type, c.type) << c.line;
    EXPECT_EQ(data.size(), c.stored) << c.line;
  }
}

TEST_F(Registry, KeepsLargeValues) {
  const RegistryKey key = Make(u"Software\\A");
  std::vector<std::byte> large(3 << 20);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::byte>(i * 7);
  ASSERT_EQ(SetValue(key, u"v", REG_BINARY, large), 0u);
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  ASSERT_EQ(QueryValueBytes(key, u"v", type, data), 0u);
  EXPECT_EQ(data, large);
}

// --- Enumeration ---

TEST_F(Registry, EnumeratesInTheOrderOfNames) {
  const RegistryKey key = Make(u"Software\\A");
  for (const char16_t* name : {u"b", u"C", u"a", u"{B}", u"_x", u"10", u"9"}) {
    RegistryKey child;
    ASSERT_EQ(CreateKey(key, name, KEY_WRITE, child), 0u);
  }
  EXPECT_THAT(KeyNames(key), ElementsAre(u"10", u"9", u"a", u"b", u"C", u"_x", u"{B}"));
}

TEST_F(Registry, AnswersEveryIndexInAnyOrder) {
  const RegistryKey key = Make(u"Software\\A");
  for (int i = 100; i < 150; ++i) ASSERT_EQ(SetDword(key, Number(i), static_cast<std::uint32_t>(i)), 0u);
  for (const std::uint32_t index : {0u, 1u, 1u, 2u, 40u, 41u, 3u, 49u, 0u}) {
    std::u16string name;
    std::uint32_t type = 0;
    std::vector<std::byte> data;
    ASSERT_EQ(EnumValue(key, index, name, type, data), 0u);
    EXPECT_EQ(name, Number(static_cast<int>(100 + index)));
  }
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  EXPECT_EQ(EnumValue(key, 50, name, type, data), ERROR_NO_MORE_ITEMS);
  EXPECT_EQ(EnumValue(key, 0xFFFFFFFF, name, type, data), ERROR_NO_MORE_ITEMS);
}

TEST_F(Registry, CountsInTheNewOrderWhenKeysComeWhileItEnumerates) {
  const RegistryKey key = Make(u"Software\\A");
  RegistryKey child;
  for (const char16_t* name : {u"b", u"d", u"f"}) ASSERT_EQ(CreateKey(key, name, KEY_WRITE, child), 0u);
  std::u16string name;
  ASSERT_EQ(EnumKey(key, 0, name), 0u);
  EXPECT_EQ(name, u"b");
  ASSERT_EQ(CreateKey(key, u"a", KEY_WRITE, child), 0u);  // now a b d f
  ASSERT_EQ(EnumKey(key, 1, name), 0u);
  EXPECT_EQ(name, u"b");
  ASSERT_EQ(EnumKey(key, 2, name), 0u);
  EXPECT_EQ(name, u"d");
  ASSERT_EQ(DeleteKey(key, u"a"), 0u);  // b d f
  EXPECT_EQ(EnumKey(key, 3, name), ERROR_NO_MORE_ITEMS);
  ASSERT_EQ(EnumKey(key, 2, name), 0u);
  EXPECT_EQ(name, u"f");
}

TEST_F(Registry, DeletesAllByDeletingTheFirstAgainAndAgain) {
  const RegistryKey key = Make(u"Software\\A");
  RegistryKey child;
  for (int i = 0; i < 20; ++i) ASSERT_EQ(CreateKey(key, Number(i), KEY_WRITE, child), 0u);
  int deleted = 0;
  std::u16string name;
  while (EnumKey(key, 0, name) == 0 && deleted < 30) {
    ASSERT_EQ(DeleteKey(key, name), 0u);
    ++deleted;
  }
  EXPECT_EQ(deleted, 20);
}

// --- Threads ---

TEST_F(Registry, LetsFourThreadsWriteAtOnce) {
  ASSERT_EQ(Make(u"Software\\A").Close(), 0u);
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 50; ++i) {
        RegistryKey key;
        const std::u16string path = u"Software\\A\\" + Number(t) + u"_" + Number(i);
        ErrorCode code = CreateKey(Hive::kCurrentUser, path, KEY_ALL_ACCESS, key);
        for (int v = 0; v < 11 && code == 0; ++v) code = SetDword(key, Number(v), static_cast<std::uint32_t>(i));
        std::uint32_t number = 0;
        if (code == 0) code = ReadRegistryDword(key, u"10", number);
        if (code != 0 || number != static_cast<std::uint32_t>(i) || key.Close() != 0) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  Reopen();
  RegistryKey key;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software\\A", KEY_READ, key), 0u);
  KeyInfo info;
  ASSERT_EQ(QueryInfoKey(key, info), 0u);
  EXPECT_EQ(info.subKeyCount, 200u);
}

// The next thread that is about to wait for another thread's batch.
class NextWaiter {
 public:
  NextWaiter() {
    ListenForRegistryTurns([this] {
      if (!m_isHeard.exchange(true)) m_heard.set_value();
    });
  }
  NextWaiter(const NextWaiter&) = delete;
  NextWaiter& operator=(const NextWaiter&) = delete;
  ~NextWaiter() { ListenForRegistryTurns({}); }

  [[nodiscard]] bool HasCome() const {
    return m_future.wait_for(std::chrono::minutes(1)) == std::future_status::ready;
  }

 private:
  std::atomic<bool> m_isHeard{false};
  std::promise<void> m_heard;
  const std::future<void> m_future = m_heard.get_future();
};

TEST_F(Registry, CommitsNothingThatAnotherThreadHasHalfWritten) {
  ASSERT_EQ(Make(u"Software\\There").Close(), 0u);
  const std::pair<const char*, std::function<ErrorCode()>> writes[] = {
      {"a new key", [] { return Make(u"Software\\New").Close(); }},
      {"a value",
       [] {
         RegistryKey key = Make(u"Software\\There");
         const ErrorCode set = SetDword(key, u"v", 1);
         const ErrorCode closed = key.Close();
         return set != ERROR_SUCCESS ? set : closed;
       }},
      {"a value's deletion",
       [] {
         RegistryKey key = Make(u"Software\\There");
         const ErrorCode deleted = DeleteValue(key, u"v");
         const ErrorCode closed = key.Close();
         return deleted != ERROR_SUCCESS ? deleted : closed;
       }},
      {"a deletion below a key",
       [] {
         RegistryKey key = Make(u"Software");
         const ErrorCode deleted = DeleteTree(key, u"New");
         const ErrorCode closed = key.Close();
         return deleted != ERROR_SUCCESS ? deleted : closed;
       }},
      {"a deletion below a root", [] { return DeleteTree(Hive::kCurrentUser, u"Software\\There"); }},
  };
  int number = 0;
  for (const auto& [name, write] : writes) {
    SCOPED_TRACE(name);
    const std::u16string path = u"Software\\Half" + Number(number++);
    RegistryKey half = Make(path);
    ASSERT_EQ(SetDword(half, u"first", 1), 0u);
    const NextWaiter waiter;
    std::future<ErrorCode> other = std::async(std::launch::async, write);
    EXPECT_TRUE(waiter.HasCome());
    EXPECT_EQ(CommittedKeys(path.substr(path.rfind(u'\\') + 1)), 0);
    ASSERT_EQ(SetDword(half, u"second", 2), 0u);
    EXPECT_EQ(half.Close(), 0u);
    EXPECT_EQ(other.get(), 0u);
    EXPECT_EQ(CommittedKeys(path.substr(path.rfind(u'\\') + 1)), 1);
  }
}

TEST_F(Registry, LosesNothingOfAnotherThreadWithItsOwnBatch) {
  RegistryKey lost = Make(u"Software\\Lost");
  const NextWaiter waiter;
  std::future<ErrorCode> other = std::async(std::launch::async, [] { return Make(u"Software\\Other").Close(); });
  EXPECT_TRUE(waiter.HasCome());
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, ERROR_DISK_FULL, kOnce, "Lost");
    EXPECT_EQ(lost.Close(), ERROR_DISK_FULL);
  }
  EXPECT_EQ(other.get(), 0u);
  EXPECT_EQ(Has(u"Software\\Lost"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Has(u"Software\\Other"), 0u);
}

TEST_F(Registry, WaitsForAnotherThreadsBatchOnlySoLong) {
  LimitRegistryTurn(std::chrono::milliseconds(1));
  RegistryKey half = Make(u"Software\\Half");
  RegistryKey there;
  ASSERT_EQ(OpenKey(Hive::kCurrentUser, u"Software", KEY_ALL_ACCESS, there), 0u);
  std::thread([&] {
    RegistryKey out;
    EXPECT_EQ(CreateKey(Hive::kCurrentUser, u"Software\\Other", KEY_ALL_ACCESS, out), ERROR_BUSY);
    EXPECT_EQ(CreateKey(there, u"Other", KEY_ALL_ACCESS, out), ERROR_BUSY);
    EXPECT_EQ(SetDword(there, u"v", 1), ERROR_BUSY);
    EXPECT_EQ(DeleteValue(there, u"v"), ERROR_BUSY);
    EXPECT_EQ(DeleteTree(there, u"Half"), ERROR_BUSY);
    EXPECT_EQ(DeleteTree(Hive::kCurrentUser, u"Software\\Half"), ERROR_BUSY);
    EXPECT_EQ(there.Close(), 0u);
  }).join();
  EXPECT_EQ(SetDword(half, u"v", 1), 0u) << "this thread's own goes on";
  EXPECT_EQ(half.Close(), 0u);
  EXPECT_EQ(HasValue(u"Software\\Half", u"v"), 0u);
  std::thread([] { EXPECT_EQ(Make(u"Software\\Other").Close(), 0u); }).join();
  LimitRegistryTurn(std::chrono::seconds(5));
}

TEST_F(Registry, ClosesWithoutWhatAnotherThreadHasHalfWritten) {
  LimitRegistryTurn(std::chrono::milliseconds(1));
  RegistryKey half = Make(u"Software\\Half");
  std::thread([] { EXPECT_EQ(CloseRegistryStore(), ERROR_BUSY); }).join();
  EXPECT_FALSE(IsRegistryStoreOpen());
  EXPECT_EQ(half.Close(), ERROR_BUSY) << "its batch is lost";
  ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  EXPECT_EQ(Has(u"Software\\Half"), ERROR_FILE_NOT_FOUND);
  LimitRegistryTurn(std::chrono::seconds(5));
}

TEST_F(Registry, ReadsWhileAnotherThreadWrites) {
  ASSERT_EQ(Make(u"Software\\There").Close(), 0u);
  RegistryKey half = Make(u"Software\\Half");
  EXPECT_EQ(std::async(std::launch::async, [] { return Has(u"Software\\There"); }).get(), 0u);
  EXPECT_EQ(half.Close(), 0u);
}

// --- The fault seam ---

TEST_F(Registry, FailsEachCallOnDemandWithoutDoingIt) {
  RegistryKey key = Make(u"Software\\A");
  ASSERT_EQ(SetDword(key, u"v", 1), 0u);
  RegistryKey out;
  KeyInfo info;
  std::u16string text;
  std::uint32_t number = 0;
  std::vector<std::byte> data;
  struct Case {
    Operation operation;
    const char* detail;
    std::function<ErrorCode()> call;
  };
  const Case cases[] = {
      {Operation::kRegOpenKey, "Software\\A",
       [&] { return OpenKey(Hive::kCurrentUser, u"Software\\A", KEY_READ, out); }},
      {Operation::kRegOpenKey, "B", [&] { return OpenKey(key, u"B", KEY_READ, out); }},
      {Operation::kRegCreateKey, "Software\\N",
       [&] { return CreateKey(Hive::kCurrentUser, u"Software\\N", KEY_READ, out); }},
      {Operation::kRegCreateKey, "N", [&] { return CreateKey(key, u"N", KEY_READ, out); }},
      {Operation::kRegQueryInfoKey, "A", [&] { return QueryInfoKey(key, info); }},
      {Operation::kRegQueryValue, "v", [&] { return QueryValue(key, u"v", nullptr, nullptr, nullptr); }},
      {Operation::kRegQueryValue, "v", [&] { return ReadRegistryDword(key, u"v", number); }},
      {Operation::kRegQueryValue, "v", [&] { return ReadRegistryString(key, u"v", text); }},
      {Operation::kRegSetValue, "w", [&] { return SetDword(key, u"w", 1); }},
      {Operation::kRegSetValue, "\xC3\xA4", [&] { return SetString(key, u"\u00e4", u"x"); }},
      {Operation::kRegDeleteValue, "v", [&] { return DeleteValue(key, u"v"); }},
      {Operation::kRegDeleteKey, "Software\\A", [&] { return DeleteTree(Hive::kCurrentUser, u"Software\\A"); }},
      {Operation::kRegDeleteKey, "B", [&] { return DeleteKey(key, u"B"); }},
      {Operation::kRegEnumKey, "A", [&] { return EnumKey(key, 0, text); }},
      {Operation::kRegEnumValue, "A", [&] { return EnumValue(key, 0, text, number, data); }},
  };
  for (const Case& c : cases) {
    const FaultPlan plan = FaultPlan::FailCall(c.operation, 1, 4711, kOnce, c.detail);
    EXPECT_EQ(c.call(), 4711u) << OperationName(c.operation) << " " << c.detail;
  }
  EXPECT_FALSE(out.IsOpen());
  EXPECT_EQ(HasValue(u"Software\\A", u"v"), 0u);
  EXPECT_EQ(HasValue(u"Software\\A", u"w"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Has(u"Software\\N"), ERROR_FILE_NOT_FOUND);
}

TEST_F(Registry, FailsTheOpeningOnDemand) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kRegOpenStore, 1, ERROR_REGISTRY_CORRUPT);
  std::string why;
  EXPECT_EQ(OpenRegistryStore(m_path, &why), ERROR_REGISTRY_CORRUPT);
  EXPECT_NE(why, "");
  EXPECT_FALSE(IsRegistryStoreOpen());
}

}  // namespace
}  // namespace platform
