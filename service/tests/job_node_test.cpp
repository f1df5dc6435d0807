#include "service/job_node.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "common/Schedule.h"
#include "common/zep_factory.h"
#include "foundation/testing/captured_log.h"
#include "platform/testing/fault.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using testing::ElementsAre;
using Line = ZepFoundation::CapturedLogLine;

constexpr LibraryTableEntry kRulesAlone[] = {{"ZepSchedule", 2, "U"}};
constexpr LibraryTableEntry kAnsweringFirst[] = {{"Answering", 1, nullptr}, {"ZepSchedule", 2, "U"}};

// Rules that are never valid.
class InvalidSchedule : public CSchedule {
 public:
  ZRESULT Validate() override { return ZEP_E_INVALIDARG; }
};

ZRESULT g_answer = ZEP_S_OK;       // of the library below
zepISchedule* g_object = nullptr;  // what it hands out

}  // namespace

// A library of this program that the factory asks ahead of the rules library.
extern "C" ZRESULT AnsweringInitialize(ZepClassFactoryFunction, std::uint32_t* version,
                                       const LibraryTableEntry** dependents, std::uint32_t* count) {
  *version = 1;
  *dependents = nullptr;
  *count = 0;
  return ZEP_S_OK;
}
extern "C" ZRESULT AnsweringFactory(const ZepGuid&, zepIUnknown*, std::uint32_t, const ZepGuid&, void** out) {
  *out = g_object;
  return g_answer;
}

namespace {

class JobNode : public testing::Test {
 protected:
  void SetUp() override {
    CJobNode first;  // the rules library is ready from here on
    ASSERT_EQ(first.InitializeScheduler(), 0u);
    first.ReleaseScheduler();
    m_log.Clear();
  }
  void TearDown() override {
    g_object = nullptr;
    zepFactory::Instance().Terminate();
    ASSERT_EQ(InitializeZEP(".;lib;..\\lib", true, kRulesAlone, 1, 0), ZEP_S_OK);
  }
  void Answer(ZRESULT result) {
    g_answer = result;
    zepFactory::Instance().Terminate();
    ASSERT_EQ(InitializeZEP("", false, kAnsweringFirst, 2, 0), ZEP_S_OK);
  }

  ZepFoundation::CapturedServiceLog m_log;
};

struct FactoryCase {
  int line;
  ZRESULT result;
  const char* text;  // null: no line of its own
};
const FactoryCase kFactoryCases[] = {
    {__LINE__, ZEP_E_NOAGGREGATION, "This class cannot be created as part of an aggregate."},
    {__LINE__, ZEP_E_FAIL, "Unspecified error."},
    {__LINE__, ZEP_E_NOINTERFACE,
     "The specified class does not implement the requested interface, or the controlling xpIUnknown does not expose "
     "the "
     "requested interface."},
    {__LINE__, ZEP_E_INVALIDARG, nullptr},
};

TEST_F(JobNode, ReturnsTheFactorysFailureAsItStandsAndTellsWhatItMeans) {
  for (const FactoryCase& c : kFactoryCases) {
    ASSERT_NO_FATAL_FAILURE(Answer(c.result));
    m_log.Clear();
    CJobNode node;
    EXPECT_EQ(node.InitializeScheduler(), static_cast<Status>(c.result)) << c.line;
    EXPECT_EQ(node.ScheduleObj.m_pSchedule, nullptr) << c.line;
    char code[16];
    std::snprintf(code, sizeof code, "%x", static_cast<unsigned>(c.result));
    std::vector<Line> expected = {{4, std::string("ZepClassFactory returned hr = ") + code}};
    if (c.text != nullptr) expected.push_back({1, c.text});
    EXPECT_EQ(m_log.lines(), expected) << c.line;
  }
}

TEST_F(JobNode, TellsThatNoLibraryServesTheClass) {
  zepFactory::Instance().Terminate();
  CJobNode node;
  EXPECT_EQ(node.InitializeScheduler(), static_cast<Status>(ZEP_E_CLASSNOTAVAILABLE));
  EXPECT_THAT(m_log.texts(1), ElementsAre("Class not registered."));
}

TEST_F(JobNode, ReturnsWhatTheNewRulesAnswerToTheirValidation) {
  InvalidSchedule rules;
  g_object = &rules;
  ASSERT_NO_FATAL_FAILURE(Answer(ZEP_S_OK));
  m_log.Clear();
  CJobNode node;
  EXPECT_EQ(node.InitializeScheduler(), 0x80000003u);
  EXPECT_THAT(m_log.lines(),
              ElementsAre(Line{4, "ZepClassFactory returned hr = 0"},
                          Line{1, "Schedule rules entered does not represent valid schedule, hr = 80000003"}));
  node.ScheduleObj.m_pSchedule = nullptr;
}

TEST_F(JobNode, LogsTheFactorysAnswerAlsoWhenAllIsWell) {
  CJobNode node;
  EXPECT_EQ(node.InitializeScheduler(), 0u);
  EXPECT_THAT(m_log.lines(), ElementsAre(Line{4, "ZepClassFactory returned hr = 0"}));
  node.ReleaseScheduler();
}

TEST_F(JobNode, LogsTheRulesTimesAtLevelFiveBeforeItValidatesThem) {
  CJobNode node;
  ASSERT_EQ(node.InitializeScheduler(), 0u);
  m_log.Clear();
  SCHEDULE_OBJECT schedule;
  schedule.stScheduleRules.lStartTime = 1;
  schedule.stScheduleRules.lEndTime = -2;
  schedule.stScheduleRules.lEffectiveDate = 3;
  schedule.stScheduleRules.lAnchorDate = 4;
  EXPECT_EQ(node.ValidateScheduleRules(schedule), kStatusNoRunDay);
  const std::vector<Line> lines = m_log.lines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_THAT(std::vector<Line>(lines.begin(), lines.begin() + 4),
              ElementsAre(Line{5, "StartTime = 1"}, Line{5, "EndTime = -2"}, Line{5, "EffectiveDate = 3"},
                          Line{5, "AnchorDate = 4"}));
  node.ReleaseScheduler();
}

TEST_F(JobNode, SharesOneUncountedReferenceAmongItsCopies) {
  CJobNode node;
  ASSERT_EQ(node.InitializeScheduler(), 0u);
  zepISchedule* const object = node.ScheduleObj.m_pSchedule;
  {
    const CJobNode copy = node;
    EXPECT_EQ(copy.ScheduleObj.m_pSchedule, object);
  }
  EXPECT_EQ(object->AddRef(), 2u);  // the copy's end dropped none
  EXPECT_EQ(object->Release(), 1u);
  EXPECT_EQ(node.ReleaseScheduler(), 0u);
}

// The whole of a process in which the rules library fails at first.
[[noreturn]] void FailAtFirst() {
  const ZepFoundation::CapturedServiceLog log;
  Status failed = 0;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProcAddress, 1, platform::ERROR_PROC_NOT_FOUND,
                                               platform::kFromThenOn, "ZepScheduleFactory");
    CJobNode node;
    failed = node.InitializeScheduler();
  }
  for (const Line& line : log.lines()) std::fprintf(stderr, "%u %s\n", line.level, line.text.c_str());
  CJobNode node;
  std::_Exit(static_cast<std::int32_t>(failed) < 0 && node.InitializeScheduler() == kStatusOk ? 0 : 1);
}

// The library's start is remembered for the whole process, so its failure needs a process of its own.
TEST(JobNodeDeathTest, TellsThatTheRulesLibraryCouldNotBeInitialisedAndTriesAgainOnTheNextCall) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(FailAtFirst(), testing::ExitedWithCode(0),
              "1 Exited InitiallizeScheduler\\(\\) with error = [0-9a-f]+ returned from InitializeZEP");
}

}  // namespace
