#include "service/job_node.h"

#include <filesystem>

#include "service/tests/service_fixture.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using qx::testing::Narrow;
using qx::testing::Wide;
using testing::ElementsAre;
using testing::IsEmpty;
using Line = ZepFoundation::CapturedLogLine;

constexpr ScheduleGuid kLaunched = platform::GuidConstant(u"{0A1B2C3D-0000-0000-0000-00000000000F}");

struct LaunchCase {
  int line;
  const char16_t* wrapper;
  const char16_t* xml;
  const char16_t* parameters;
  std::uint32_t useGuid;
  const char16_t* pre;
  const char16_t* post;
  const char* expected;
};
const LaunchCase kLines[] = {
    {__LINE__, u"wrapper.exe", u"C:\\dir\\job.xml", u"-x", 1, u"a.bat", u"b.bat",
     "wrapper.exe {0A1B2C3D-0000-0000-0000-00000000000F} \"C:\\dir\\job.xml\" -x Pre=\"a.bat\" Post=\"b.bat\""},
    {__LINE__, u"wrapper.exe", u"", u"", 0, u"", u"", "wrapper.exe"},
    {__LINE__, u"wrapper.exe", u"", u"", 77, u"", u"", "wrapper.exe {0A1B2C3D-0000-0000-0000-00000000000F}"},
    {__LINE__, u"w", u"", u"-a", 0, u"", u"p", "w -a Post=\"p\""},
    {__LINE__, u"w", u"x", u"", 0, u"p", u"", "w \"x\" Pre=\"p\""},
    {__LINE__, u"two words", u"a\"b", u"", 0, u"", u"", "two words \"a\"b\""},  // nothing is quoted or escaped
};

TEST(SetLaunchPath, PutsThePiecesThatAreThereBehindOneBlankEach) {
  for (const LaunchCase& c : kLines) {
    CJobNode node;
    node.ScheduleID = kLaunched;
    EXPECT_EQ(node.SetLaunchPath(c.wrapper, c.xml, c.parameters, c.useGuid, c.pre, c.post), 0u) << c.line;
    EXPECT_EQ(Narrow(node.LaunchPath.view()), c.expected) << c.line;
  }
}

TEST(SetLaunchPath, RefusesAnEmptyWrapperAndKeepsTheLine) {
  const ZepFoundation::CapturedServiceLog log;
  CJobNode node;
  ASSERT_EQ(node.SetLaunchPath(u"old", u"", u"", 0, u"", u""), 0u);
  EXPECT_EQ(node.SetLaunchPath(u"", u"x", u"", 0, u"", u""), 1u);
  EXPECT_EQ(node.LaunchPath.view(), u"old");
  EXPECT_THAT(log.lines(), ElementsAre(Line{0, "No wrapperbinary name mentioned "}));
}

class JobLaunch : public qx::testing::ServiceFixture {};

TEST_F(JobLaunch, StartsTheCommandLine) {
  CJobNode node;
  node.ScheduleID = kLaunched;
  ASSERT_EQ(node.SetLaunchPath(u"/usr/bin/tee", Wide(m_folder + "/a b"), Wide(m_folder + "/c"), 0, u"", u""), 0u);
  EXPECT_EQ(node.Launch(), 0u);
  ASSERT_TRUE(platform::WaitForAllChildren(60000));
  EXPECT_TRUE(std::filesystem::exists(m_folder + "/a b"));
  EXPECT_TRUE(std::filesystem::exists(m_folder + "/c"));
  EXPECT_THAT(m_log.lines(), ElementsAre(Line{3, "Launched the schedule: {0A1B2C3D-0000-0000-0000-00000000000F}"}));
}

TEST_F(JobLaunch, LogsBothLinesWhenTheProgramDoesNotExist) {
  CJobNode node;
  node.ScheduleID = kLaunched;
  ASSERT_EQ(node.SetLaunchPath(Wide(m_folder + "/absent"), u"", u"", 0, u"", u""), 0u);
  EXPECT_EQ(node.Launch(), 1u);
  EXPECT_THAT(m_log.lines(), ElementsAre(Line{0, "Launch (Create process) failed with error : 2"},
                                         Line{3, "Launched the schedule: {0A1B2C3D-0000-0000-0000-00000000000F}"}));
}

TEST_F(JobLaunch, LogsTheSystemsCodeInHexadecimal) {
  CJobNode node;
  node.ScheduleID = kLaunched;
  ASSERT_EQ(node.SetLaunchPath(u"/bin/true", u"", u"", 0, u"", u""), 0u);
  FaultPlan plan = FaultPlan::FailCall(Operation::kCreateProcess, 1, platform::ERROR_BAD_EXE_FORMAT);
  EXPECT_EQ(node.Launch(), 1u);
  EXPECT_THAT(m_log.texts(0), ElementsAre("Launch (Create process) failed with error : c1"));
}

TEST_F(JobLaunch, PutsTheNameOfTheRegistryKeyOnTheCommandLine) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bUseGUID = 1;
  const ScheduleGuid id = Create(schedule);
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const auto at = g_JobList.Find(id);
  ASSERT_FALSE(at == g_JobList.End());
  platform::RegistryKey key;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_READ, key), 0u);
  std::u16string name;
  ASSERT_EQ(platform::EnumKey(key, 0, name), 0u);
  EXPECT_EQ(Narrow(at->LaunchPath.view()), "/bin/true " + Narrow(name) + " \"" + m_folder + "/job.xml\"");
}

TEST_F(JobLaunch, ReleasesTheRuleObjectOnce) {
  CJobNode node;
  ASSERT_EQ(node.InitializeScheduler(), 0u);
  EXPECT_NE(node.ScheduleObj.m_pSchedule, nullptr);
  EXPECT_EQ(node.ReleaseScheduler(), 0u);
  EXPECT_EQ(node.ScheduleObj.m_pSchedule, nullptr);
  EXPECT_EQ(node.ReleaseScheduler(), 0u);
}

TEST_F(JobLaunch, MovesTheRuleFileAsideAndOnlyLogsAFailure) {
  const ScheduleGuid id = Create(Daily());
  const platform::CriticalSectionGuard guard(g_JobListLock);
  CJobNode node = *g_JobList.Find(id);
  EXPECT_EQ(node.DeleteScheduleRuleFile(), 0u);
  EXPECT_FALSE(std::filesystem::exists(IniFile(id)));
  EXPECT_TRUE(std::filesystem::exists(IniFile(id) + ".old"));
  EXPECT_EQ(node.DeleteScheduleRuleFile(), platform::ERROR_FILE_NOT_FOUND);
  EXPECT_TRUE(m_log.Has(1, "Failed to delete old ini file with error 2"));
}

}  // namespace
