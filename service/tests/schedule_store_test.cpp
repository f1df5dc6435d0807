#include "service/schedule_store.h"

#include <sqlite3.h>

#include "service/tests/service_fixture.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using qx::testing::kPresent;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr ScheduleGuid kStored = platform::GuidConstant(u"{0A1B2C3D-0000-0000-0000-00000000000F}");

class ScheduleStore : public qx::testing::ServiceFixture {
 protected:
  static SCHEDULE_OBJECT Record() {
    SCHEDULE_OBJECT s;
    s.bstrApplication = u"App";
    s.bstrObjectID = u"obj";
    s.dwTaskOpCode = 7;
    s.bstrWrapperBinaryName = u"w";
    s.bstrXMLFilePathName = u"/x/y.xml";
    s.bstrParameters = u"-p";
    s.bUseGUID = 5;
    return s;
  }
  static std::uint32_t Number(std::u16string_view name) {
    platform::RegistryKey key = OpenScheduleKey(kStored);
    std::uint32_t value = 0;
    EXPECT_EQ(platform::ReadRegistryDword(key, name, value), 0u);
    return value;
  }
};

TEST_F(ScheduleStore, ReadsWhatWasWritten) {
  ASSERT_EQ(WriteRegistry(Record(), kStored), 0u);
  SCHEDULE_OBJECT read;
  read.bstrName = u"kept";
  read.bRunNow = 9;
  ASSERT_EQ(ReadRegistry(kStored, read), 0u);
  SCHEDULE_OBJECT expected = Record();
  expected.bstrName = u"kept";
  expected.bRunNow = 9;
  expected.bUseGUID = 1;
  expected.bstrPreScript = u"";  // a null string is stored as the empty one
  expected.bstrPostScript = u"";
  EXPECT_EQ(read, expected);
  EXPECT_EQ(Number(u"UseGUID"), 5u);
  EXPECT_EQ(Number(u"LastOperation"), 1u);
  EXPECT_EQ(Number(u"OperationTime"), static_cast<std::uint32_t>(kPresent));
  EXPECT_THAT(m_log.texts(),
              ElementsAre("Entered Write Registry", "Exit Write Registry", "Entered Read Registry", "Exit Read Registry"));
}

TEST_F(ScheduleStore, WritesEachStringWithItsTerminator) {
  ASSERT_EQ(WriteRegistry(Record(), kStored), 0u);
  platform::RegistryKey key = OpenScheduleKey(kStored);
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  ASSERT_EQ(platform::QueryValueBytes(key, u"PreScript", type, data), 0u);
  EXPECT_EQ(type, platform::REG_SZ);
  EXPECT_EQ(data.size(), 2u);
}

TEST_F(ScheduleStore, DoesNotReadATaskCodeOfAnotherType) {
  ASSERT_EQ(WriteRegistry(Record(), kStored), 0u);
  SetText(kStored, u"TaskOPCODE", u"7");
  SCHEDULE_OBJECT read;
  EXPECT_EQ(ReadRegistry(kStored, read), kStatusRegistryRead);
  EXPECT_EQ(read.bstrObjectID, u"obj");
  EXPECT_EQ(read.bstrWrapperBinaryName, std::nullopt);
  EXPECT_TRUE(m_log.Has(1, "Registry: Failed with error : d"));
}

TEST_F(ScheduleStore, ModifiesTheJobAndKeepsTheFlagOfTheCreation) {
  ASSERT_EQ(WriteRegistry(Record(), kStored), 0u);
  SCHEDULE_OBJECT changed = Record();
  changed.bstrWrapperBinaryName = u"other";
  changed.bstrParameters.reset();
  changed.bUseGUID = 0;
  m_clock.SetWall(kPresent + 5);
  EXPECT_EQ(ModifyRegistry(kStored, changed), 0u);
  SCHEDULE_OBJECT read;
  ASSERT_EQ(ReadRegistry(kStored, read), 0u);
  EXPECT_EQ(read.bstrWrapperBinaryName, u"other");
  EXPECT_EQ(read.bstrParameters, u"");
  EXPECT_EQ(Number(u"UseGUID"), 5u);
  EXPECT_EQ(Number(u"LastOperation"), 2u);
  EXPECT_EQ(Number(u"OperationTime"), static_cast<std::uint32_t>(kPresent + 5));
}

TEST_F(ScheduleStore, RefusesAChangeOfWhatMayNotChange) {
  ASSERT_EQ(WriteRegistry(Record(), kStored), 0u);
  SCHEDULE_OBJECT application = Record(), object = Record(), code = Record(), null = Record();
  application.bstrApplication = u"app";  // only the case differs
  object.bstrObjectID = u"other";
  code.dwTaskOpCode = 8;
  null.bstrApplication.reset();
  const std::pair<SCHEDULE_OBJECT, const char*> cases[] = {
      {application, "Trying to modify the Application Name"},
      {object, "Trying to modify the ObjectID "},
      {code, "Trying to modify the TaskOpcode"},
      {null, "Trying to modify the Application Name"},
  };
  for (const auto& [record, text] : cases) {
    m_log.Clear();
    EXPECT_EQ(ModifyRegistry(kStored, record), kStatusImmutable) << text;
    EXPECT_THAT(m_log.texts(2), ElementsAre(text));
  }
  EXPECT_EQ(Number(u"LastOperation"), 1u);
}

TEST_F(ScheduleStore, TakesANullIdentityForTheEmptyOne) {
  SCHEDULE_OBJECT record = Record();
  record.bstrApplication = u"";
  ASSERT_EQ(WriteRegistry(record, kStored), 0u);
  record.bstrApplication.reset();
  EXPECT_EQ(ModifyRegistry(kStored, record), 0u);
}

TEST_F(ScheduleStore, FindsAScheduleAmongMoreThanOneLookReads) {
  platform::RegistryKey schedules;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, schedules), 0u);
  const auto idOf = [](std::uint32_t number) {
    ScheduleGuid id = kStored;
    id.Data1 = number;
    return id;
  };
  constexpr std::uint32_t kCount = 1100;  // two looks of 512, and a part
  for (std::uint32_t i = 0; i < kCount; ++i) {
    platform::RegistryKey key;
    ASSERT_EQ(platform::CreateKey(schedules, platform::GuidText(idOf(2 * i)), platform::KEY_ALL_ACCESS, key), 0u);
  }
  for (const std::uint32_t i : {0u, 1u, 511u, 512u, 1023u, 1024u, kCount - 1}) {
    int failed = 9;
    EXPECT_EQ(RegistryExists(idOf(2 * i), failed), 1) << i;
    EXPECT_EQ(failed, 0) << i;
    EXPECT_EQ(RegistryExists(idOf(2 * i + 1), failed), 0) << i;
    EXPECT_EQ(failed, 0) << i;
  }
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kRegEnumKey, 3, platform::ERROR_ACCESS_DENIED);
  int failed = 9;
  EXPECT_EQ(RegistryExists(idOf(2 * kCount), failed), 0);
  EXPECT_EQ(failed, 1);
}

// A schedule in front of the others comes between the count of the keys and their reading, or goes, by another process.
TEST_F(ScheduleStore, KnowsWhichSchedulesAreThereWhileOthersComeAndGo) {
  ScheduleGuid other = kStored, missing = kStored;
  other.Data1 = 0;
  missing.Data1 = 1;
  ASSERT_EQ(WriteRegistry(Record(), other), 0u);
  ASSERT_EQ(WriteRegistry(Record(), kStored), 0u);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((m_folder + "/registry.db").c_str(), &db), SQLITE_OK);
  const auto run = [db](const std::string& sql) {
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  };
  const std::string stored = "(SELECT max(id) FROM keys)";
  const std::string theOther = "(SELECT max(id) FROM keys WHERE parent=(SELECT parent FROM keys WHERE id=" + stored +
                               ") AND id<" + stored + ")";
  // Taken out of the list without losing its name, so that it can come back.
  run("CREATE TEMP TABLE was AS SELECT id, parent FROM keys WHERE id=" + theOther);
  const std::string away = "UPDATE keys SET parent=" + stored + " WHERE id=(SELECT id FROM was)";
  const std::string back = "UPDATE keys SET parent=(SELECT parent FROM was) WHERE id=(SELECT id FROM was)";
  for (const std::string& change : {away, back}) {
    for (const ScheduleGuid& id : {kStored, missing}) {
      run(change == away ? back : away);
      int changes = 0;
      const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view) {
        if (operation == Operation::kRegEnumKey && changes++ == 0) run(change);
        return platform::ERROR_SUCCESS;
      });
      int failed = 9;
      EXPECT_EQ(RegistryExists(id, failed), id == kStored ? 1 : 0) << change;
      EXPECT_EQ(failed, 0) << change;
      EXPECT_GE(changes, 1);
    }
  }
  sqlite3_close(db);
}

TEST_F(ScheduleStore, KnowsWhichSchedulesAreThere) {
  int failed = 9;
  EXPECT_EQ(RegistryExists(kStored, failed), 0);
  EXPECT_EQ(failed, 0);
  ASSERT_EQ(WriteRegistry(Record(), kStored), 0u);
  EXPECT_EQ(RegistryExists(kStored, failed), 1);
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(DeleteRegistry(kStored), 0u);
  EXPECT_EQ(DeleteRegistry(kStored), kStatusNoSuchKey);
  EXPECT_EQ(ModifyRegistry(kStored, Record()), kStatusNoSuchKey);
}

TEST_F(ScheduleStore, ListsNoArrayOverAnEmptyKey) {
  std::uint32_t count = 9;
  ScheduleList list;
  EXPECT_EQ(ListRegistry(count, list), 0u);
  EXPECT_EQ(count, 0u);
  EXPECT_FALSE(list);
}

struct StoreFailure {
  int line;
  Status (*routine)();
  Operation operation;
  int call;
  const char* detail;
  Status status;
  std::uint32_t level;
  const char* text;
};
constexpr auto kRead = [] {
  SCHEDULE_OBJECT read;
  return ReadRegistry(kStored, read);
};
constexpr auto kModify = [] {
  SCHEDULE_OBJECT record;
  record.bstrApplication = u"App";
  record.bstrObjectID = u"obj";
  record.dwTaskOpCode = 7;
  return ModifyRegistry(kStored, record);
};
constexpr auto kList = [] {
  std::uint32_t count = 0;
  ScheduleList list;
  return ListRegistry(count, list);
};
constexpr auto kExists = [] {
  int failed = 0;
  (void)RegistryExists(kStored, failed);
  return static_cast<Status>(failed);
};
constexpr auto kDelete = [] { return DeleteRegistry(kStored); };
constexpr char kSystemFailure[] = "Registry: Failed with error : 8";
const StoreFailure kStoreFailures[] = {
    {__LINE__, kRead, Operation::kRegOpenKey, 1, "", kStatusRegistryRead, 1, kSystemFailure},
    {__LINE__, kRead, Operation::kRegOpenKey, 2, "", kStatusRegistryRead, 1, kSystemFailure},
    {__LINE__, kRead, Operation::kRegQueryInfoKey, 1, "", kStatusRegistryRead, 1, kSystemFailure},
    {__LINE__, kRead, Operation::kAllocate, 1, "ReadRegistry", kStatusRegistryRead, 2,
     "Memory not allocated in ReadRegistry"},
    {__LINE__, kRead, Operation::kRegQueryValue, 9, "", kStatusRegistryRead, 1, kSystemFailure},
    {__LINE__, kModify, Operation::kRegOpenKey, 1, "", kStatusModify, 1, kSystemFailure},
    {__LINE__, kModify, Operation::kRegOpenKey, 2, "", kStatusNoSuchKey, 1, kSystemFailure},
    {__LINE__, kModify, Operation::kRegQueryInfoKey, 1, "", kStatusModify, 1, kSystemFailure},
    {__LINE__, kModify, Operation::kAllocate, 1, "ModifyRegistry", kStatusModify, 2,
     "Memory not allocated in  ModifyRegistry"},
    {__LINE__, kModify, Operation::kRegQueryValue, 3, "", kStatusModify, 1, kSystemFailure},
    {__LINE__, kModify, Operation::kRegSetValue, 1, "", kStatusModify, 1, kSystemFailure},
    {__LINE__, kList, Operation::kRegOpenKey, 1, "", kStatusList, 1, kSystemFailure},
    {__LINE__, kList, Operation::kRegQueryInfoKey, 1, "", kStatusList, 1, kSystemFailure},
    {__LINE__, kList, Operation::kGetRecordInfo, 1, "SCHEDULE_OBJECT_EX", kStatusList, 1, kSystemFailure},
    {__LINE__, kList, Operation::kArrayCreate, 1, "", kStatusList, 1, kSystemFailure},
    {__LINE__, kList, Operation::kAllocate, 1, "ListRegistry name", kStatusList, 1,
     "Memory is not allocated, list registry"},
    {__LINE__, kList, Operation::kAllocate, 1, "ListRegistry", kStatusList, 1, "calloc failed, ListRegistry"},
    {__LINE__, kExists, Operation::kRegOpenKey, 1, "", 1, 1, kSystemFailure},
    {__LINE__, kExists, Operation::kRegQueryInfoKey, 1, "", 1, 1, kSystemFailure},
    {__LINE__, kExists, Operation::kRegEnumKey, 1, "", 1, 1, kSystemFailure},
    {__LINE__, kExists, Operation::kAllocate, 1, "RegistryExists", 1, 1, "Memory is not allocated, registryExists"},
    {__LINE__, kDelete, Operation::kRegOpenKey, 1, "", kStatusSchedulesKey, 1, kSystemFailure},
    {__LINE__, kDelete, Operation::kRegDeleteKey, 1, "", kStatusNoSuchKey, 1, kSystemFailure},
};

TEST_F(ScheduleStore, TellsEachFailure) {
  ASSERT_EQ(WriteRegistry(Record(), kStored), 0u);
  for (const StoreFailure& c : kStoreFailures) {
    m_log.Clear();
    FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 8, platform::kOnce, c.detail);
    EXPECT_EQ(c.routine(), c.status) << c.line;
    EXPECT_EQ(plan.hits(), 1) << c.line;
    EXPECT_TRUE(m_log.Has(c.level, c.text)) << c.line;
  }
  EXPECT_TRUE(HasKey(kStored));
}

TEST_F(ScheduleStore, TellsOfACommitThatFails) {
  FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, platform::ERROR_DISK_FULL);
  EXPECT_EQ(WriteRegistry(Record(), kStored), kStatusRegistryWrite);
  plan.Remove();
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_TRUE(m_log.Has(1, "Registry: Failed with error : 70"));
}

}  // namespace
