#include "platform/database.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace {

using platform::Database;
using platform::FaultPlan;
using platform::Operation;
using platform::Statement;
using enum Database::Access;

class DatabaseFile : public testing::Test {
 protected:
  DatabaseFile() {
    m_name = m_directory + "/file";
  }

  const platform::TemporaryFolder m_temporary{"qx-database"};
  const std::string m_directory = m_temporary.Path();
  std::string m_name;
};

TEST_F(DatabaseFile, IsAFileUnderEveryName) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(m_directory);
  for (const char* name : {":memory:", "file:other?mode=memory", "plain"}) {
    SCOPED_TRACE(name);
    Database database;
    ASSERT_EQ(database.Open(name, kReadWrite), 0u);
    EXPECT_EQ(database.Run("CREATE TABLE t(n INTEGER)"), 0u);
    ASSERT_EQ(database.Open(name, kRead), 0u);
    EXPECT_EQ(database.Run("SELECT n FROM t"), 0u);
    EXPECT_GT(std::filesystem::file_size(name), 0u);
  }
  std::filesystem::current_path(before);
}

TEST_F(DatabaseFile, KeepsRowsForTheNextOpening) {
  {
    Database database;
    ASSERT_EQ(database.Open(m_name, kReadWrite), 0u);
    ASSERT_EQ(database.Run("CREATE TABLE t(n INTEGER, s TEXT)"), 0u);
    Statement insert;
    ASSERT_EQ(insert.Prepare(database, "INSERT INTO t VALUES(?,?)"), 0u);
    EXPECT_EQ(insert.Bind(0, -5).Bind(1, std::string_view("a\0b", 3)).Run(), 0u);
    EXPECT_EQ(insert.Bind(1, "").Run(), 0u);  // what isn't given is null, not the value of the run before
  }
  struct stat status {};
  ASSERT_EQ(::stat(m_name.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  Database database;
  ASSERT_EQ(database.Open(m_name, kRead), 0u);
  Statement select;
  bool row = false;
  ASSERT_EQ(select.Prepare(database, "SELECT n, s FROM t ORDER BY rowid"), 0u);
  ASSERT_EQ(select.Step(row), 0u);
  ASSERT_TRUE(row);
  EXPECT_EQ(select.Int(0), -5);
  EXPECT_EQ(select.Text(1), std::string("a\0b", 3));
  ASSERT_EQ(select.Step(row), 0u);
  EXPECT_TRUE(select.IsNull(0));
  EXPECT_FALSE(select.IsNull(1));
  ASSERT_EQ(select.Step(row), 0u);
  EXPECT_FALSE(row);
  EXPECT_EQ(database.Run("DELETE FROM t"), platform::ERROR_ACCESS_DENIED);
}

TEST_F(DatabaseFile, IsNotMadeByAReader) {
  Database database;
  EXPECT_EQ(database.Open(m_name, kRead), platform::ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(database.IsOpen());
  EXPECT_EQ(database.Open(m_directory + "/none/file", kReadWrite), platform::ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(database.Run("SELECT 1"), platform::ERROR_INVALID_HANDLE);
  EXPECT_FALSE(std::filesystem::exists(m_name));
}

TEST_F(DatabaseFile, ToldDamagedWhenItIs) {
  std::ofstream(m_name) << std::string(8192, 'x');
  Database database;
  ASSERT_EQ(database.Open(m_name, kReadWrite), 0u);
  EXPECT_EQ(database.Check(), platform::ERROR_FILE_CORRUPT);
  database.Close();
  std::filesystem::remove(m_name);

  ASSERT_EQ(database.Open(m_name, kReadWrite), 0u);
  ASSERT_EQ(database.Run("CREATE TABLE t(s TEXT); CREATE INDEX i ON t(s);"
                         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<2000)"
                         "INSERT INTO t SELECT hex(randomblob(40)) FROM n"),
            0u);
  EXPECT_EQ(database.Check(), 0u);
  database.Close();
  std::fstream file(m_name, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(8192);
  file << std::string(4096, '\xEE');
  file.close();
  ASSERT_EQ(database.Open(m_name, kReadWrite), 0u);
  EXPECT_EQ(database.Check(), platform::ERROR_FILE_CORRUPT);
}

TEST_F(DatabaseFile, IsFullAtItsBound) {
  Database database;
  ASSERT_EQ(database.Open(m_name, kReadWrite), 0u);
  ASSERT_EQ(database.Run("PRAGMA max_page_count=8; CREATE TABLE t(s TEXT)"), 0u);
  EXPECT_EQ(database.Run("INSERT INTO t VALUES(hex(zeroblob(100000)))"), platform::ERROR_DISK_FULL);
}

TEST_F(DatabaseFile, RefusesAStatementThatIsNone) {
  Database database;
  ASSERT_EQ(database.Open(m_name, kReadWrite), 0u);
  EXPECT_EQ(database.Run("NONSENSE"), platform::ERROR_INVALID_FUNCTION);
  Statement statement;
  bool row = true;
  EXPECT_EQ(statement.Prepare(database, "SELECT * FROM none"), platform::ERROR_INVALID_FUNCTION);
  EXPECT_EQ(statement.Step(row), platform::ERROR_INVALID_HANDLE);
  EXPECT_FALSE(row);
}

#ifdef QX_FAULT_SEAM
TEST_F(DatabaseFile, FailsWhereItIsToldTo) {
  Database database;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateFile, 1, platform::ERROR_DISK_FULL);
    EXPECT_EQ(database.Open(m_name, kReadWrite), platform::ERROR_DISK_FULL);
    EXPECT_FALSE(std::filesystem::exists(m_name));
  }
  ASSERT_EQ(database.Open(m_name, kReadWrite), 0u);
  ASSERT_EQ(database.Run("CREATE TABLE t(n)"), 0u);
  Statement insert;
  ASSERT_EQ(insert.Prepare(database, "INSERT INTO t VALUES(?)"), 0u);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kWriteFile, 1, platform::ERROR_DISK_FULL);
  EXPECT_EQ(insert.Bind(0, 1).Run(), platform::ERROR_DISK_FULL);
  EXPECT_EQ(insert.Bind(0, 2).Run(), 0u);
}
#endif

}  // namespace
