#include "service/scheduler_service.h"

#include <filesystem>

#include "service/tests/service_fixture.h"

namespace {

using platform::FaultMode;
using platform::FaultPlan;
using platform::Operation;
using qx::testing::kPresent;
using qx::testing::Narrow;
using qx::testing::Wide;
using testing::ElementsAre;
using testing::IsEmpty;

class SchedulerService : public qx::testing::ServiceFixture {
 protected:
  int IniFiles() const {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder)) {
      count += entry.path().extension() == ".ini" || entry.path().extension() == ".old";
    }
    return count;
  }
  void ExpectNothingCreated(const ScheduleGuid& id) const {
    EXPECT_FALSE(HasKey(id));
    EXPECT_EQ(IniFiles(), 0);
    EXPECT_EQ(g_JobList.Size(), 0u);
    EXPECT_EQ(TakeEvent(), -1);
    EXPECT_THAT(m_sink->heard, IsEmpty());
  }
  void ExpectGone(const ScheduleGuid& id) const {
    EXPECT_FALSE(HasKey(id));
    EXPECT_FALSE(std::filesystem::exists(IniFile(id)));
    EXPECT_EQ(ListedWindow(id), -2);
  }
  static std::string NoNode(const ScheduleGuid& id) {
    return "RemoveJob: jobnode with scheduleID " + Text(id) + " does not exists";
  }
  // Creates a schedule whose job writes a file.
  SCHEDULE_OBJECT Writing(const SCHEDULE_OBJECT& base, const std::string& file) const {
    SCHEDULE_OBJECT s = base;
    s.bstrWrapperBinaryName = u"/usr/bin/tee";
    s.bstrXMLFilePathName = Wide(m_folder + "/" + file);
    return s;
  }
};

TEST_F(SchedulerService, CreatesFileKeyAndNodeThenTellsEverybody) {
  const SCHEDULE_OBJECT schedule = Daily();
  const ScheduleGuid id = Create(schedule);
  EXPECT_TRUE(HasKey(id));
  EXPECT_TRUE(std::filesystem::exists(IniFile(id)));
  EXPECT_EQ(ListedWindow(id), kPresent + 3600);
  EXPECT_EQ(TakeEvent(), CREATE_EVENT);
  EXPECT_THAT(m_sink->heard, ElementsAre("add " + Text(id)));
  EXPECT_TRUE(m_log.Has(4, "Entered CreateSchedule"));
  EXPECT_TRUE(m_log.Has(2, "Successful Schedule Creation: " + Text(id)));
  EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(SchedulerService, RunsTheJobOnceWhenTheRulesAreRefused) {
  SCHEDULE_OBJECT schedule = Writing(Daily(), "ran");
  schedule.bRunNow = 1;
  schedule.stScheduleRules = {};
  ScheduleGuid id{};
  EXPECT_EQ(m_service.CreateSchedule(schedule, id), kStatusNoRunDay);
  ASSERT_TRUE(platform::WaitForAllChildren(60000));
  EXPECT_TRUE(std::filesystem::exists(m_folder + "/ran"));
  ExpectNothingCreated(id);
  EXPECT_TRUE(m_log.Has(3, "Launching the new schedule as RUN NOW option was selected"));
  EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(id)), 1);
  EXPECT_TRUE(m_log.Has(1, "CreateSchedule:Invalid Schedule rule, error = 8004020a"));
  EXPECT_TRUE(m_log.Has(1, "bRunNow option with invalid or no schedule rules, hr = 8004020a"));
  EXPECT_TRUE(m_log.Has(3, NoNode(id)));
}

TEST_F(SchedulerService, RefusesAnEmptyWrapper) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrWrapperBinaryName = u"";
  ScheduleGuid id{};
  EXPECT_EQ(m_service.CreateSchedule(schedule, id), kStatusFailure);
  EXPECT_TRUE(m_log.Has(0, "No wrapperbinary name mentioned "));
  EXPECT_TRUE(m_log.Has(1, "Failed to set the launch parameters, error = 1"));
  EXPECT_TRUE(m_log.Has(3, NoNode(id)));
  ExpectNothingCreated(id);
}

TEST_F(SchedulerService, RefusesANullXmlPath) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrXMLFilePathName.reset();
  ScheduleGuid id{};
  EXPECT_EQ(m_service.CreateSchedule(schedule, id), kStatusNoDirectory);
  EXPECT_TRUE(m_log.Has(1, "CreateSchedule: Given XMLFilePath does not exists"));
  ExpectNothingCreated(id);
}

TEST_F(SchedulerService, PutsTheFileOfAnEmptyXmlPathIntoTheDefaultDirectory) {
  const std::string directory = platform::NativePath(qx::kDefaultIniDirectory);
  ASSERT_EQ(platform::CreateDirectories(directory), 0u);
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrXMLFilePathName = u"";
  const ScheduleGuid id = Create(schedule);
  EXPECT_TRUE(std::filesystem::exists(directory + Text(id) + ".ini"));
}

TEST_F(SchedulerService, RefusesAnXmlNameWithoutDirectoryWhileTheDefaultDirectoryIsMissing) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrXMLFilePathName = u"job.xml";
  ScheduleGuid id{};
  EXPECT_EQ(m_service.CreateSchedule(schedule, id), kStatusNoDirectory);
  ExpectNothingCreated(id);
}

TEST_F(SchedulerService, ReturnsZeroAndCreatesNothingWhenTheDirectorysMemoryIsRefused) {
  ScheduleGuid id{};
  FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "CreateSchedule wcConfigPath");
  EXPECT_EQ(m_service.CreateSchedule(Daily(), id), kStatusOk);
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_TRUE(m_log.Has(1, "Failed calloc(wcConfigPath)"));
  ExpectNothingCreated(id);
}

TEST_F(SchedulerService, RefusesRulesInThePastAndDoesNotUndoTheRun) {
  SCHEDULE_OBJECT schedule = Writing(Once(-7200), "ran");
  schedule.bRunNow = 7;  // every value but 0 runs
  ScheduleGuid id{};
  EXPECT_EQ(m_service.CreateSchedule(schedule, id), kStatusBackdated);
  ASSERT_TRUE(platform::WaitForAllChildren(60000));
  EXPECT_TRUE(std::filesystem::exists(m_folder + "/ran"));
  EXPECT_TRUE(m_log.Has(1, "CreateSchedule:Failed to Create a schedule, backdated schedule rules"));
  ExpectNothingCreated(id);
}

TEST_F(SchedulerService, EndsWithOneWhenTheRunAtOnceFails) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bRunNow = 1;
  schedule.bstrWrapperBinaryName = Wide(m_folder + "/absent");
  ScheduleGuid id{};
  EXPECT_EQ(m_service.CreateSchedule(schedule, id), kStatusFailure);
  EXPECT_TRUE(m_log.Has(0, "Launch (Create process) failed with error : 2"));
  EXPECT_TRUE(m_log.Has(3, "Launched the schedule: " + Text(id)));
  EXPECT_TRUE(m_log.Has(1, "CreateSchedule: Failed to launch the application, error = 1"));
  ExpectNothingCreated(id);
}

TEST_F(SchedulerService, AcceptsAWrapperThatDoesNotExist) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrWrapperBinaryName = Wide(m_folder + "/absent");
  EXPECT_EQ(ListedWindow(Create(schedule)), kPresent + 3600);
}

TEST_F(SchedulerService, AcceptsTwoSchedulesOfOneName) {
  const ScheduleGuid first = Create(Daily());
  const ScheduleGuid second = Create(Daily());
  EXPECT_THAT(ListedIds(), ElementsAre(Text(second), Text(first)));
}

TEST_F(SchedulerService, TellsThatNoIdCouldBeMade) {
  ScheduleGuid id{};
  FaultPlan plan = FaultPlan::FailCall(Operation::kCreateGuid, 1, 5);
  EXPECT_EQ(m_service.CreateSchedule(Daily(), id), 0x80070005u);
  EXPECT_TRUE(m_log.Has(1, "CreateSchedule:Unable to create the ScheduleID/GUID hr = 80070005"));
}

TEST_F(SchedulerService, LeavesNothingWhenTheFileCanNotBeSaved) {
  ScheduleGuid id{};
  FaultPlan plan = FaultPlan::FailCall(Operation::kCommitProfiles, 1, platform::ERROR_DISK_FULL);
  EXPECT_EQ(m_service.CreateSchedule(Daily(), id), 0x80070070u);
  EXPECT_TRUE(m_log.Has(1, "CreateSchedule:Failed to save schedule to file"));
  EXPECT_TRUE(m_log.Has(3, NoNode(id)));
  ExpectNothingCreated(id);
}

TEST_F(SchedulerService, TakesFileAndNodeBackWhenTheKeyCanNotBeWritten) {
  ScheduleGuid id{};
  FaultPlan plan = FaultPlan::FailCall(Operation::kRegCreateKey, 1, 5);
  EXPECT_EQ(m_service.CreateSchedule(Daily(), id), kStatusRegistryWrite);
  EXPECT_TRUE(m_log.Has(1, "Registry: Failed with error : 5"));
  EXPECT_TRUE(m_log.Has(1, "CreateSchedule: Failed to write into registry, error = 80040203"));
  EXPECT_FALSE(m_log.Has(3, NoNode(id)));
  ExpectNothingCreated(id);
}

TEST_F(SchedulerService, SaysThatTheFileOfARefusedKeyStaysBehind) {
  ScheduleGuid id{};
  SCHEDULE_OBJECT schedule = Daily();
  // Every call from the first one on the store fails, the deletion of the file among them.
  int n = 0;
  {
    FaultPlan count = FaultPlan::CountOnly();
    (void)Create(schedule);
    n = count.calls();
  }
  bool said = false;
  for (int i = 1; i <= n && !said; ++i) {
    FaultPlan plan = FaultPlan::FailAnyCall(i, 5, platform::kFromThenOn);
    (void)m_service.CreateSchedule(schedule, id);
    plan.Remove();
    said = m_log.Has(1, "CreateSchedule: Failed to delete the ini file: " + IniFile(id) + ", error = 5");
  }
  EXPECT_TRUE(said);
}

// --- deletion ---

TEST_F(SchedulerService, DeletesKeyFileAndNodeAndTellsEverybody) {
  const ScheduleGuid id = Create(Daily());
  ASSERT_EQ(TakeEvent(), CREATE_EVENT);
  m_sink->heard.clear();
  EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
  ExpectGone(id);
  EXPECT_EQ(TakeEvent(), DELETE_EVENT);
  EXPECT_THAT(m_sink->heard, ElementsAre("delete " + Text(id)));
  EXPECT_TRUE(m_log.Has(3, "Successful deletion of schedule: " + Text(id)));
  EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(SchedulerService, AnswersThatAnUnknownScheduleCanNotBeDeleted) {
  EXPECT_EQ(m_service.DeleteSchedule(CLSID_SchedulerService), kStatusNotFoundForDelete);
  EXPECT_TRUE(m_log.Has(1, "DeleteSchedule:Failed to open " + Text(CLSID_SchedulerService) +
                               " schedule key with error: 2"));
  EXPECT_TRUE(m_log.Has(3, "Exited from DeleteSchedule with error: 80040214"));
  EXPECT_EQ(TakeEvent(), -1);
  EXPECT_THAT(m_sink->heard, IsEmpty());
}

TEST_F(SchedulerService, SetsNoEventForADeletedScheduleWithoutNodeButTellsClients) {
  const ScheduleGuid id = Create(Daily());
  (void)TakeEvent();
  DoCleanUp();
  m_sink->heard.clear();
  EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
  EXPECT_EQ(TakeEvent(), -1);
  EXPECT_THAT(m_sink->heard, ElementsAre("delete " + Text(id)));
}

TEST_F(SchedulerService, CountsAScheduleAsDeletedWhenItsFileIsMissing) {
  const ScheduleGuid id = Create(Daily());
  std::filesystem::remove(IniFile(id));
  EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
  EXPECT_TRUE(m_log.Has(1, "DeleteSchedule:Failed to delete the ini file: " + IniFile(id) + ", error = 2"));
}

TEST_F(SchedulerService, DeletesTheCopyThatAModificationLeft) {
  const ScheduleGuid id = Create(Daily());
  std::filesystem::rename(IniFile(id), IniFile(id) + ".old");
  EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
  EXPECT_EQ(IniFiles(), 0);
}

struct DeleteFailure {
  int line;
  Operation operation;
  int call;
  const char* detail;
  Status status;
  const char* text;
};
const DeleteFailure kDeleteFailures[] = {
    {__LINE__, Operation::kRegOpenKey, 1, "", kStatusNotFoundForDelete,
     "DeleteSchedule:Failed to open SCHEDULE registry key with error: 5"},
    {__LINE__, Operation::kRegQueryInfoKey, 1, "", kStatusNotFoundForDelete,
     "DeleteSchedule:Failed RegQueryInfoKey with error: 5"},
    {__LINE__, Operation::kAllocate, 1, "DeleteSchedule temp_FilePath", kStatusNotFoundForDelete,
     "DeleteSchedule:Failed calloc(temp_FilePath)"},
    {__LINE__, Operation::kRegQueryValue, 1, "", kStatusNotFoundForDelete,
     "DeleteSchedule:Failed QueryValue(XMLFilePathName) with error: 5"},
    {__LINE__, Operation::kAllocate, 1, "DeleteSchedule path", kStatusNotFoundForDelete,
     "DeleteSchedule:Failed to allocate memory"},
    {__LINE__, Operation::kRegOpenKey, 3, "", kStatusSchedulesKey,
     "DeleteSchedule:Failed to delete registry entry: {ID} with error: 80040204"},
    {__LINE__, Operation::kRegDeleteKey, 1, "", kStatusNoSuchKey,
     "DeleteSchedule:Failed to delete registry entry: {ID} with error: 8004020d"},
};

TEST_F(SchedulerService, LeavesTheScheduleWholeWhenADeletionFails) {
  for (const DeleteFailure& c : kDeleteFailures) {
    const ScheduleGuid id = Create(Daily());
    (void)TakeEvent();
    m_sink->heard.clear();
    FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 5, platform::kOnce, c.detail);
    EXPECT_EQ(m_service.DeleteSchedule(id), c.status) << c.line;
    plan.Remove();
    EXPECT_EQ(plan.hits(), 1) << c.line;
    std::string text = c.text;
    if (const auto at = text.find("{ID}"); at != std::string::npos) text.replace(at, 4, Text(id));
    EXPECT_TRUE(m_log.Has(1, text)) << c.line;
    EXPECT_TRUE(HasKey(id) && std::filesystem::exists(IniFile(id))) << c.line;
    EXPECT_EQ(ListedWindow(id), kPresent + 3600) << c.line;
    EXPECT_THAT(m_sink->heard, IsEmpty()) << c.line;
  }
}

// --- listing ---

TEST_F(SchedulerService, ListsNothingWithoutSchedules) {
  std::uint32_t count = 7;
  ScheduleList list;
  EXPECT_EQ(m_service.ListSchedule(count, list), kStatusOk);
  EXPECT_EQ(count, 0u);
  EXPECT_FALSE(list);
  EXPECT_TRUE(m_log.Has(4, "Entered into ListSchedule"));
}

TEST_F(SchedulerService, ListsSchedulesThatHaveRunOut) {
  const ScheduleGuid id = Create(Once());
  DoCleanUp();
  std::uint32_t count = 0;
  ScheduleList list;
  EXPECT_EQ(m_service.ListSchedule(count, list), kStatusOk);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(list.records()[0].bstrScheduleID, platform::GuidText(id));
  EXPECT_EQ(list.records()[0].bstrWrapperBinaryName, u"/bin/true");
}

TEST_F(SchedulerService, KeepsTheCountAndNoArrayWhenAListingFails) {
  const ScheduleGuid id = Create(Daily());
  RemoveValue(id, u"Parameters");
  std::uint32_t count = 0;
  ScheduleList list;
  EXPECT_EQ(m_service.ListSchedule(count, list), kStatusList);
  EXPECT_EQ(count, 1u);
  EXPECT_FALSE(list);
  EXPECT_TRUE(m_log.Has(0, "ListSchedule:ListRegistry returned with error: 80040207"));
}

TEST_F(SchedulerService, SaysThatTheListCouldNotBeFreed) {
  const ScheduleGuid id = Create(Daily());
  RemoveValue(id, u"Parameters");
  std::uint32_t count = 0;
  ScheduleList list;
  {
    FaultPlan plan = FaultPlan::FailCall(Operation::kArrayAccessData, 1, 8, platform::kOnce, "ListSchedule");
    EXPECT_EQ(m_service.ListSchedule(count, list), kStatusList);
  }
  EXPECT_TRUE(m_log.Has(0, "ListSchedule: SafeArrayAccessData failed with error: 8"));
  EXPECT_TRUE(m_log.Has(0, "ListSchedule: There is a possible chance of memoryleak"));
  {
    FaultPlan plan = FaultPlan::FailCall(Operation::kArrayDestroy, 1, 8, platform::kOnce, "ListSchedule");
    EXPECT_EQ(m_service.ListSchedule(count, list), kStatusList);
  }
  EXPECT_TRUE(m_log.Has(1, "ListSchedule: SafeArrayDestroy failed with error: 8"));
}

// --- one schedule ---

TEST_F(SchedulerService, ReadsAListedScheduleWithoutItsFile) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bRunNow = 1;
  schedule.bUseGUID = 1;
  const ScheduleGuid id = Create(schedule);
  std::filesystem::remove(IniFile(id));
  ScheduleInfo info;
  ASSERT_EQ(m_service.GetScheduleInfo(id, info), kStatusOk);
  ASSERT_EQ(info.size(), 1u);
  const SCHEDULE_OBJECT& read = info.records()[0];
  EXPECT_EQ(read.bstrName, u"daily");
  EXPECT_EQ(read.bstrDescription, u"every day");
  EXPECT_EQ(read.bstrObjectID, u"vol-17");
  EXPECT_EQ(read.dwTaskOpCode, 4u);
  EXPECT_EQ(read.bUseGUID, 1u);
  EXPECT_EQ(read.bRunNow, 0u);
  EXPECT_EQ(read.lNextTimeWindow, kPresent + 3600);
  EXPECT_EQ(read.stScheduleRules.dwDaysOfWeek4, schedule.stScheduleRules.dwDaysOfWeek4);
  EXPECT_TRUE(m_log.Has(4, "Exited GetScheduleInfo: hr = 0"));
}

TEST_F(SchedulerService, ReadsAScheduleWithoutNodeFromItsFile) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  ScheduleInfo info;
  ASSERT_EQ(m_service.GetScheduleInfo(id, info), kStatusOk);
  EXPECT_EQ(info.records()[0].bstrName, u"daily");
  EXPECT_EQ(info.records()[0].lNextTimeWindow, kPresent + 3600);
  EXPECT_EQ(g_JobList.Size(), 0u);
}

TEST_F(SchedulerService, ReadsAScheduleWhoseFileLiesAside) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  std::filesystem::rename(IniFile(id), IniFile(id) + ".old");
  ScheduleInfo info;
  EXPECT_EQ(m_service.GetScheduleInfo(id, info), kStatusOk);
  EXPECT_TRUE(std::filesystem::exists(IniFile(id)));
}

TEST_F(SchedulerService, AnswersOneWithoutNodeAndFile) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  std::filesystem::remove(IniFile(id));
  ScheduleInfo info;
  EXPECT_EQ(m_service.GetScheduleInfo(id, info), kStatusFailure);
  EXPECT_FALSE(info);
  EXPECT_TRUE(m_log.Has(1, "GetScheduleInfo:ini file: " + IniFile(id) + " does not exist"));
  EXPECT_TRUE(m_log.Has(4, "Exited GetScheduleInfo: hr = 1"));
}

TEST_F(SchedulerService, AnswersThatAnUnknownScheduleCanNotBeRead) {
  ScheduleInfo info;
  EXPECT_EQ(m_service.GetScheduleInfo(CLSID_SchedulerService, info), kStatusRegistryRead);
  EXPECT_TRUE(m_log.Has(1, "GetScheduleInfo: Failed to read resitry"));
}

TEST_F(SchedulerService, DoublesThePercentOfAPathInItsLog) {
  SCHEDULE_OBJECT schedule = Daily();
  std::filesystem::create_directory(m_folder + "/50%s");
  schedule.bstrXMLFilePathName = Wide(m_folder + "/50%s/job.xml");
  const ScheduleGuid id = Create(schedule);
  DoCleanUp();
  const std::string file = m_folder + "/50%s/" + Text(id) + ".ini";
  std::filesystem::remove(file);
  ScheduleInfo info;
  EXPECT_EQ(m_service.GetScheduleInfo(id, info), kStatusFailure);
  EXPECT_TRUE(m_log.Has(1, "GetScheduleInfo:ini file: " + file + " does not exist"));
}

struct InfoFailure {
  int line;
  Operation operation;
  const char* detail;
  Status status;
  const char* text;
};
const InfoFailure kInfoFailures[] = {
    {__LINE__, Operation::kGetRecordInfo, "SCHEDULE_OBJECT", 0x80070008,
     "GetScheduleInfo:Failed GetRecordInfoFromGuids with hr = 80070008"},
    {__LINE__, Operation::kArrayCreate, "GetScheduleInfo", 1, "GetScheduleInfo: SafeArrayCreateEx failed with error"},
    {__LINE__, Operation::kArrayAccessData, "GetScheduleInfo", 0x80070008,
     "GetScheduleInfo: Failed SafeArrayAccessData with error: 8"},
    {__LINE__, Operation::kAllocate, "ReadRegistry", kStatusRegistryRead, "GetScheduleInfo: Failed to read resitry"},
    {__LINE__, Operation::kAllocate, "GetScheduleInfo path", 1, "GetScheduleInfo: Calloc failed to allocate memory"},
    {__LINE__, Operation::kArrayUnaccessData, "GetScheduleInfo", 0,
     "GetScheduleInfo: Failed SafeArrayUnaccessData with error: 8"},
};

TEST_F(SchedulerService, TellsEachFailureOfReadingASchedule) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  for (const InfoFailure& c : kInfoFailures) {
    FaultPlan plan = FaultPlan::FailCall(c.operation, 1, 8, platform::kOnce, c.detail);
    ScheduleInfo info;
    EXPECT_EQ(m_service.GetScheduleInfo(id, info), c.status) << c.line;
    EXPECT_EQ(plan.hits(), 1) << c.line;
    EXPECT_TRUE(m_log.Has(1, c.text)) << c.line;
  }
}

TEST_F(SchedulerService, TellsThatAFailedReadingCouldNotBeFreed) {
  FaultPlan plan = FaultPlan::FailCall(Operation::kArrayDestroy, 1, 8, platform::kOnce, "GetScheduleInfo");
  ScheduleInfo info;
  EXPECT_EQ(m_service.GetScheduleInfo(CLSID_SchedulerService, info), kStatusRegistryRead);
  EXPECT_TRUE(m_log.Has(1, "GetScheduleInfo: Failed SafeArrayDestroy with error: 8"));
}

// --- refresh, notices, the request that is only logged ---

TEST_F(SchedulerService, RefreshesToAnEmptyListFromAnEmptyKey) {
  const ScheduleGuid id = Create(Daily());
  (void)TakeEvent();
  ASSERT_EQ(DeleteRegistry(id), kStatusOk);
  EXPECT_EQ(m_service.Refresh(), kStatusOk);
  EXPECT_EQ(g_JobList.Size(), 0u);
  EXPECT_EQ(TakeEvent(), REFRESH_EVENT);
}

TEST_F(SchedulerService, RefreshesWithWindowsComputedAfresh) {
  const ScheduleGuid daily = Create(Daily());
  const ScheduleGuid once = Create(Once(1800));
  m_clock.SetWall(kPresent + 7200);
  EXPECT_EQ(m_service.Refresh(), kStatusOk);
  EXPECT_EQ(ListedWindow(daily), kPresent + 3600 + 86400);
  EXPECT_EQ(ListedWindow(once), -2);
  EXPECT_TRUE(m_log.Has(2, "NextTimeWindow is over: " + Text(once)));
}

TEST_F(SchedulerService, PassesNoticesOn) {
  const ScheduleGuid id = CLSID_SchedulerService;
  EXPECT_EQ(m_service.Notify_NextTimeWindow_Modify(id, -1), kStatusOk);
  EXPECT_EQ(m_service.Notify_SystemTime_Change(1, {u"{A}"}, {5}), kStatusOk);
  EXPECT_THAT(m_sink->heard, ElementsAre("window " + Text(id) + " -1", "time 1 {A}=5"));
  EXPECT_THAT(m_log.texts(),
              ElementsAre("Entered into Fire_NextTimeWindow_Modify", "Exited from Fire_NextTimeWindow_Modify",
                          "Notify_Systemtime_Change: count = 1"));
}

struct UpdateCase {
  int line;
  std::int32_t type;
  Status status;
  std::uint32_t level;
  const char* text;
};
const UpdateCase kUpdates[] = {
    {__LINE__, 0, 0, 3, "Requested to update the joblist"},
    {__LINE__, APPLICATION_NAME, 0, 3, "Requested to update the schedules having Application Name = a%sb"},
    {__LINE__, OBJECT_ID, 0, 3, "Requested to update the schedules having ObjectID = a%sb"},
    {__LINE__, 3, 1, 1, "Wrong parameter type"},
    {__LINE__, -1, 1, 1, "Wrong parameter type"},
};

TEST_F(SchedulerService, OnlyLogsTheRequestForAnUpdate) {
  for (const UpdateCase& c : kUpdates) {
    m_log.Clear();
    std::uint32_t count = 77;
    std::vector<std::u16string> ids = {u"x"};
    EXPECT_EQ(m_service.UpdateList(c.type, u"a%sb", count, ids), c.status) << c.line;
    EXPECT_EQ(count, 77u);
    EXPECT_THAT(ids, ElementsAre(u"x"));
    EXPECT_THAT(m_log.lines(), ElementsAre(ZepFoundation::CapturedLogLine{c.level, c.text})) << c.line;
  }
}

TEST_F(SchedulerService, AnswersThatItDoesNotCarryOutChangesOnNodes) {
  ScheduleGuid id{};
  NodeResults results;
  EXPECT_EQ(m_service.CreateScheduleOnNodes(Daily(), id, 0, {}, results), kStatusNotSupported);
  EXPECT_EQ(m_service.DeleteScheduleOnNodes(id, 0, {}, results), kStatusNotSupported);
  EXPECT_EQ(m_service.ModifyScheduleOnNodes(id, Daily(), 0, {}, results), kStatusNotSupported);
  EXPECT_EQ(m_service.PerformOperationOnNodes(u"x", 0, {}, results), kStatusNotSupported);
  EXPECT_EQ(g_JobList.Size(), 0u);
}

// --- whichever call fails ---

TEST_F(SchedulerService, CreatesAWholeScheduleOrNoneWhicheverPlatformCallFails) {
  const ScheduleGuid other = Create(Daily());
  const std::string otherText = FileText(IniFile(other));
  for (const FaultMode mode : {platform::kOnce, platform::kFromThenOn}) {
    for (int n = 1;; ++n) {
      m_log.Clear();
      ScheduleGuid id{};
      SCHEDULE_OBJECT schedule = Daily();
      schedule.bUseGUID = 1;
      FaultPlan plan = FaultPlan::FailAnyCall(n, platform::ERROR_DISK_FULL, mode);
      const Status status = m_service.CreateSchedule(schedule, id);
      plan.Remove();
      const bool memoryRefused = m_log.Has(1, "Failed calloc(wcConfigPath)");
      SCHEDULE_OBJECT record;
      const bool wholeKey = HasKey(id) && ReadRegistry(id, record) == kStatusOk;
      const bool hasFile = std::filesystem::exists(IniFile(id));
      if (status == kStatusOk && !memoryRefused) {
        EXPECT_TRUE(wholeKey && hasFile) << "call " << n;
        EXPECT_EQ(ListedWindow(id), kPresent + 3600) << "call " << n;
        std::string text = FileText(IniFile(id));
        EXPECT_NE(text.find("[Specific Exclude Dates]"), std::string::npos) << "call " << n;
      } else {
        EXPECT_EQ(ListedWindow(id), -2) << "call " << n;
        // A set call that fails leaves the values before it.
        EXPECT_TRUE(!HasKey(id) || m_log.Has(1, "CreateSchedule: Failed to write into registry, error = 80040203"))
            << "call " << n;
        // Only a deletion that fails too leaves the file, and then it is whole.
        EXPECT_TRUE(!hasFile || FileText(IniFile(id)).find("[Specific Exclude Dates]") != std::string::npos)
            << "call " << n;
      }
      EXPECT_EQ(FileText(IniFile(other)), otherText) << "call " << n;
      SCHEDULE_OBJECT otherRecord;
      EXPECT_EQ(ReadRegistry(other, otherRecord), kStatusOk) << "call " << n;
      EXPECT_EQ(ListedWindow(other), kPresent + 3600) << "call " << n;
      if (plan.hits() == 0) break;
      ASSERT_LT(n, 2000);
    }
  }
}

}  // namespace
