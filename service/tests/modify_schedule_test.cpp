#include "service/modify_schedule.h"

#include "platform/after_answer.h"
#include "service/scheduler_loop.h"
#include "service/tests/at_line.h"
#include "service/tests/modify_fixture.h"

namespace {

using platform::FaultMode;
using platform::FaultPlan;
using platform::Operation;
using qx::testing::Kept;
using qx::testing::kPresent;
using qx::testing::kSecondsOfDay;
using qx::testing::Narrow;
using qx::testing::Wide;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

class ModifySchedule : public qx::testing::ModifyFixture {
 protected:
  std::string Ini(const ScheduleGuid& id, const std::string& directory = "a") const {
    return directory + "/" + Text(id) + ".ini";
  }
  std::string Folder(const std::string& name) const { return m_folder + "/" + name; }
};

// --- success ---

TEST_F(ModifySchedule, ChangesFileKeyAndNodeThenTellsEverybody) {
  const ScheduleGuid id = CreateQuietly(Before());
  const SCHEDULE_OBJECT after = After();
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  ExpectTold(id, __LINE__);
  EXPECT_EQ(Stored(id), ReadsAs(after, 0));
  EXPECT_EQ(Listed(id), ReadsAs(after, 0));
  EXPECT_EQ(ListedWindow(id), kPresent + 7200);
  EXPECT_EQ(LaunchPathOf(id), "/bin/echo \"" + Folder("a/other.xml") + "\" -new Post=\"last\"");
  EXPECT_EQ(LastOperation(id), 2u);
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
  EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(ModifySchedule, RemovesTheOldFileBehindTheAnswer) {
  const ScheduleGuid id = CreateQuietly(Before());
  for (const char* directory : {"a", "b", "b"}) {
    platform::AfterAnswer left;
    EXPECT_EQ(m_service.ModifySchedule(id, After(directory)), kStatusOk);
    EXPECT_THAT(FileNames(), Contains(EndsWith(Text(id) + ".ini.old")));
    EXPECT_EQ(Stored(id), ReadsAs(After(directory), 0));
    left.End();
    EXPECT_THAT(FileNames(), ElementsAre(Ini(id, directory)));
  }
}

TEST_F(ModifySchedule, TakesNoCopyOfTheChangeAheadForItsOwn) {
  const ScheduleGuid id = CreateQuietly(Before());
  const platform::AfterAnswer left;
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
  EXPECT_EQ(m_service.ModifySchedule(id, Before()), kStatusOk);
  // One that can't be put into the registry, nor back: the copy it keeps for the next load stays.
  FaultPlan plan = FaultPlan::FailCall(Operation::kRegSetValue, 1, 5, platform::kFromThenOn);
  EXPECT_NE(m_service.ModifySchedule(id, After()), kStatusOk);
  plan.Remove();
  platform::AfterAnswer::DoNow();
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id) + ".old"));
}

TEST_F(ModifySchedule, LeavesNoNewFileBesideTheOldOneWhenTheKeyRefuses) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  SCHEDULE_OBJECT after = After();
  after.bstrApplication = u"another";
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
  EXPECT_EQ(Files(), before.files);
}

TEST_F(ModifySchedule, MovesTheFileWithTheXmlPath) {
  const ScheduleGuid id = CreateQuietly(Before());
  const SCHEDULE_OBJECT after = After("b");
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  ExpectTold(id, __LINE__);
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id, "b")));
  EXPECT_EQ(Stored(id), ReadsAs(after, 0));
  EXPECT_EQ(Listed(id), ReadsAs(after, 0));
  EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(ModifySchedule, TakesADirectoryUnderTwoNamesForOne) {
  std::filesystem::create_directory_symlink(Folder("a"), Folder("link"));
  const ScheduleGuid id = CreateQuietly(Before());
  for (const bool commits : {false, true}) {
    Quiet();
    FaultPlan plan = FaultPlan::FailCall(Operation::kCommitProfiles, commits ? 99 : 1, platform::ERROR_DISK_FULL);
    EXPECT_EQ(m_service.ModifySchedule(id, After("link")), kStatusOk);
    plan.Remove();
    EXPECT_EQ(m_sink->heard.size(), commits ? 1u : 0u);
    EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
    EXPECT_EQ(Stored(id), ReadsAs(commits ? After("link") : Before(), 0));
  }
}

TEST_F(ModifySchedule, PutsTheFileOfAnEmptyXmlPathIntoTheDefaultDirectory) {
  const std::string directory = platform::NativePath(qx::kDefaultIniDirectory);
  ASSERT_EQ(platform::CreateDirectories(directory), 0u);
  const ScheduleGuid id = CreateQuietly(Before());
  SCHEDULE_OBJECT after = After();
  for (const char16_t* xmlPath : {u"", u"job.xml"}) {
    after.bstrXMLFilePathName = xmlPath;
    EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
    EXPECT_TRUE(std::filesystem::exists(directory + Text(id) + ".ini"));
    EXPECT_FALSE(std::filesystem::exists(Folder(Ini(id))));
    EXPECT_EQ(Stored(id), ReadsAs(after, 0));
  }
  // And back again: the old path has no directory, and no second separator.
  Unlist(id);
  Quiet();
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
  EXPECT_TRUE(m_log.Has(5, "Ini file path is " + Narrow(qx::kDefaultIniDirectory) + Text(id) + ".ini"));
}

TEST_F(ModifySchedule, BringsAScheduleThatHadRunOutBackIntoTheList) {
  SCHEDULE_OBJECT once = Once(1800);
  once.bstrXMLFilePathName = Before().bstrXMLFilePathName;
  const ScheduleGuid id = CreateQuietly(once);
  m_clock.SetWall(kPresent + 7200);
  EXPECT_EQ(m_service.Refresh(), kStatusOk);
  ASSERT_EQ(ListedWindow(id), -2);
  Quiet();
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
  ExpectTold(id, __LINE__);
  EXPECT_EQ(ListedWindow(id), kPresent + kSecondsOfDay + 7200);
  EXPECT_EQ(Stored(id), ReadsAs(After(), 0));
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
}

TEST_F(ModifySchedule, JoinsTheOldPathOfAnUnlistedScheduleWithTwoSeparators) {
  const ScheduleGuid id = CreateQuietly(Before());
  Unlist(id);
  EXPECT_EQ(m_service.ModifySchedule(id, After("b")), kStatusOk);
  EXPECT_TRUE(m_log.Has(5, "Ini file path is " + Folder("a/\\" + Text(id) + ".ini")));
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id, "b")));
  EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(ModifySchedule, FollowsANewIdFlagInTheListButKeepsTheFlagOfTheCreationInTheKey) {
  for (const std::uint32_t created : {0u, 1u}) {
    SCHEDULE_OBJECT before = Before();
    before.bUseGUID = created;
    const ScheduleGuid id = CreateQuietly(before);
    SCHEDULE_OBJECT after = After();
    after.bUseGUID = created == 0 ? 1 : 0;
    EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
    EXPECT_EQ(LaunchPathOf(id).find(Text(id)) != std::string::npos, created == 0);
    SCHEDULE_OBJECT record;
    EXPECT_EQ(ReadRegistry(id, record), kStatusOk);
    EXPECT_EQ(record.bUseGUID, created);
    // As after a restart.
    EXPECT_EQ(m_service.Refresh(), kStatusOk);
    EXPECT_EQ(LaunchPathOf(id).find(Text(id)) != std::string::npos, created != 0);
  }
}

TEST_F(ModifySchedule, RunsTheNewJobAtOnceForExactlyOne) {
  const ScheduleGuid id = CreateQuietly(Before());
  for (const std::uint32_t runNow : {0u, 2u, 1u}) {
    SCHEDULE_OBJECT after = After();
    after.bstrWrapperBinaryName = u"/usr/bin/tee";
    after.bstrXMLFilePathName = Wide(Folder("a/ran"));
    after.bstrParameters = u"";
    after.bstrPostScript = u"";
    after.bRunNow = runNow;
    EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
    ASSERT_TRUE(platform::WaitForAllChildren(60000));
    EXPECT_EQ(std::filesystem::exists(Folder("a/ran")), runNow == 1) << runNow;
  }
  EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(id)), 1);
}

TEST_F(ModifySchedule, SucceedsWhenTheRunAtOnceFails) {
  const ScheduleGuid id = CreateQuietly(Before());
  SCHEDULE_OBJECT after = After();
  after.bstrWrapperBinaryName = Wide(Folder("absent"));
  after.bRunNow = 1;
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  EXPECT_TRUE(m_log.Has(0, "Launch (Create process) failed with error : 2"));
  EXPECT_TRUE(m_log.Has(1, "ModifySchedule: Failed to Launch the schedule even bRunNow is true"));
  EXPECT_EQ(Listed(id), ReadsAs(after, 0));
  ExpectTold(id, __LINE__);
}

TEST_F(ModifySchedule, PutsTheJobAheadOfOthersOfItsNewWindow) {
  SCHEDULE_OBJECT other = After();
  const ScheduleGuid first = CreateQuietly(Before());
  const ScheduleGuid second = CreateQuietly(other);
  EXPECT_THAT(ListedIds(), ElementsAre(Text(first), Text(second)));
  other = After();
  other.stScheduleRules.lStartTime += 60;
  EXPECT_EQ(m_service.ModifySchedule(first, other), kStatusOk);
  EXPECT_THAT(ListedIds(), ElementsAre(Text(second), Text(first)));
  EXPECT_EQ(m_service.ModifySchedule(first, After()), kStatusOk);
  EXPECT_THAT(ListedIds(), ElementsAre(Text(first), Text(second)));
}

TEST_F(ModifySchedule, TellsClientsInTheOrderOfTheOperations) {
  const ScheduleGuid first = Create(Before());
  const ScheduleGuid second = Create(Before());
  EXPECT_EQ(m_service.ModifySchedule(second, After()), kStatusOk);
  EXPECT_EQ(m_service.ModifySchedule(first, After("b")), kStatusOk);
  EXPECT_EQ(m_service.DeleteSchedule(second), kStatusOk);
  EXPECT_EQ(m_service.ModifySchedule(first, Before()), kStatusOk);
  EXPECT_THAT(m_sink->heard, ElementsAre("add " + Text(first), "add " + Text(second), "modify " + Text(second),
                                         "modify " + Text(first), "delete " + Text(second), "modify " + Text(first)));
}

// At the time 0 a window of 0 exists, which a creation lists and a modification doesn't.
class ModifyAtTheBeginningOfTime : public ModifySchedule {
 protected:
  ModifyAtTheBeginningOfTime() : ModifySchedule() { m_clock.SetWall(-3600); }
};

TEST_F(ModifyAtTheBeginningOfTime, KeepsAWindowOfZeroOnDiskWithoutANode) {
  SCHEDULE_OBJECT after = Before();
  after.stScheduleRules.lStartTime = static_cast<std::int32_t>(kSecondsOfDay);
  const ScheduleGuid id = CreateQuietly(after);
  ASSERT_EQ(ListedWindow(id), 0);
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  ExpectTold(id, __LINE__);
  EXPECT_EQ(ListedWindow(id), -2);
  EXPECT_EQ(Stored(id), ReadsAs(after, 0));
}

TEST_F(ModifyAtTheBeginningOfTime, DoesNotListAWindowOfZeroAgainAfterARollback) {
  SCHEDULE_OBJECT before = Before();
  before.stScheduleRules.lStartTime = static_cast<std::int32_t>(kSecondsOfDay);
  const ScheduleGuid id = CreateQuietly(before);
  ASSERT_EQ(ListedWindow(id), 0);
  SCHEDULE_OBJECT after = before;
  after.bstrApplication = u"other";
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  ExpectSilence(__LINE__);
  EXPECT_EQ(ListedWindow(id), -2);
  EXPECT_EQ(Stored(id), ReadsAs(before, 0));
}

// --- the first phase: nothing has changed ---

TEST_F(ModifySchedule, AnswersThatAnUnknownScheduleCanNotBeModified) {
  EXPECT_EQ(m_service.ModifySchedule(CLSID_SchedulerService, After()), kStatusNoSuchKey);
  EXPECT_THAT(ErrorLines(), ElementsAre("ModifySchedule:Failed to open the schedule key: " +
                                        Text(CLSID_SchedulerService) + " with error: 2"));
  ExpectSilence(__LINE__);
  EXPECT_FALSE(HasKey(CLSID_SchedulerService));
  EXPECT_THAT(FileNames(), IsEmpty());
}

using Change = void (*)(SCHEDULE_OBJECT& record);
struct Refusal {
  int line;
  Change change;
  Status status;
  std::vector<std::string> errors;  // of level 0 and 1
  const char* lastAtLevel2 = nullptr;
};
const Refusal kRefusals[] = {
    {__LINE__,
     [](SCHEDULE_OBJECT& r) { r.bstrWrapperBinaryName = u""; },
     kStatusFailure,
     {"No wrapperbinary name mentioned ", "ModifySchedule:Failed to set launch parameters, error = 1",
      "Failed to modify schedule: {ID}"}},
    {__LINE__,
     [](SCHEDULE_OBJECT& r) { r.bstrWrapperBinaryName.reset(); },
     kStatusFailure,
     {"No wrapperbinary name mentioned ", "ModifySchedule:Failed to set launch parameters, error = 1",
      "Failed to modify schedule: {ID}"}},
    {__LINE__,
     [](SCHEDULE_OBJECT& r) { r.bstrXMLFilePathName.reset(); },
     kStatusNoDirectory,
     {"ModifySchedule:Given XMLFilePath does not exists", "Failed to Modify Schedule"}},
    {__LINE__,
     [](SCHEDULE_OBJECT& r) { r.bstrXMLFilePathName = u"/no/such/directory/job.xml"; },
     kStatusNoDirectory,
     {"ModifySchedule:Given XMLFilePath does not exists", "Failed to Modify Schedule"}},
    {__LINE__,
     [](SCHEDULE_OBJECT& r) { r.bstrXMLFilePathName = u"job.xml"; },
     kStatusNoDirectory,
     {"ModifySchedule:Given XMLFilePath does not exists", "Failed to Modify Schedule"}},
    {__LINE__,
     [](SCHEDULE_OBJECT& r) { r.stScheduleRules = {}; },
     kStatusNoRunDay,
     {"No run day rule defined.", "ModifySchedule:Invalid schedule rule, error: 8004020a",
      "Failed to Modify Schedule: {ID}"}},
    {__LINE__,
     [](SCHEDULE_OBJECT& r) {
       r.stScheduleRules.bRestartInterval = 1;
       r.stScheduleRules.dwRestartInterval = 7200 * 1000;
     },
     kStatusRestartTooLong,
     {"The Restart interval exceeds the size of the time-window.",
      "ModifySchedule:Invalid schedule rule, error: 8004020c", "Failed to Modify Schedule: {ID}"}},
    {__LINE__,
     [](SCHEDULE_OBJECT& r) {
       SCHEDULE_RULE& rules = r.stScheduleRules;
       for (auto* week : {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3,
                          &rules.dwDaysOfWeek4}) {
         week->fill(0);
       }
       rules.alIncludeDates[0] = static_cast<std::int32_t>(kPresent - 3 * kSecondsOfDay);
     },
     kStatusBackdated,
     {},
     "Failed to Modify: Requested to modify with backdated schedule rules"},
};

TEST_F(ModifySchedule, RefusesBadDataBeforeAnythingChanges) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  for (const Refusal& c : kRefusals) {
    SCHEDULE_OBJECT after = After();
    after.bRunNow = 1;  // nothing runs before the checks, unlike at a creation
    c.change(after);
    Quiet();
    EXPECT_EQ(m_service.ModifySchedule(id, after), c.status) << c.line;
    std::vector<std::string> errors;
    for (const std::string& text : c.errors) errors.push_back(WithId(text, id));
    EXPECT_EQ(ErrorLines(), errors) << c.line;
    if (c.lastAtLevel2 != nullptr) {
      EXPECT_TRUE(m_log.Has(2, c.lastAtLevel2)) << c.line;
    }
    EXPECT_EQ(Keep(id), before) << c.line;
    EXPECT_EQ(LastOperation(id), 1u) << c.line;
    EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(id)), 0) << c.line;
    ExpectSilence(c.line);
  }
}

struct Failure {
  int line;
  Operation operation;
  int call;
  const char* detail;
  Status status;
  std::vector<std::string> errors;  // of level 0 and 1
};
const Failure kFailuresAhead[] = {
    {__LINE__,
     Operation::kRegOpenKey,
     1,
     "",
     kStatusModify,
     {"ModifySchedule: Failed to open the SCHEDULES registry key"}},
    {__LINE__,
     Operation::kRegOpenKey,
     2,
     "",
     kStatusNoSuchKey,
     {"ModifySchedule:Failed to open the schedule key: {ID} with error: 5"}},
    {__LINE__,
     Operation::kAllocate,
     1,
     "CSchedule",
     kStatusFailure,
     {"ModifySchedule:Failed to initiallise ZEP scheduler, error = 80000002", "Failed to ModifySchedule: {ID}"}},
    {__LINE__,
     Operation::kAllocate,
     1,
     "ModifySchedule wcConfigPath",
     kStatusFailure,
     {"ModifySchedule: Calloc(wcConfigPath) failed"}},
    {__LINE__,
     Operation::kDirectoryExists,
     1,
     "",
     kStatusNoDirectory,
     {"ModifySchedule:Given XMLFilePath does not exists", "Failed to Modify Schedule"}},
    {__LINE__,
     Operation::kRegQueryInfoKey,
     1,
     "",
     kStatusRegistryRead,
     {"Registry: Failed with error : 5", "ModifySchedule:Failed to get the old registry information",
      "Failed to modify the schedule"}},
    {__LINE__,
     Operation::kRegQueryValue,
     9,
     "",
     kStatusRegistryRead,
     {"Registry: Failed with error : 5", "ModifySchedule:Failed to get the old registry information",
      "Failed to modify the schedule"}},
    {__LINE__,
     Operation::kAllocate,
     1,
     "ReadRegistry",
     kStatusRegistryRead,
     {"ModifySchedule:Failed to get the old registry information", "Failed to modify the schedule"}},
};

TEST_F(ModifySchedule, ChangesNothingWhenACallAheadOfTheChangeFails) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  for (const Failure& c : kFailuresAhead) {
    Quiet();
    FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 5, platform::kOnce, c.detail);
    EXPECT_EQ(m_service.ModifySchedule(id, After()), c.status) << c.line;
    plan.Remove();
    EXPECT_EQ(plan.hits(), 1) << c.line;
    std::vector<std::string> errors;
    for (const std::string& text : c.errors) errors.push_back(WithId(text, id));
    EXPECT_EQ(ErrorLines(), errors) << c.line;
    EXPECT_EQ(Keep(id), before) << c.line;
    ExpectSilence(c.line);
  }
}

// --- the second phase ---

TEST_F(ModifySchedule, GoesOnWithTheListedJobsObjectWhenItsOwnCanNotBeMade) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  SCHEDULE_OBJECT after = After();
  after.bstrApplication = u"other";  // so that the old object is needed
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 2, 8, platform::kOnce, "CSchedule");
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  plan.Remove();
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_TRUE(m_log.Has(1, "Failed to initiallise ZEP scheduler, error = 80000002"));
  EXPECT_EQ(Keep(id), before);
  ExpectSilence(__LINE__);
}

TEST_F(ModifySchedule, GoesOnWithoutTheOldRulesOfAnUnlistedScheduleWhenNoObjectCanBeMadeForThem) {
  const ScheduleGuid id = CreateQuietly(Before());
  Unlist(id);
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 2, 8, platform::kOnce, "CSchedule");
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
  plan.Remove();
  EXPECT_TRUE(m_log.Has(1, "Failed to initiallise ZEP scheduler, error = 80000002"));
  EXPECT_TRUE(m_log.Has(1, "ModifySchedule:Failed to load the old schedule rules from file with error: 80000005"));
  ExpectTold(id, __LINE__);
  EXPECT_EQ(Stored(id), ReadsAs(After(), 0));
}

TEST_F(ModifySchedule, KeepsTheOldFileWhenNoObjectCanBeMadeToRestoreIt) {
  const ScheduleGuid id = CreateQuietly(Before());
  Unlist(id);
  const Kept before = Keep(id);
  SCHEDULE_OBJECT after = After("b");
  after.bstrApplication = u"other";
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 2, 8, platform::kOnce, "CSchedule");
  EXPECT_EQ(m_service.ModifySchedule(id, after), 0x80000005u);
  plan.Remove();
  EXPECT_TRUE(m_log.Has(1, "ModifySchedule:Failed to restore old ini file with error: 80000005"));
  EXPECT_EQ(Keep(id), before);
  ExpectSilence(__LINE__);
}

TEST_F(ModifySchedule, RefusesAnUnlistedScheduleWhoseKeyHasNoWrapper) {
  const ScheduleGuid id = CreateQuietly(Before());
  Unlist(id);
  SetText(id, u"WrapperBinary", u"");
  const Kept before = Keep(id);
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusFailure);
  EXPECT_THAT(ErrorLines(), ElementsAre("No wrapperbinary name mentioned ",
                                        "ModifySchedule:Failed to set old launch parameters, error = 1",
                                        "Failed to Modify Schedule: " + Text(id)));
  EXPECT_EQ(Keep(id), before);
  ExpectSilence(__LINE__);
}

TEST_F(ModifySchedule, ChangesNothingWhenTheMemoryOfTheOldPathIsRefused) {
  const ScheduleGuid id = CreateQuietly(Before());
  Unlist(id);
  const Kept before = Keep(id);
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "ModifySchedule old path");
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusFailure);
  plan.Remove();
  EXPECT_THAT(ErrorLines(), ElementsAre("ModifySchedule:calloc failed", "Failed to Modify Schedule: " + Text(id)));
  EXPECT_EQ(Keep(id), before);
  ExpectSilence(__LINE__);
}

TEST_F(ModifySchedule, GoesOnWhenTheOldRulesOfAnUnlistedScheduleCanNotBeRead) {
  const ScheduleGuid id = CreateQuietly(Before());
  Unlist(id);
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "CIniFilePropertyBag");
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
  plan.Remove();
  EXPECT_TRUE(m_log.Has(1, "ModifySchedule:Failed to load the old schedule rules from file with error: 80000002"));
  ExpectTold(id, __LINE__);
  EXPECT_EQ(Listed(id), ReadsAs(After(), 0));
}

// --- the third phase ---

TEST_F(ModifySchedule, OnlyLogsThatTheOldFileCouldNotBePutAside) {
  const ScheduleGuid id = CreateQuietly(Before());
  FaultPlan plan = FaultPlan::FailCall(Operation::kRenameFile, 1, 5);
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
  plan.Remove();
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_THAT(ErrorLines(), ElementsAre("Failed to delete old ini file with error 5"));
  ExpectTold(id, __LINE__);
  EXPECT_EQ(Stored(id), ReadsAs(After(), 0));
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
}

TEST_F(ModifySchedule, OnlyLogsThatTheOldFileIsMissing) {
  const ScheduleGuid id = CreateQuietly(Before());
  std::filesystem::remove(Folder(Ini(id)));
  EXPECT_EQ(m_service.ModifySchedule(id, After("b")), kStatusOk);
  EXPECT_TRUE(m_log.Has(1, "Failed to delete old ini file with error 2"));
  ExpectTold(id, __LINE__);
  EXPECT_EQ(Stored(id), ReadsAs(After("b"), 0));
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id, "b")));
}

TEST_F(ModifySchedule, TakesAFileThatAnEarlierModificationLeftAside) {
  const ScheduleGuid id = CreateQuietly(Before());
  for (const bool listed : {true, false}) {
    std::filesystem::rename(Folder(Ini(id)), Folder(Ini(id) + ".old"));
    if (!listed) Unlist(id);
    SCHEDULE_OBJECT after = After();
    after.bstrApplication = u"other";
    EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
    EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
    EXPECT_EQ(Stored(id), ReadsAs(Before(), 0));
    ExpectSilence(__LINE__);
  }
}

// Somebody made it so; no load takes rules from it, and its length is none that memory is wanted for.
TEST_F(ModifySchedule, ReplacesAnOldFileThatIsTooLongToBeRead) {
  for (const char* directory : {"a", "b"}) {
    const ScheduleGuid id = CreateQuietly(Before());
    std::filesystem::resize_file(Folder(Ini(id)), std::uintmax_t{1} << 36);  // most of it without a block on the disk
    EXPECT_EQ(m_service.ModifySchedule(id, After(directory)), kStatusOk) << directory;
    ExpectTold(id, __LINE__);
    EXPECT_EQ(Stored(id), ReadsAs(After(directory), 0)) << directory;
    EXPECT_EQ(Listed(id), ReadsAs(After(directory), 0)) << directory;
    EXPECT_EQ(FileNames(), std::vector{Ini(id, directory)});
    ASSERT_EQ(m_service.DeleteSchedule(id), kStatusOk);
    Quiet();
  }
}

TEST_F(ModifySchedule, WritesAMissingFileOfAListedJobAgainInARollback) {
  const ScheduleGuid id = CreateQuietly(Before());
  std::filesystem::remove(Folder(Ini(id)));
  SCHEDULE_OBJECT after = After("b");
  after.bstrApplication = u"other";
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
  EXPECT_EQ(Stored(id), ReadsAs(Before(), 0));
  EXPECT_EQ(Listed(id), ReadsAs(Before(), 0));
  ExpectSilence(__LINE__);
}

TEST_F(ModifySchedule, MakesNoFileInARollbackOfAScheduleThatHadNeitherJobNorFile) {
  const ScheduleGuid id = CreateQuietly(Before());
  Unlist(id);
  std::filesystem::remove(Folder(Ini(id)));
  const Kept before = Keep(id);
  SCHEDULE_OBJECT after = After("b");
  after.bstrApplication = u"other";
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  EXPECT_EQ(Keep(id), before);
  ExpectSilence(__LINE__);
  // New rules make it whole.
  EXPECT_EQ(m_service.ModifySchedule(id, After("b")), kStatusOk);
  EXPECT_EQ(Stored(id), ReadsAs(After("b"), 0));
  EXPECT_EQ(Listed(id), ReadsAs(After("b"), 0));
}

TEST_F(ModifySchedule, RollsBackToTheRulesByWhichTheJobRanWhenItsFileCanNotBeRead) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  SCHEDULE_OBJECT after = After("b");
  after.bstrApplication = u"other";
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "CIniFilePropertyBag");
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  plan.Remove();
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_EQ(Keep(id), before);
  ExpectSilence(__LINE__);
}

TEST_F(ModifySchedule, TellsThatACopyCouldNotBeDeleted) {
  const ScheduleGuid id = CreateQuietly(Before());
  FaultPlan plan = FaultPlan::FailCall(Operation::kDeleteFile, 1, 5);
  EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
  plan.Remove();
  EXPECT_THAT(ErrorLines(),
              ElementsAre("ModifySchedule: Failed to delete the copy " + Folder(Ini(id) + ".old") + ", error = 5"));
  EXPECT_EQ(Stored(id), ReadsAs(After(), 0));
  // It is put aside over, and goes with the next modification.
  EXPECT_EQ(m_service.ModifySchedule(id, Before()), kStatusOk);
  EXPECT_THAT(FileNames(), ElementsAre(Ini(id)));
  EXPECT_EQ(Stored(id), ReadsAs(Before(), 0));
}

// Lists the schedule in the middle of its modification, as the scheduler thread's pass over a changed clock may.
class Relister final : public ZepFoundation::ServiceLogWriter {
 public:
  explicit Relister(const ScheduleGuid& id) : m_id(id), m_before(SetServiceLogWriter(this)) {}
  ~Relister() override { SetServiceLogWriter(m_before); }
  void Write(std::uint32_t level, std::string_view text) override {
    lines.push_back({level, std::string(text)});
    if (text != "Entered Modify Registry" || m_done) return;
    m_done = true;
    CJobNode node;
    node.ScheduleID = m_id;
    node.NextTimeWindow = kPresent + 5;
    EXPECT_EQ(node.InitializeScheduler(), kStatusOk);
    EXPECT_EQ(g_JobList.AddJob(node), kStatusOk);
  }
  std::vector<ZepFoundation::CapturedLogLine> lines;

 private:
  ScheduleGuid m_id;
  bool m_done = false;
  ZepFoundation::ServiceLogWriter* m_before;
};

TEST_F(ModifySchedule, SucceedsWhenTheJobWasListedAnewMeanwhile) {
  const ScheduleGuid id = CreateQuietly(Before());
  {
    const Relister relister(id);
    EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
    EXPECT_THAT(relister.lines, Contains(ZepFoundation::CapturedLogLine{
                                    1, "ModifySchedule: Failed to add the job node to joblist with error: 80040200"}));
  }
  EXPECT_EQ(ListedWindow(id), kPresent + 5);
  EXPECT_EQ(TakeEvent(), MODIFY_EVENT);
  EXPECT_THAT(m_sink->heard, ElementsAre("modify " + Text(id)));
  EXPECT_EQ(Stored(id), ReadsAs(After(), 0));
}

TEST_F(ModifySchedule, LeavesAJobThatWasListedAnewToARollback) {
  const ScheduleGuid id = CreateQuietly(Before());
  SCHEDULE_OBJECT after = After();
  after.dwTaskOpCode = 5;
  {
    const Relister relister(id);
    EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  }
  EXPECT_EQ(ListedWindow(id), kPresent + 5);
  EXPECT_EQ(Stored(id), ReadsAs(Before(), 0));
  ExpectSilence(__LINE__);
}

// --- the way back: the list ---

// A sleep that began while the job was out of the list would pass over its windows.
TEST_F(ModifySchedule, WakesTheLoopBehindARollbackOnlyWhereItsSleepDoesNotCountOnTheJob) {
  const ScheduleGuid id = CreateQuietly(Before());
  qx::CSchedulerLoop loop{m_apartment, m_service};
  SCHEDULE_OBJECT after = After();
  after.dwTaskOpCode = 5;
  for (const bool began : {false, true, false}) {
    const auto cycle = [&] {
      g_SchedulerEvents.Set(DELETE_EVENT);
      EXPECT_TRUE(loop.Step());
    };
    cycle();
    {
      const qx::testing::AtLine line("Entered Modify Registry", [&] {
        if (began) cycle();
      });
      EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
    }
    EXPECT_EQ(ListedWindow(id), kPresent + 3600);
    EXPECT_EQ(TakeEvent(), began ? static_cast<int>(REFRESH_EVENT) : -1);
  }
}

// What a record can't carry: an anchor on the first day of all reads as none.
TEST_F(ModifySchedule, RollsBackToAllRulesOfTheOldFile) {
  SCHEDULE_OBJECT before = Once();
  before.bstrXMLFilePathName = Before().bstrXMLFilePathName;
  before.stScheduleRules.alIncludeDates = {};
  before.stScheduleRules.bRepeatInterval = 1;
  before.stScheduleRules.dwRepeatInterval = 7;
  before.stScheduleRules.lAnchorDate = 3600;
  const ScheduleGuid id = CreateQuietly(before);
  const Kept kept = Keep(id);
  for (const char* directory : {"a", "b"}) {
    SCHEDULE_OBJECT after = After(directory);
    after.dwTaskOpCode = 5;
    EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
    EXPECT_EQ(Keep(id), kept) << directory;
  }
}

// --- the way back: the registry ---

const std::pair<Change, const char*> kIdentities[] = {
    {[](SCHEDULE_OBJECT& r) { r.bstrApplication = u"other"; }, "Trying to modify the Application Name"},
    {[](SCHEDULE_OBJECT& r) { r.bstrApplication = u"Snapshot"; }, "Trying to modify the Application Name"},
    {[](SCHEDULE_OBJECT& r) { r.bstrApplication.reset(); }, "Trying to modify the Application Name"},
    {[](SCHEDULE_OBJECT& r) { r.bstrObjectID = u"vol-18"; }, "Trying to modify the ObjectID "},
    {[](SCHEDULE_OBJECT& r) { r.dwTaskOpCode = 5; }, "Trying to modify the TaskOpcode"},
};

TEST_F(ModifySchedule, RollsAChangedIdentityBackAndReturnsZeroWithoutAnEvent) {
  for (const char* directory : {"a", "b"}) {
    for (const bool listed : {true, false}) {
      const ScheduleGuid id = CreateQuietly(Before());
      if (!listed) Unlist(id);
      const Kept before = Keep(id);
      for (const auto& [change, text] : kIdentities) {
        SCHEDULE_OBJECT after = After(directory);
        after.bRunNow = 1;
        change(after);
        Quiet();
        EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk) << text;
        EXPECT_TRUE(m_log.Has(2, text));
        EXPECT_THAT(ErrorLines(), ElementsAre("Failed to modify registry with error 80040205"));
        EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(id)), 0);
        EXPECT_EQ(Keep(id), before) << text;
        ExpectSilence(__LINE__);
        // The way back is a modification too.
        EXPECT_EQ(LastOperation(id), 2u);
      }
      EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
      EXPECT_THAT(FileNames(), IsEmpty());
    }
  }
}

TEST_F(ModifySchedule, RollsAKeyThatCouldNotBeWrittenBack) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  constexpr int kValues = 7;  // that a modification sets
  for (int n = 1; n <= kValues; ++n) {
    Quiet();
    FaultPlan plan = FaultPlan::FailCall(Operation::kRegSetValue, n, 5);
    EXPECT_EQ(m_service.ModifySchedule(id, After("b")), kStatusOk);
    plan.Remove();
    EXPECT_EQ(plan.hits(), 1);
    EXPECT_THAT(ErrorLines(),
                ElementsAre("Registry: Failed with error : 5", "Failed to modify registry with error 80040206"));
    EXPECT_EQ(Keep(id), before) << n;
    ExpectSilence(__LINE__);
  }
}

TEST_F(ModifySchedule, RollsAKeyThatCouldNotBeCommittedBack) {
  const ScheduleGuid id = CreateQuietly(Before());
  // Other keys are closed before the one that is written.
  for (int n = 1; n < 20; ++n) {
    Quiet();
    const Kept before = Keep(id);
    FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, n, platform::ERROR_DISK_FULL);
    EXPECT_EQ(m_service.ModifySchedule(id, After()), kStatusOk);
    plan.Remove();
    if (m_sink->heard.empty()) {
      EXPECT_TRUE(m_log.Has(1, "Failed to modify registry with error 80040206")) << n;
      EXPECT_EQ(Keep(id), before) << n;
      ExpectSilence(__LINE__);
      return;
    }
    ASSERT_EQ(m_service.ModifySchedule(id, Before()), kStatusOk);
  }
  FAIL() << "no failed commit was met";
}

TEST_F(ModifySchedule, ReturnsTheFailureOfAKeyThatCouldNotBeWrittenBackAndListsNothing) {
  for (const char* directory : {"a", "b"}) {
    const ScheduleGuid id = CreateQuietly(Before());
    FaultPlan plan = FaultPlan::FailCall(Operation::kRegSetValue, 5, 5, platform::kFromThenOn);
    EXPECT_EQ(m_service.ModifySchedule(id, After(directory)), kStatusModify);
    plan.Remove();
    EXPECT_THAT(ErrorLines(),
                ElementsAre("Registry: Failed with error : 5", "Failed to modify registry with error 80040206",
                            "Registry: Failed with error : 5", "Failed to Modify Schedule: " + Text(id),
                            "ModifySchedule:Failed to revert back the registry entries 80040206"));
    EXPECT_EQ(ListedWindow(id), -2);
    ExpectSilence(__LINE__);
    // Old rules beside what the key holds by now: the new wrapper and XML path, the old parameters.
    const SCHEDULE_OBJECT stored = Stored(id);
    EXPECT_EQ(stored.stScheduleRules, ReadsAs(Before(), 0).stScheduleRules);
    EXPECT_EQ(stored.bstrXMLFilePathName, After(directory).bstrXMLFilePathName);
    EXPECT_EQ(stored.bstrParameters, Before().bstrParameters);
    EXPECT_EQ(m_service.Refresh(), kStatusOk);
    EXPECT_EQ(ListedWindow(id), kPresent + 3600);
    EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
    for (const auto& [name, text] : Files()) std::filesystem::remove(Folder(name));
  }
}

// One that was moved away from there: a power cut brings the name back that it had, or it couldn't be moved at all.
TEST_F(ModifySchedule, TakesNoFileOfEarlierDaysForTheSchedulesWhenItComesBackToADirectory) {
  const ScheduleGuid id = CreateQuietly(After("b"));
  const std::string earlier = FileText(Folder(Ini(id, "b")));
  EXPECT_EQ(m_service.ModifySchedule(id, Before()), kStatusOk);
  std::ofstream(Folder(Ini(id, "b")), std::ios::binary) << earlier;
  // The key names the directory when neither the new file nor the way back succeeds.
  bool failing = false;
  FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view) {
    failing = failing || operation == Operation::kCommitProfiles;
    return failing && (operation == Operation::kCommitProfiles || operation == Operation::kRegSetValue)
               ? platform::ERROR_DISK_FULL
               : platform::ERROR_SUCCESS;
  });
  EXPECT_EQ(m_service.ModifySchedule(id, After("b")), kStatusModify);
  plan.Remove();
  const SCHEDULE_OBJECT stored = Stored(id);
  EXPECT_EQ(stored.bstrXMLFilePathName, After("b").bstrXMLFilePathName);
  EXPECT_EQ(stored.bstrName, Before().bstrName);
  EXPECT_EQ(stored.stScheduleRules, ReadsAs(Before(), 0).stScheduleRules);
}

TEST_F(ModifySchedule, RollsBackWhenAFileOfEarlierDaysCanNotBeDeleted) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  std::ofstream(Folder(Ini(id, "b"))) << "[General]\r\n";
  FaultPlan plan = FaultPlan::FailCall(Operation::kDeleteFile, 1, 5);
  EXPECT_EQ(m_service.ModifySchedule(id, After("b")), kStatusOk);
  plan.Remove();
  EXPECT_THAT(ErrorLines(), ElementsAre("ModifySchedule: Failed to delete the earlier file " + Folder("b/") + Text(id) +
                                            ".ini, error = 5",
                                        "Failed to save the new schedule rule information",
                                        "Failed to Modify Schedule: " + Text(id)));
  ExpectSilence(__LINE__);
  EXPECT_EQ(Keep(id), before);
}

TEST_F(ModifySchedule, ReturnsThatTheOldRulesCouldNotBeRestoredAndKeepsTheOldFile) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  Unlist(id);
  SCHEDULE_OBJECT after = After("b");
  after.bstrApplication = u"other";
  // The old rules can't be read, so that none are there to write.
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "CIniFilePropertyBag");
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusNoRunDay);
  plan.Remove();
  EXPECT_TRUE(m_log.Has(1, "ModifySchedule:Failed to restore old ini file with error: 8004020a"));
  EXPECT_EQ(ListedWindow(id), -2);
  EXPECT_EQ(Files(), before.files);
  ExpectSilence(__LINE__);
  EXPECT_EQ(m_service.Refresh(), kStatusOk);
  EXPECT_EQ(Keep(id), before);
}

// --- the way back: the file ---

TEST_F(ModifySchedule, RollsAFileThatCouldNotBeSavedBack) {
  for (const char* directory : {"a", "b"}) {
    for (const bool listed : {true, false}) {
      const ScheduleGuid id = CreateQuietly(Before());
      if (!listed) Unlist(id);
      const Kept before = Keep(id);
      FaultPlan plan = FaultPlan::FailCall(Operation::kCommitProfiles, 1, platform::ERROR_DISK_FULL);
      SCHEDULE_OBJECT after = After(directory);
      after.bRunNow = 1;
      EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
      plan.Remove();
      EXPECT_EQ(plan.hits(), 1);
      EXPECT_THAT(ErrorLines(), ElementsAre("Failed to save propBag into ini file, error : 80070070",
                                            "Failed to save the new schedule rule information",
                                            "Failed to Modify Schedule: " + Text(id)));
      EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(id)), 0);
      EXPECT_EQ(Keep(id), before);
      EXPECT_EQ(LastOperation(id), 2u);
      ExpectSilence(__LINE__);
      EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
    }
  }
}

TEST_F(ModifySchedule, KeepsTheOldFileByteByByteWhenItsSavingFailsToo) {
  const ScheduleGuid id = CreateQuietly(Before());
  std::ofstream(Folder(Ini(id)), std::ios::app) << "; a remark\r\n";
  const Kept before = Keep(id);
  for (const char* directory : {"a", "b"}) {
    Quiet();
    FaultPlan plan =
        FaultPlan::FailCall(Operation::kCommitProfiles, 1, platform::ERROR_DISK_FULL, platform::kFromThenOn);
    // Deliberate: that the rules could not be saved isn't an answer of theirs.
    EXPECT_EQ(m_service.ModifySchedule(id, After(directory)), kStatusOk);
    plan.Remove();
    EXPECT_EQ(Keep(id), before);
    ExpectSilence(__LINE__);
  }
}

TEST_F(ModifySchedule, TakesANewFileBackThatCouldOnlyNotBeSynced) {
  const ScheduleGuid id = CreateQuietly(Before());
  for (const char* directory : {"a", "b"}) {
    // The last sync of the saving is that of the directory, with the new file in place.
    int syncs = 0;
    {
      FaultPlan plan = FaultPlan::FailCall(Operation::kSyncFile, 99, 5);
      ASSERT_EQ(m_service.ModifySchedule(id, After(directory)), kStatusOk);
      syncs = plan.calls();
    }
    ASSERT_EQ(m_service.ModifySchedule(id, Before()), kStatusOk);
    Quiet();
    const Kept before = Keep(id);
    for (int n = 1; n <= syncs; ++n) {
      FaultPlan plan = FaultPlan::FailCall(Operation::kSyncFile, n, 5);
      EXPECT_EQ(m_service.ModifySchedule(id, After(directory)), kStatusOk);
      plan.Remove();
      EXPECT_EQ(plan.hits(), 1);
      EXPECT_EQ(Keep(id), before) << n << " of " << syncs;
      ExpectSilence(__LINE__);
    }
  }
}

TEST_F(ModifySchedule, RollsBackWhenTheNewDirectoryTakesNoFile) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  // Where the file is to lie, and its copy, there are directories: nothing can be put in their place.
  for (const char* suffix : {".ini/x", ".ini.old/x"}) {
    std::filesystem::create_directories(Folder("b/" + Text(id) + suffix));
    Quiet();
    EXPECT_EQ(m_service.ModifySchedule(id, After("b")), kStatusOk);
    EXPECT_TRUE(m_log.Has(1, "Failed to save the new schedule rule information"));
    EXPECT_TRUE(m_log.Has(1, "Failed to Modify Schedule: " + Text(id)));
    std::filesystem::remove_all(Folder("b"));
    std::filesystem::create_directory(Folder("b"));
    EXPECT_EQ(Keep(id), before);
    EXPECT_EQ(LastOperation(id), 2u);
    ExpectSilence(__LINE__);
  }
}

TEST_F(ModifySchedule, RefusesAChangedIdentityByTheKeyAlsoWhereTheNewDirectoryTakesNoFile) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  std::filesystem::create_directories(Folder("b/" + Text(id) + ".ini.old/x"));
  SCHEDULE_OBJECT after = After("b");
  after.dwTaskOpCode = 5;
  EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
  EXPECT_TRUE(m_log.Has(2, "Trying to modify the TaskOpcode"));
  EXPECT_FALSE(m_log.Has(1, "Failed to save the new schedule rule information"));
  std::filesystem::remove_all(Folder("b"));
  EXPECT_EQ(Keep(id), before);
}

TEST_F(ModifySchedule, ReturnsTheFailureOfAKeyThatCouldNotBeWrittenBackAfterAFailedSave) {
  for (const char* directory : {"a", "b"}) {
    const ScheduleGuid id = CreateQuietly(Before());
    // The eighth value is the first of the way back.
    FaultPlan plan = FaultPlan::FailCall(Operation::kRegSetValue, 8, 5, platform::kFromThenOn);
    std::filesystem::create_directories(Folder(directory + std::string("/.") + Text(id) + ".ini.new/x"));
    EXPECT_EQ(m_service.ModifySchedule(id, After(directory)), kStatusModify);
    plan.Remove();
    EXPECT_TRUE(m_log.Has(1, "Failed to save the new schedule rule information"));
    EXPECT_EQ(m_log.Count(1, "Failed to Modify Schedule: " + Text(id)), 2);
    EXPECT_TRUE(m_log.Has(1, "ModifySchedule:Failed to revert back the registry entries 80040206"));
    EXPECT_EQ(ListedWindow(id), -2);
    ExpectSilence(__LINE__);
    std::filesystem::remove_all(Folder(directory + std::string("/.") + Text(id) + ".ini.new"));
    // Old rules beside new values.
    const SCHEDULE_OBJECT stored = Stored(id);
    EXPECT_EQ(stored.stScheduleRules, ReadsAs(Before(), 0).stScheduleRules);
    EXPECT_EQ(stored.bstrParameters, After(directory).bstrParameters);
    EXPECT_EQ(m_service.Refresh(), kStatusOk);
    EXPECT_EQ(ListedWindow(id), kPresent + 3600);
    EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
    for (const auto& [name, text] : Files()) std::filesystem::remove(Folder(name));
  }
}

TEST_F(ModifySchedule, ReturnsThatTheOldFileCouldNotBeRecovered) {
  const ScheduleGuid id = CreateQuietly(Before());
  const Kept before = Keep(id);
  Unlist(id);
  std::filesystem::create_directories(Folder("b/" + Text(id) + ".ini/x"));
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "CIniFilePropertyBag");
  EXPECT_EQ(m_service.ModifySchedule(id, After("b")), kStatusNoRunDay);
  plan.Remove();
  EXPECT_TRUE(m_log.Has(1, "Failed to recover old ini file"));
  EXPECT_EQ(m_log.Count(1, "Failed to Modify Schedule: " + Text(id)), 1);
  std::filesystem::remove_all(Folder("b"));
  EXPECT_EQ(ListedWindow(id), -2);
  EXPECT_EQ(Files(), before.files);
  ExpectSilence(__LINE__);
  EXPECT_EQ(m_service.Refresh(), kStatusOk);
  EXPECT_EQ(Keep(id), before);
}

TEST_F(ModifySchedule, KeepsTheListedJobsObjectAliveThroughARollback) {
  const ScheduleGuid id = CreateQuietly(Before());
  for (int i = 0; i < 3; ++i) {
    SCHEDULE_OBJECT after = After();
    after.bstrObjectID = u"other";
    EXPECT_EQ(m_service.ModifySchedule(id, after), kStatusOk);
    // The object answers, and computes the window that follows.
    EXPECT_EQ(Listed(id), ReadsAs(Before(), 0));
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const CJobList::Position at = g_JobList.Find(id);
    ASSERT_FALSE(at == g_JobList.End());
    EXPECT_EQ(at->UpdateNextTimeWindow(), kPresent + 3600);
    // One count is left: the list's.
    EXPECT_EQ(at->ScheduleObj.m_pSchedule->AddRef(), 2u);
    EXPECT_EQ(at->ScheduleObj.m_pSchedule->Release(), 1u);
  }
}

}  // namespace
