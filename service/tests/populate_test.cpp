#include "service/populate.h"

#include <filesystem>

#include "service/tests/missing_values.h"
#include "service/tests/service_fixture.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using qx::testing::kPresent;
using qx::testing::Wide;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class Populate : public qx::testing::ServiceFixture {
 protected:
  void Reload() {
    DoCleanUp();
    m_log.Clear();
    EXPECT_EQ(PopulateJobList(), kStatusOk);
  }
};

TEST_F(Populate, LoadsEverySchedule) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bUseGUID = 5;
  schedule.bstrParameters = u"-x";
  schedule.bstrPreScript = u"a";
  schedule.bstrPostScript = u"b";
  const ScheduleGuid first = Create(schedule);
  const ScheduleGuid second = Create(Daily(60));
  Reload();
  EXPECT_THAT(ListedIds(), ElementsAre(Text(second), Text(first)));
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const auto at = g_JobList.Find(first);
  EXPECT_EQ(qx::testing::Narrow(at->LaunchPath.view()),
            "/bin/true " + Text(first) + " \"" + m_folder + "/job.xml\" -x Pre=\"a\" Post=\"b\"");
  EXPECT_EQ(at->NextTimeWindow, kPresent + 3600);
  EXPECT_TRUE(m_log.Has(3, "Number of Schedules in the registry = 2"));
  EXPECT_TRUE(m_log.Has(4, "Exited from PopulateJobList()"));
  EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(Populate, MakesTheMissingKey) {
  platform::RegistryKey version;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, qx::kCurrentVersionKey, platform::KEY_ALL_ACCESS, version),
            0u);
  ASSERT_EQ(platform::DeleteTree(version, qx::kSchedulesKeyName), 0u);
  ASSERT_EQ(version.Close(), 0u);
  Reload();
  EXPECT_THAT(m_log.texts(), ElementsAre("Number of Schedules in the registry = 0"));
  platform::RegistryKey key;
  EXPECT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_READ, key), 0u);
}

TEST_F(Populate, KeepsAScheduleThatHasRunOutOnDiskWithoutANode) {
  const ScheduleGuid id = Create(Once());
  m_clock.SetWall(kPresent + 7200);
  Reload();
  EXPECT_EQ(g_JobList.Size(), 0u);
  EXPECT_TRUE(m_log.Has(2, "NextTimeWindow is over: " + Text(id)));
  EXPECT_TRUE(HasKey(id));
  EXPECT_TRUE(std::filesystem::exists(IniFile(id)));
}

TEST_F(Populate, DropsAWindowThatPassedWhileTheServiceWasDown) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  m_clock.SetWall(kPresent + 3 * 86400 + 4000);
  Reload();
  EXPECT_EQ(ListedWindow(id), kPresent + 4 * 86400 + 3600);
}

TEST_F(Populate, SkipsAKeyWhoseNameIsNoId) {
  const ScheduleGuid id = Create(Daily());
  MakeKey(std::u16string(qx::kSchedulesKey) + u"\\nonsense");
  Reload();
  EXPECT_THAT(ListedIds(), ElementsAre(Text(id)));
  EXPECT_TRUE(m_log.Has(1, "Invalid ScheduleID/GUID in registry"));
}

TEST_F(Populate, ReadsLettersBeyondFInAKeysNameAsZero) {
  const std::u16string name = u"{GGGGGGGG-0000-0000-0000-000000000000}";
  MakeKey(std::u16string(qx::kSchedulesKey) + u"\\" + name);
  Reload();
  // The name passed: the first value that is missing is told of.
  EXPECT_THAT(m_log.texts(1), ElementsAre("Query Value of XML file path failed"));
  ScheduleGuid id = CLSID_SchedulerService;
  EXPECT_TRUE(StringToGUID(name.c_str(), id));
  EXPECT_EQ(id, ScheduleGuid{});
}

TEST_F(Populate, MovesACopyThatLiesAsideBackFirst) {
  const ScheduleGuid id = Create(Daily());
  std::filesystem::rename(IniFile(id), IniFile(id) + ".old");
  Reload();
  EXPECT_EQ(ListedWindow(id), kPresent + 3600);
  EXPECT_TRUE(std::filesystem::exists(IniFile(id)));
}

// A client's query may look for the file in the same moment as a pass over a changed clock.
TEST_F(Populate, TakesACopyThatSomebodyElseMovesBackMeanwhile) {
  const ScheduleGuid id = Create(Daily());
  for (const int look : {2, 3}) {
    std::filesystem::rename(IniFile(id), IniFile(id) + ".old");
    FaultPlan plan = FaultPlan::Ask([&, looks = 0](int, Operation operation, std::string_view) mutable {
      if (operation == Operation::kFileExists && ++looks == look) {
        std::filesystem::rename(IniFile(id) + ".old", IniFile(id));
      }
      return platform::ErrorCode{platform::ERROR_SUCCESS};
    });
    Reload();
    plan.Remove();
    EXPECT_EQ(ListedWindow(id), kPresent + 3600) << look;
    EXPECT_THAT(m_log.texts(1), IsEmpty()) << look;
  }
}

TEST_F(Populate, SkipsAScheduleWithAMissingValueAndLoadsTheOthers) {
  const ScheduleGuid good = Create(Daily());
  for (const auto& c : qx::testing::kMissingValues) {
    const ScheduleGuid bad = Create(Daily());
    RemoveValue(bad, c.name);
    Reload();
    EXPECT_THAT(m_log.texts(1), ElementsAre(c.text)) << c.text;
    EXPECT_THAT(ListedIds(), ElementsAre(Text(good))) << c.text;
    EXPECT_TRUE(HasKey(bad) && std::filesystem::exists(IniFile(bad))) << c.text;
    ASSERT_EQ(DeleteRegistry(bad), kStatusOk);
  }
}

// Of several that are missing, the one that is read first is told of.
TEST_F(Populate, ReadsTheValuesInOneOrder) {
  const ScheduleGuid id = Create(Daily());
  for (auto value = std::rbegin(qx::testing::kMissingValues); value != std::rend(qx::testing::kMissingValues);
       ++value) {
    RemoveValue(id, value->name);
    Reload();
    EXPECT_THAT(m_log.texts(1), ElementsAre(value->text));
  }
}

TEST_F(Populate, LooksForTheFileBetweenThePathAndTheFlag) {
  const ScheduleGuid id = Create(Daily());
  std::filesystem::remove(IniFile(id));
  RemoveValue(id, u"UseGUID");
  Reload();
  EXPECT_THAT(m_log.texts(1), ElementsAre("Ini file does not exists: " + IniFile(id)));
  RemoveValue(id, u"XMLFilePathName");
  Reload();
  EXPECT_THAT(m_log.texts(1), ElementsAre("Query Value of XML file path failed"));
}

TEST_F(Populate, RefusesAFlagOfAnotherType) {
  const ScheduleGuid id = Create(Daily());
  SetText(id, u"UseGUID", u"1");
  Reload();
  EXPECT_THAT(m_log.texts(1), ElementsAre("Query Value of UseGUID fails"));
}

TEST_F(Populate, TellsOfAMissingFileAndAnEmptyWrapper) {
  const ScheduleGuid noFile = Create(Daily());
  const ScheduleGuid noWrapper = Create(Daily());
  std::filesystem::remove(IniFile(noFile));
  SetText(noWrapper, u"WrapperBinary", u"");
  Reload();
  EXPECT_THAT(m_log.texts(1),
              UnorderedElementsAre("Ini file does not exists: " + IniFile(noFile), "No wrapperbinary name mentioned ",
                                   "Failed to set the lauch path, error = 1"));
  EXPECT_EQ(g_JobList.Size(), 0u);
}

struct PopulateFailure {
  int line;
  Operation operation;
  int call;
  const char* detail;
  const char* text;
};
const PopulateFailure kFailures[] = {
    {__LINE__, Operation::kRegOpenKey, 1, "",
     "Failed to open HKEY_LOCAL_MACHINE\\SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion key"},
    {__LINE__, Operation::kRegCreateKey, 1, "", "Failed to create\\open the Schedules key"},
    {__LINE__, Operation::kRegQueryInfoKey, 1, "", "Failed to query the 'schedules' key for number of schedules"},
    {__LINE__, Operation::kRegEnumKey, 1, "", " Failed RegEnumKey for 0 key"},
    {__LINE__, Operation::kRegOpenKey, 2, "", " Failed to open scheduleKey"},
    {__LINE__, Operation::kRegQueryInfoKey, 2, "", "Failed queryinfokey(scheduleKey)"},
    {__LINE__, Operation::kAllocate, 1, "BuildJobNode", "calloc failed to allocate memory"},
};

TEST_F(Populate, TellsEachFailureAndAnswersZero) {
  const ScheduleGuid id = Create(Daily());
  for (const PopulateFailure& c : kFailures) {
    DoCleanUp();
    m_log.Clear();
    FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 5, platform::kOnce, c.detail);
    EXPECT_EQ(PopulateJobList(), kStatusOk) << c.line;
    EXPECT_EQ(plan.hits(), 1) << c.line;
    EXPECT_THAT(m_log.texts(1), ElementsAre(c.text)) << c.line;
    EXPECT_EQ(g_JobList.Size(), 0u) << c.line;
  }
  EXPECT_TRUE(HasKey(id));
}

TEST_F(Populate, TellsThatARuleFileCanNotBeRead) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  bool said = false;
  for (int n = 1; n < 200 && !said; ++n) {
    m_log.Clear();
    FaultPlan plan = FaultPlan::FailAnyCall(n, 5);
    EXPECT_EQ(PopulateJobList(), kStatusOk);
    plan.Remove();
    if (plan.hits() == 0) break;
    for (const std::string& line : m_log.texts(1)) said = said || line.rfind("Did not find the ini file, error = ", 0) == 0;
    DoCleanUp();
  }
  EXPECT_TRUE(said);
  EXPECT_TRUE(std::filesystem::exists(IniFile(id)));
}

TEST_F(Populate, LeavesAListedScheduleAsItIs) {
  const ScheduleGuid id = Create(Daily());
  m_log.Clear();
  EXPECT_EQ(PopulateJobList(), kStatusOk);
  EXPECT_TRUE(m_log.Has(1, "Failed to add the job to the job list, error = 80040200"));
  EXPECT_THAT(ListedIds(), ElementsAre(Text(id)));
}

// So many that their keys and files are read ahead; some of them with a fault.
TEST_F(Populate, LoadsManyTheSameWhetherTheyAreReadAheadOrNot) {
  constexpr int kMany = 300;
  const ScheduleGuid first = Create(Daily());
  std::vector<std::string> expected = {Text(first)};
  platform::RegistryKey schedules;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, schedules), 0u);
  std::vector<platform::RegistryKey> open;  // one commit for all
  for (int i = 1; i < kMany; ++i) {
    ScheduleGuid id = first;
    id.Data1 = static_cast<std::uint32_t>(i);
    platform::RegistryKey from;
    ASSERT_EQ(platform::OpenKey(schedules, platform::GuidText(first), platform::KEY_READ, from), 0u);
    open.emplace_back();
    ASSERT_EQ(platform::CreateKey(schedules, platform::GuidText(id), platform::KEY_ALL_ACCESS, open.back()), 0u);
    std::u16string name;
    std::uint32_t type = 0;
    std::vector<std::byte> data;
    for (std::uint32_t v = 0; platform::EnumValue(from, v, name, type, data) == 0; ++v) {
      if (i == 7 && name == u"UseGUID") continue;
      ASSERT_EQ(platform::SetRawValue(open.back(), name, type, data), 0u);
    }
    if (i != 11) std::filesystem::copy_file(IniFile(first), IniFile(id));
    if (i == 13) std::filesystem::rename(IniFile(id), IniFile(id) + ".old");
    if (i != 7 && i != 11) expected.push_back(Text(id));
  }
  open.clear();
  schedules.Close();
  MakeKey(std::u16string(qx::kSchedulesKey) + u"\\nonsense");

  const auto load = [this] {
    Reload();
    std::vector<std::string> told;
    for (const std::string& line : m_log.texts(1)) told.push_back(line);
    return told;
  };
  EXPECT_EQ(load().size(), 5u);  // the flag, the file, the copy that was moved back, and two lines on the name
  EXPECT_THAT(ListedIds(), testing::UnorderedElementsAreArray(expected));
  const std::vector<std::string> ahead = load();
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateThread, 1, platform::ERROR_NO_PROC_SLOTS,
                                             platform::kFromThenOn);
  EXPECT_EQ(load(), ahead);
  EXPECT_GE(plan.hits(), 1);
  EXPECT_THAT(ListedIds(), testing::UnorderedElementsAreArray(expected));
}

TEST_F(Populate, CleansTheListUp) {
  (void)Create(Daily());
  (void)Create(Daily());
  DoCleanUp();
  EXPECT_EQ(g_JobList.Size(), 0u);
}

}  // namespace
