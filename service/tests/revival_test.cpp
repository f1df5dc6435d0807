// Schedules that have a key and no node, at a change of the clock.
#include <filesystem>
#include <functional>
#include <optional>
#include <utility>

#include "common/zep_factory.h"
#include "platform/thread.h"
#include "service/tests/at_line.h"
#include "service/tests/missing_values.h"
#include "service/tests/service_fixture.h"
#include "service/time_change.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using qx::testing::AtLine;
using qx::testing::kPresent;
using qx::testing::Wide;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Revival : public qx::testing::ServiceFixture {
 protected:
  // A schedule without a node.
  ScheduleGuid Lost() {
    const ScheduleGuid id = Create(Daily());
    Forget(id);
    return id;
  }
  void Forget(const ScheduleGuid& id) {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const auto at = g_JobList.Find(id);
    ASSERT_FALSE(at == g_JobList.End());
    at->ReleaseScheduler();
    g_JobList.Erase(at);
    m_log.Clear();
  }
  void Pass() {
    qx::TimeChangePass(m_apartment, m_service);
    (void)m_apartment.Step(0);
  }
  int Looks() const {
    int count = 0;
    for (const std::string& text : m_log.texts()) count += text.starts_with("Entered into loop for ");
    return count;
  }
};

TEST_F(Revival, TellsWhichValueIsMissingAndBringsTheOthersBack) {
  const ScheduleGuid good = Lost();
  for (const auto& c : qx::testing::kMissingValues) {
    const ScheduleGuid bad = Lost();
    RemoveValue(bad, c.name);
    m_log.Clear();
    Pass();
    EXPECT_THAT(m_log.texts(1), ElementsAre(c.text)) << c.text;
    EXPECT_THAT(ListedIds(), ElementsAre(Text(good))) << c.text;
    ASSERT_EQ(DeleteRegistry(bad), kStatusOk);
    Forget(good);
  }
}

TEST_F(Revival, BringsNoScheduleBackThatIsDeletedMeanwhile) {
  const ScheduleGuid deleted = Lost();
  Status status = kStatusFailure;
  {
    const AtLine line(Text(deleted) + " became valid because of system time change",
                         [&] { status = m_service.DeleteSchedule(deleted); });
    Pass();
  }
  EXPECT_EQ(status, kStatusOk);
  EXPECT_THAT(ListedIds(), IsEmpty());
}

TEST_F(Revival, LeavesAScheduleToTheModificationThatIsAtWorkOnIt) {
  const ScheduleGuid id = Create(Daily());
  SCHEDULE_OBJECT changed = Daily();
  changed.bstrParameters = u"-of-the-new";
  {
    const AtLine line("Entered Modify Registry", [&] { Pass(); });
    EXPECT_EQ(m_service.ModifySchedule(id, changed), kStatusOk);
  }
  const platform::CriticalSectionGuard guard(g_JobListLock);
  ASSERT_EQ(g_JobList.Size(), 1u);
  EXPECT_THAT(platform::Utf8FromWide(g_JobList.Find(id)->LaunchPath.view()), HasSubstr("-of-the-new"));
}

TEST_F(Revival, LeavesTheFileAloneThatAModificationHasPutAside) {
  const ScheduleGuid id = Create(Daily());
  SCHEDULE_OBJECT changed = Daily();
  changed.bstrXMLFilePathName = Wide(m_folder + "/other/job.xml");
  ASSERT_TRUE(std::filesystem::create_directory(m_folder + "/other"));
  {
    const AtLine line("Entered Modify Registry", [&] { Pass(); });
    EXPECT_EQ(m_service.ModifySchedule(id, changed), kStatusOk);
  }
  EXPECT_TRUE(std::filesystem::exists(m_folder + "/other/" + Text(id) + ".ini"));
  EXPECT_FALSE(std::filesystem::exists(IniFile(id)));
}

// It would find the old file put aside, and take the copy for what a kill has left.
TEST_F(Revival, LetsNoModificationBeginWhileAScheduleIsRead) {
  const ScheduleGuid id = Lost();
  std::optional<bool> isFree;  // for another thread
  const auto look = [&isFree] {
    isFree = false;
    if (!g_JobListLock.TryEnter()) return;
    isFree = true;
    g_JobListLock.Leave();
  };
  {
    const AtLine line("Ini file path is " + IniFile(id), [&look] {
      platform::Thread other;
      ASSERT_EQ(platform::Thread::Start("other", look, other), 0u);
      other.Join();
    });
    Pass();
  }
  EXPECT_EQ(isFree, false);
  EXPECT_THAT(ListedIds(), ElementsAre(Text(id)));
}

TEST_F(Revival, BringsAScheduleBackWhoseModificationHasEnded) {
  const ScheduleGuid id = Create(Daily());
  ASSERT_EQ(m_service.ModifySchedule(id, Daily()), kStatusOk);
  Forget(id);
  Pass();
  EXPECT_THAT(ListedIds(), ElementsAre(Text(id)));
}

struct RevivalFailure {
  int line;
  Operation operation;
  int call;
  const char* detail;
  const char* text;
};
const RevivalFailure kRevivalFailures[] = {
    {__LINE__, Operation::kRegOpenKey, 3, "", " Failed to open scheduleKey"},
    {__LINE__, Operation::kRegQueryInfoKey, 2, "", "Failed queryinfokey(scheduleKey)"},
    {__LINE__, Operation::kAllocate, 1, "BuildJobNode", "calloc failed to allocate memory"},
};

TEST_F(Revival, TellsWhichStepFailed) {
  const ScheduleGuid id = Lost();
  for (const RevivalFailure& c : kRevivalFailures) {
    m_log.Clear();
    FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 5, platform::kOnce, c.detail);
    Pass();
    plan.Remove();
    EXPECT_EQ(plan.hits(), 1) << c.line;
    EXPECT_THAT(m_log.texts(1), ElementsAre(c.text)) << c.line;
    EXPECT_EQ(ListedWindow(id), -2) << c.line;
  }
  Pass();
  EXPECT_EQ(ListedWindow(id), kPresent + 3600);
}

TEST_F(Revival, TellsThatTheRuleFileCanNotBeRead) {
  const ScheduleGuid id = Lost();
  { std::ofstream(IniFile(id), std::ios::trunc) << "no rules"; }
  Pass();
  ASSERT_FALSE(m_log.texts(1).empty());  // the adapter's own line comes before
  EXPECT_THAT(m_log.texts(1).back(), testing::StartsWith("failed to read schedule from ini file, error = "));
  EXPECT_EQ(ListedWindow(id), -2);
}

TEST_F(Revival, TellsThatThereIsNoWrapper) {
  SetText(Lost(), u"WrapperBinary", u"");
  m_log.Clear();
  Pass();
  EXPECT_THAT(m_log.texts(1),
              ElementsAre("No wrapperbinary name mentioned ", "Failed to set the lauch path, error = 1"));
}

// Here and when the list is filled.
TEST_F(Revival, TellsThatNoRuleObjectCouldBeMade) {
  const ScheduleGuid id = Lost();
  static constexpr LibraryTableEntry kRules[] = {{"ZepSchedule", 2, "U"}};
  zepFactory::Instance().Terminate();
  Pass();
  const auto expected = ElementsAre("Class not registered.", "Failed to initiallise ZEP scheduler, error = 80010003");
  EXPECT_THAT(m_log.texts(1), expected);
  m_log.Clear();
  EXPECT_EQ(PopulateJobList(), kStatusOk);
  EXPECT_THAT(m_log.texts(1), expected);
  ASSERT_EQ(InitializeZEP(".;lib;..\\lib", true, kRules, 1, 0), ZEP_S_OK);
  Pass();
  EXPECT_EQ(ListedWindow(id), kPresent + 3600);
}

// The name of the key is compared as it stands; read as an ID it is that of a listed schedule.
TEST_F(Revival, TakesAKeyInSmallLettersForAMissingScheduleAndCanNotAddIt) {
  const ScheduleGuid id = Create(Daily());
  SCHEDULE_OBJECT stored;
  ASSERT_EQ(ReadRegistry(id, stored), kStatusOk);
  std::u16string name = platform::GuidText(id);
  for (char16_t& c : name) c = c >= u'A' && c <= u'F' ? static_cast<char16_t>(c - u'A' + u'a') : c;
  ASSERT_EQ(DeleteRegistry(id), kStatusOk);
  MakeKey(std::u16string(qx::kSchedulesKey) + u"\\" + name);
  MakeKey(std::u16string(qx::kSchedulesKey) + u"\\~");  // one key more than nodes, behind it
  ASSERT_EQ(WriteRegistry(stored, id), kStatusOk);
  m_log.Clear();
  Pass();
  EXPECT_TRUE(m_log.Has(1, "Failed to add the job to the job list, error = 80040200"));
  EXPECT_THAT(ListedIds(), ElementsAre(Text(id)));
}

TEST_F(Revival, LooksNoFurtherWhenAsManyAreFoundAsAreMissing) {
  for (int i = 0; i < 4; ++i) (void)Create(Daily());
  // Enumerated in the order of their names.
  std::vector<std::string> names = ListedIds();
  std::sort(names.begin(), names.end());
  ScheduleGuid first{};
  ASSERT_TRUE(StringToGUID(qx::testing::Wide(names.front()).c_str(), first));
  Forget(first);
  Pass();
  EXPECT_EQ(Looks(), 1);
  EXPECT_EQ(g_JobList.Size(), 4u);
  m_log.Clear();
  Pass();
  EXPECT_EQ(Looks(), 0);
}

// Deliberate: the difference of the two numbers is taken without a sign.
TEST_F(Revival, LooksAtEveryKeyWhenMoreNodesThanKeysAreThere) {
  std::vector<ScheduleGuid> ids;
  for (int i = 0; i < 4; ++i) ids.push_back(Create(Daily()));
  ASSERT_EQ(DeleteRegistry(ids[0]), kStatusOk);
  ASSERT_EQ(DeleteRegistry(ids[1]), kStatusOk);
  m_log.Clear();
  Pass();
  EXPECT_EQ(Looks(), 2);
  EXPECT_EQ(g_JobList.Size(), 4u);
}

TEST_F(Revival, DropsOneWithoutAWindowWithoutAWord) {
  const ScheduleGuid id = Create(Once());
  Forget(id);
  m_clock.SetWall(kPresent + 7200);
  Pass();
  EXPECT_THAT(m_log.texts(3), IsEmpty());
  EXPECT_EQ(ListedWindow(id), -2);
  EXPECT_TRUE(HasKey(id));
}

}  // namespace
