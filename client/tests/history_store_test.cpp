#include "client/history_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>

#include "platform/file.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace {

using namespace qx;
using testing::ElementsAre;

constexpr std::int64_t kStoreNow = 1796040000;
constexpr const char* kId = "{AB120000-0000-4001-8000-000000000000}";

class History : public testing::Test {
 protected:
  History() {
    m_name = m_directory + "/history.db";
  }

  static HistoryEntry Launch(std::int64_t at, const std::string& id = kId) {
    return {at, HistoryKind::kLaunch, id, "daily", at, at + 86400, ""};
  }
  platform::ErrorCode Open(HistoryStore& store, const HistoryBounds& bounds = {}) {
    return store.OpenForWriting(m_name, bounds, m_aside);
  }
  static std::vector<HistoryEntry> All(HistoryStore& store, const HistoryQuery& query = {}) {
    std::vector<HistoryEntry> entries;
    EXPECT_EQ(store.Entries(query, entries), 0u);
    return entries;
  }

  const platform::TemporaryFolder m_temporary{"qx-history"};
  const std::string m_directory = m_temporary.Path();
  std::string m_name;
  std::string m_aside;
};

TEST_F(History, KeepsEveryFieldOfEveryKind) {
  std::vector<HistoryEntry> entries;
  for (std::size_t i = 0; i < kHistoryKinds; ++i) {
    HistoryEntry entry{kStoreNow + static_cast<std::int64_t>(i),
                       static_cast<HistoryKind>(i),
                       i % 2 == 0 ? kId : "",
                       "n",
                       {},
                       {},
                       "why"};
    if (i % 3 == 0) entry.window = -7;
    if (i % 3 == 1) entry.next = -1;
    entries.push_back(entry);
  }
  {
    HistoryStore store;
    ASSERT_EQ(Open(store), 0u);
    EXPECT_EQ(store.Append(entries, {{kId, KnownSchedule{"a", 5}}, {"gone", KnownSchedule{"b", 6}}}), 0u);
    EXPECT_EQ(store.Append({}, {{"gone", std::nullopt}}), 0u);
    EXPECT_EQ(store.SetFact("zone", "UTC"), 0u);
  }
  HistoryStore store;
  ASSERT_EQ(store.OpenForReading(m_name), 0u);
  EXPECT_EQ(All(store), entries);
  std::map<std::string, KnownSchedule> windows;
  EXPECT_EQ(store.Windows(windows), 0u);
  EXPECT_EQ(windows, (std::map<std::string, KnownSchedule>{{kId, {"a", 5}}}));
  std::string zone;
  EXPECT_EQ(store.Fact("zone", zone), 0u);
  EXPECT_EQ(zone, "UTC");
  std::optional<HistoryEntry> last;
  EXPECT_EQ(store.Last(last), 0u);
  EXPECT_EQ(last, entries.back());
}

TEST_F(History, SelectsByScheduleTimeAndMissedWindows) {
  HistoryStore store;
  ASSERT_EQ(Open(store), 0u);
  HistoryEntry missed = Launch(kStoreNow + 1);
  missed.kind = HistoryKind::kMissed;
  HistoryEntry unknown = Launch(kStoreNow + 2, "{other}");
  unknown.kind = HistoryKind::kUnknown;
  ASSERT_EQ(store.Append({Launch(kStoreNow), missed, unknown, Launch(kStoreNow + 3, "{other}")}, {}), 0u);
  EXPECT_THAT(All(store, {.missed = true}), ElementsAre(missed, unknown));
  EXPECT_THAT(All(store, {.schedule = kId}), ElementsAre(Launch(kStoreNow), missed));
  EXPECT_THAT(All(store, {.since = kStoreNow + 2}), ElementsAre(unknown, Launch(kStoreNow + 3, "{other}")));
  EXPECT_THAT(All(store, {.schedule = "{other}", .since = kStoreNow + 2, .missed = true}), ElementsAre(unknown));
  EXPECT_THAT(All(store, {.schedule = "' OR 1"}), ElementsAre());
}

TEST_F(History, DropsEntriesAboveItsAge) {
  HistoryStore store;
  ASSERT_EQ(Open(store, {.seconds = 100}), 0u);
  ASSERT_EQ(store.Append({Launch(kStoreNow - 101), Launch(kStoreNow - 100), Launch(kStoreNow)}, {}), 0u);
  ASSERT_EQ(store.Trim(kStoreNow), 0u);
  EXPECT_THAT(All(store), ElementsAre(Launch(kStoreNow - 100), Launch(kStoreNow)));
}

TEST_F(History, DropsItsOldestEntriesAboveItsSize) {
  HistoryStore store;
  ASSERT_EQ(Open(store, {.bytes = kLeastHistoryBytes}), 0u);
  std::int64_t at = kStoreNow;
  const auto more = [&] {
    std::vector<HistoryEntry> entries;
    for (int i = 0; i < 1000; ++i) entries.push_back(Launch(at++));
    return store.Append(entries, {});
  };
  platform::ErrorCode code = 0;
  for (int round = 0; round < 30 && code == 0; ++round) {
    code = more();
    if (code == 0) code = store.Trim(kStoreNow);
  }
  EXPECT_EQ(code, 0u);
  std::uint64_t bytes = 0;
  EXPECT_EQ(store.Size(bytes), 0u);
  EXPECT_LE(bytes, kLeastHistoryBytes);
  const auto entries = All(store);
  ASSERT_GT(entries.size(), 1000u);
  EXPECT_LT(entries.size(), 30000u);
  EXPECT_EQ(entries.back(), Launch(at - 1));  // the newest one
  // Without trimming it is full, and what didn't fit as a whole is not there in part.
  while ((code = more()) == 0) {
  }
  EXPECT_EQ(code, platform::ERROR_DISK_FULL);
  at -= 1000;
  EXPECT_EQ(All(store).back(), Launch(at - 1));
  EXPECT_EQ(store.Trim(kStoreNow), 0u);
  EXPECT_EQ(more(), 0u);
  store = {};
  EXPECT_LE(std::filesystem::file_size(m_name), kLeastHistoryBytes);
}

TEST_F(History, SetsADamagedFileAsideAndBeginsANewOne) {
  for (const char* expected : {".damaged", ".damaged.2"}) {
    std::ofstream(m_name, std::ios::trunc) << std::string("SQLite format 3\0", 16) << std::string(8984, 'x');
    HistoryStore reader;
    EXPECT_EQ(reader.OpenForReading(m_name), platform::ERROR_FILE_CORRUPT);
    EXPECT_TRUE(std::filesystem::exists(m_name)) << "a reader leaves it";
    HistoryStore store;
    ASSERT_EQ(Open(store), 0u);
    EXPECT_EQ(m_aside, m_name + expected);
    EXPECT_EQ(std::filesystem::file_size(m_aside), 9000u);
    EXPECT_TRUE(All(store).empty());
    EXPECT_EQ(store.Append({Launch(kStoreNow)}, {}), 0u);
  }
  HistoryStore store;
  ASSERT_EQ(Open(store), 0u);
  EXPECT_EQ(m_aside, "") << "a whole file stays";
  EXPECT_THAT(All(store), ElementsAre(Launch(kStoreNow)));
}

TEST_F(History, LeavesAFileOfSomebodyElseAsItIs) {
  {
    platform::Database other;
    ASSERT_EQ(other.Open(m_name, platform::Database::Access::kReadWrite), 0u);
    ASSERT_EQ(other.Run("CREATE TABLE precious(n)"), 0u);
  }
  HistoryStore store;
  EXPECT_EQ(Open(store), platform::ERROR_BADDB);
  EXPECT_EQ(store.OpenForReading(m_name), platform::ERROR_BADDB);
  platform::Database other;
  ASSERT_EQ(other.Open(m_name, platform::Database::Access::kRead), 0u);
  EXPECT_EQ(other.Run("SELECT n FROM precious"), 0u);
}

// A name that was mistyped: nobody would look for the file under another one.
TEST_F(History, LeavesAFileAsItIsThatNeverWasADatabase) {
  for (const std::string& text : {std::string("name = \"nightly\"\n"), std::string(9000, 'x')}) {
    std::ofstream(m_name, std::ios::trunc) << text;
    HistoryStore store;
    EXPECT_EQ(Open(store), platform::ERROR_BADDB);
    EXPECT_EQ(m_aside, "");
    EXPECT_EQ(store.OpenForReading(m_name), platform::ERROR_BADDB);
    std::string present;
    ASSERT_EQ(platform::ReadWholeFile(m_name, present), 0u);
    EXPECT_EQ(present, text);
  }
}

TEST_F(History, SetsAFileAsideWhosePagesAPowerCutHasEmptied) {
  std::ofstream(m_name, std::ios::trunc) << std::string(8192, '\0');
  HistoryStore store;
  ASSERT_EQ(Open(store), 0u);
  EXPECT_EQ(m_aside, m_name + ".damaged");
}

TEST_F(History, KeepsTheLogOfAFileThatWasEmptied) {
  const std::string log = m_name + "-wal";
  const std::string before = m_name + ".before";
  {
    HistoryStore store;
    ASSERT_EQ(Open(store), 0u);
    ASSERT_EQ(store.Append({Launch(kStoreNow)}, {}), 0u);
    std::filesystem::copy_file(log, before);  // the close writes the log back
  }
  std::filesystem::copy_file(before, log);
  std::filesystem::resize_file(m_name, 0);
  const auto bytes = [](const std::string& name) {
    std::string contents;
    EXPECT_EQ(platform::ReadWholeFile(name, contents), 0u) << name;
    return contents;
  };
  HistoryStore reader;
  EXPECT_EQ(reader.OpenForReading(m_name), platform::ERROR_FILE_CORRUPT);
  EXPECT_TRUE(bytes(log) == bytes(before)) << "a reader leaves it";
  HistoryStore store;
  ASSERT_EQ(Open(store), 0u);
  EXPECT_EQ(m_aside, m_name + ".damaged");
  EXPECT_TRUE(bytes(m_aside + "-wal") == bytes(before));
  EXPECT_TRUE(All(store).empty());
}

TEST_F(History, LeavesEntriesOutWhoseTimesNoClockHas) {
  {
    HistoryStore store;
    ASSERT_EQ(Open(store), 0u);
    ASSERT_EQ(store.Append({Launch(kStoreNow)}, {}), 0u);
  }
  platform::Database other;
  ASSERT_EQ(other.Open(m_name, platform::Database::Access::kReadWrite), 0u);
  for (const char* times : {"9223372036854775807, 'missed', 's', '', 1, 1",
                            "-9223372036854775808, 'missed', 's', '', 1, 1",
                            "1, 'missed', 's', '', 9223372036854775807, 1", "1, 'missed', 's', '', 1, 1e18",
                            "1, 'missed', 's', '', -9223372036854775808, 1"}) {
    const std::string insert =
        std::string("INSERT INTO entries(at, kind, schedule, name, window, next, reason) VALUES(") + times + ", '')";
    ASSERT_EQ(other.Run(insert.c_str()), 0u) << times;
  }
  other.Close();
  HistoryStore store;
  ASSERT_EQ(store.OpenForReading(m_name), 0u);
  EXPECT_THAT(All(store), ElementsAre(Launch(kStoreNow)));
}

TEST_F(History, LeavesWindowsOutThatNoClockHas) {
  HistoryStore store;
  ASSERT_EQ(Open(store), 0u);
  ASSERT_EQ(store.Append({}, {{kId, KnownSchedule{"a", 5}},
                              {"late", KnownSchedule{"b", std::numeric_limits<std::int64_t>::max()}},
                              {"early", KnownSchedule{"c", std::numeric_limits<std::int64_t>::min()}}}),
            0u);
  std::map<std::string, KnownSchedule> windows;
  EXPECT_EQ(store.Windows(windows), 0u);
  EXPECT_EQ(windows, (std::map<std::string, KnownSchedule>{{kId, {"a", 5}}}));
}

// The index gets entries that the table lacks: no trimming makes them fewer.
TEST_F(History, EndsTheTrimmingOfADamagedFileAndSetsItAside) {
  HistoryStore store;
  ASSERT_EQ(Open(store, {.bytes = 8 * kLeastHistoryBytes}), 0u);
  HistoryEntry large = Launch(kStoreNow);
  large.reason = std::string(30000, 'x');
  ASSERT_EQ(store.Append(std::vector(270, large), {}), 0u);
  {
    platform::Database other;
    ASSERT_EQ(other.Open(m_name, platform::Database::Access::kReadWrite), 0u);
    ASSERT_EQ(other.Run("CREATE TABLE full(at INTEGER, rest TEXT); INSERT INTO full SELECT at, reason FROM entries;"
                        "CREATE INDEX full_at ON full(at); DELETE FROM entries WHERE id>10;"
                        "PRAGMA writable_schema=ON;"
                        "CREATE TEMP TABLE roots AS SELECT name, rootpage FROM sqlite_schema;"
                        "UPDATE sqlite_schema SET rootpage=(SELECT rootpage FROM roots WHERE name='full_at')"
                        " WHERE name='entries_at';"
                        "UPDATE sqlite_schema SET rootpage=(SELECT rootpage FROM roots WHERE name='entries_at')"
                        " WHERE name='full_at'; PRAGMA schema_version=1000"),
              0u);
  }
  EXPECT_EQ(store.Trim(kStoreNow), platform::ERROR_FILE_CORRUPT);
  ASSERT_EQ(Open(store), 0u);
  EXPECT_EQ(m_aside, m_name + ".damaged");
}

TEST_F(History, HasOneWriter) {
  HistoryStore store;
  ASSERT_EQ(Open(store), 0u);
  HistoryStore second;
  EXPECT_EQ(Open(second), platform::ERROR_LOCK_VIOLATION);
  EXPECT_EQ(store.Append({Launch(kStoreNow)}, {}), 0u);
}

#ifdef QX_FAULT_SEAM
TEST_F(History, AppendsAllOrNothing) {
  HistoryStore store;
  ASSERT_EQ(Open(store), 0u);
  int calls = 0;
  for (int n = 1; calls == 0; ++n) {
    const auto plan = platform::FaultPlan::FailCall(platform::Operation::kWriteFile, n, platform::ERROR_IO_DEVICE);
    const auto code = store.Append({Launch(kStoreNow), Launch(kStoreNow + 1)}, {{kId, KnownSchedule{"a", 5}}});
    if (plan.hits() == 0) {
      EXPECT_EQ(code, 0u);
      calls = n;
    } else {
      EXPECT_EQ(code, platform::ERROR_IO_DEVICE) << n;
      EXPECT_TRUE(All(store).empty()) << n;
    }
  }
  EXPECT_GT(calls, 4);
  EXPECT_EQ(All(store).size(), 2u);
}
#endif

}  // namespace
