#include "common/schedule_adapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/ini_recovery.h"
#include "common/Schedule.h"
#include "common/tests/schedule_fixture.h"
#include "common/zep_factory.h"
#include "foundation/include/zfcguid.h"
#include "foundation/testing/captured_log.h"
#include "platform/profile.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"
#include "tests/test_paths.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using qx::testing::Local;
using qx::testing::Shown;
using testing::AnyOf;
using testing::ElementsAre;
using testing::Eq;

std::int32_t Local32(const char* text) { return static_cast<std::int32_t>(Local(text)); }

std::string FileText(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// A schedule that passes everything on, except the calls that a test makes fail.
class FailingSchedule final : public CSchedule {
 public:
  ZRESULT get_Name(char16_t** name) override { return m_name != 0 ? m_name : CSchedule::get_Name(name); }
  ZRESULT get_Description(char16_t** text) override {
    return m_description != 0 ? m_description : CSchedule::get_Description(text);
  }
  ZRESULT GetSpecificDatesCount(std::uint32_t type, std::uint32_t* count) override {
    return m_count != 0 ? m_count : CSchedule::GetSpecificDatesCount(type, count);
  }
  ZRESULT GetSpecificDate(std::uint32_t type, std::uint32_t index, ZepTime* date) override {
    return m_date != 0 ? m_date : CSchedule::GetSpecificDate(type, index, date);
  }
  ZRESULT QueryInterface(const ZepGuid& iid, void** out) override {
    return m_query != 0 ? m_query : CSchedule::QueryInterface(iid, out);
  }
  ZRESULT Validate() override { return m_validate; }
  using CSchedule::Save;
  ZRESULT Save(zepIPropertyBag* bag, zepByte clear) override {
    return m_save != 0 ? m_save : CSchedule::Save(bag, clear);
  }

  ZRESULT m_name = 0, m_description = 0, m_count = 0, m_date = 0, m_query = 0, m_validate = 0, m_save = 0;
};

class Adapter : public testing::Test {
 protected:
  void SetUp() override {
    m_file = m_directory + "/{1}.ini";
    m_adapter.m_IniFilePath = ZepFoundation::wcstring(platform::WideFromUtf8(m_file));
    zepISchedule2* schedule = nullptr;
    ASSERT_EQ(qx::CreateScheduleObject(&schedule), ZEP_S_OK);
    m_adapter.m_pSchedule = schedule;
  }
  void TearDown() override {
    m_adapter.m_pSchedule->Release();
  }

  zepISchedule& Schedule() { return *m_adapter.m_pSchedule; }
  // Takes the object's place for a test.
  FailingSchedule& Failing() {
    m_adapter.m_pSchedule->Release();
    auto* failing = new FailingSchedule;
    failing->AddRef();
    m_adapter.m_pSchedule = failing;
    return *failing;
  }
  [[nodiscard]] bool Exists(const std::string& name) const { return std::filesystem::exists(name); }
  void Put(const std::string& text) const { std::ofstream(m_file, std::ios::binary | std::ios::trunc) << text; }

  // Fridays from 10:00 to 11:00.
  static SCHEDULE_OBJECT Friday() {
    SCHEDULE_OBJECT object;
    object.bstrName = u"friday";
    object.stScheduleRules.lStartTime = Local32("2024-01-10 10:00");
    object.stScheduleRules.lEndTime = Local32("2024-01-10 11:00");
    for (auto* week : {&object.stScheduleRules.dwDaysOfWeek0, &object.stScheduleRules.dwDaysOfWeek1,
                       &object.stScheduleRules.dwDaysOfWeek2, &object.stScheduleRules.dwDaysOfWeek3,
                       &object.stScheduleRules.dwDaysOfWeek4}) {
      (*week)[5] = 1;
    }
    return object;
  }
  // What the adapter saves of Friday(), to the head of the exclude dates.
  std::string SavedUpToExcludeDates() {
    const SCHEDULE_OBJECT object = Friday();
    EXPECT_EQ(m_adapter.AddScheduleRules(&object), 0u);
    const std::string text = FileText(m_file);
    return text.substr(0, text.find("Count=0", text.find("[Specific Exclude Dates]")));
  }
  SCHEDULE_OBJECT Given() {
    SCHEDULE_OBJECT object;
    EXPECT_EQ(m_adapter.LoadScheduleFromPropBag(&object), 0u);
    return object;
  }
  std::vector<std::string> Dates(std::uint32_t type) {
    std::vector<std::string> dates;
    std::uint32_t count = 0;
    Schedule().GetSpecificDatesCount(type, &count);
    for (std::uint32_t i = 0; i < count; ++i) {
      ZepTime date = 0;
      Schedule().GetSpecificDate(type, i, &date);
      dates.push_back(Shown(date).substr(0, 10));
    }
    return dates;
  }
  zepByte Dirty() {
    zepByte dirty = 9;
    Schedule().get_Dirty(&dirty);
    return dirty;
  }

  platform::VirtualClock m_clock{1718449200};  // Saturday, 15 June 2024, 11:00
  platform::ScopedZone m_zone{"UTC0"};
  ZepFoundation::CapturedServiceLog m_log;
  const platform::TemporaryFolder m_temporary{"adapter"};
  const std::string m_directory = m_temporary.Path();
  std::string m_file;
  CZEPScheduleObj m_adapter;
};

// --- from the record ---

TEST_F(Adapter, LoadsARecordAndGivesItBack) {
  SCHEDULE_OBJECT object = Friday();
  object.bstrDescription = u"all of it";
  SCHEDULE_RULE& rule = object.stScheduleRules;
  rule.bEffectiveDate = 1;
  rule.lEffectiveDate = Local32("2024-07-01");
  rule.bRestartInterval = 1;
  rule.dwRestartInterval = 600000;
  rule.bRepeatInterval = 1;
  rule.dwRepeatInterval = 3;
  rule.lAnchorDate = Local32("2024-05-01");
  rule.adwDaysOfMonth[14] = 1;
  rule.adwDaysOfMonth[31] = -1;
  rule.alIncludeDates[0] = Local32("2024-12-28");
  rule.alIncludeDates[1] = Local32("2024-12-27");
  rule.alExcludeDates[0] = Local32("2024-12-25");
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_FALSE(Exists(m_file));

  const SCHEDULE_OBJECT given = Given();
  SCHEDULE_OBJECT expected = object;
  expected.stScheduleRules.lStartTime = Local32("2024-06-15 10:00");  // on today's date
  expected.stScheduleRules.lEndTime = Local32("2024-06-15 11:00");
  expected.stScheduleRules.dwTimeDuration = 3600000;
  expected.stScheduleRules.adwDaysOfMonth[31] = 1;
  std::swap(expected.stScheduleRules.alIncludeDates[0], expected.stScheduleRules.alIncludeDates[1]);  // date order
  expected.lNextTimeWindow = Local32("2024-07-03 10:00");
  EXPECT_EQ(given.stScheduleRules, expected.stScheduleRules);
  expected.lNextTimeWindow = given.lNextTimeWindow;
  EXPECT_EQ(given, expected);
}

TEST_F(Adapter, TheLastDayFlagAloneIsNotRead) {
  SCHEDULE_OBJECT object;
  object.stScheduleRules.bLastDayOfMonth = 1;
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), kStatusNoRunDay);
  EXPECT_TRUE(m_log.Has(0, "No run day rule defined."));
  object.stScheduleRules.adwDaysOfMonth[31] = 1;
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
}

TEST_F(Adapter, AStartOfZeroLeavesTheStartAtMidnight) {
  const platform::ScopedZone zone("EST5");  // the instant 0 is 19:00 there
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.lStartTime = 0;
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(Shown(Given().stScheduleRules.lStartTime), "2024-06-15 00:00:00");
  EXPECT_EQ(Shown(Given().stScheduleRules.lEndTime), "2024-06-15 11:00:00");
}

TEST_F(Adapter, AnEndAnAnchorAndADurationOfZeroLeaveTheResetOnes) {
  const platform::ScopedZone zone("EST5");
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.lStartTime = 0;
  object.stScheduleRules.lEndTime = 0;
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(Shown(Given().stScheduleRules.lEndTime), "2024-06-15 23:59:59");
  EXPECT_EQ(Shown(Given().stScheduleRules.lAnchorDate), "2024-06-15 00:00:00");
  EXPECT_EQ(Given().stScheduleRules.dwTimeDuration, 86399059u);
}

TEST_F(Adapter, ARepeatIntervalOfZeroKeepsTheTwoDays) {
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.bRepeatInterval = 1;
  object.stScheduleRules.dwRepeatInterval = 0;
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(Given().stScheduleRules.dwRepeatInterval, 2);
}

TEST_F(Adapter, ARestartLongerThanTheWindowIsRefusedAndNothingIsSaved) {
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.bRestartInterval = 1;
  object.stScheduleRules.dwRestartInterval = 7200000;
  EXPECT_EQ(m_adapter.AddScheduleRules(&object), kStatusRestartTooLong);
  EXPECT_TRUE(m_log.Has(0, "The Restart interval exceeds the size of the time-window."));
  EXPECT_FALSE(Exists(m_file));
}

TEST_F(Adapter, MapsEachAnswerOfTheValidation) {
  FailingSchedule& schedule = Failing();
  const struct {
    int line;
    ZRESULT validate;
    Status status;
    const char* text;
  } kCases[] = {
      {__LINE__, ZEP_SCHED_E_NORUNDAY, 0x8004020A, "No run day rule defined."},
      {__LINE__, ZEP_SCHED_E_DATEOVERLAP, 0x8004020B, "There is an include/exclude date overlap."},
      {__LINE__, ZEP_SCHED_E_RESTARTTOOLONG, 0x8004020C, "The Restart interval exceeds the size of the time-window."},
      {__LINE__, ZEP_E_FAIL, 0x80040209, "The schedule is invalid, for an unknown reason."},
      {__LINE__, 0, 0, nullptr},
      {__LINE__, 5, 5, nullptr},
  };
  const SCHEDULE_OBJECT object = Friday();
  for (const auto& c : kCases) {
    schedule.m_validate = c.validate;
    m_log.Clear();
    EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), c.status) << c.line;
    EXPECT_EQ(m_log.texts(0), c.text != nullptr ? std::vector<std::string>{c.text} : std::vector<std::string>{}) << c.line;
  }
  schedule.m_validate = 5;
  EXPECT_EQ(m_adapter.AddScheduleRules(&object), 5u);
  EXPECT_FALSE(Exists(m_file));  // only exactly 0 is saved
}

TEST_F(Adapter, AFullListOfIncludeDatesRunsOnIntoTheExcludeDates) {
  SCHEDULE_OBJECT object;
  for (std::size_t i = 0; i < kSpecificDateCount; ++i) {
    object.stScheduleRules.alIncludeDates[i] = Local32("2024-01-01") + static_cast<std::int32_t>(i * 86400);
  }
  object.stScheduleRules.alExcludeDates[0] = Local32("2026-01-01");
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  std::uint32_t count = 0;
  Schedule().GetSpecificDatesCount(1, &count);
  EXPECT_EQ(count, 366u);
  EXPECT_THAT(Dates(2), ElementsAre("2026-01-01"));
  // Only as many leave as the record holds, the first ones in date order.
  EXPECT_EQ(Shown(Given().stScheduleRules.alIncludeDates[364]), "2024-12-30 00:00:00");
}

TEST_F(Adapter, AFullListOfExcludeDatesEndsWithTheRecord) {
  SCHEDULE_OBJECT object = Friday();
  for (std::size_t i = 0; i < kSpecificDateCount; ++i) {
    object.stScheduleRules.alExcludeDates[i] = Local32("2024-01-01") + static_cast<std::int32_t>(i * 86400);
  }
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(Dates(2).size(), 365u);
}

TEST_F(Adapter, ADurationWinsOverTheEnd) {
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.dwTimeDuration = 7200000;
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(Shown(Given().stScheduleRules.lEndTime), "2024-06-15 12:00:00");
}

TEST_F(Adapter, ARefusedValueIsNotAppliedAndNoFailure) {
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.dwTimeDuration = 999;
  object.stScheduleRules.bRepeatInterval = 1;
  object.stScheduleRules.dwRepeatInterval = 10000;
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(Given().stScheduleRules.dwTimeDuration, 3600000u);
  EXPECT_EQ(Given().stScheduleRules.dwRepeatInterval, 2);
}

TEST_F(Adapter, OnlyTheLowByteOfAFlagIsPassedOn) {
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.bRepeatInterval = 0x100;
  object.stScheduleRules.dwRepeatInterval = 5;
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  zepByte use = 9;
  std::int32_t days = 0;
  Schedule().get_UseRepeatInterval(&use);
  Schedule().get_RepeatInterval(&days);
  EXPECT_EQ(use, 0);
  EXPECT_EQ(days, 5);  // the field itself is not 0
}

TEST_F(Adapter, AbsentTextsLeaveTheResetOnes) {
  SCHEDULE_OBJECT object = Friday();
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  object.bstrName.reset();
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(Given().bstrName, BSTR(u""));
}

// --- into the record ---

TEST_F(Adapter, AFailingTextGetterIsTheResult) {
  FailingSchedule& schedule = Failing();
  SCHEDULE_OBJECT object;
  schedule.m_description = ZEP_E_OUTOFMEMORY;
  EXPECT_EQ(m_adapter.LoadScheduleFromPropBag(&object), 0x80000002u);
  EXPECT_TRUE(m_log.Has(1, "CZEPScheduleObj::LoadScheduleFromPropBag::get_description retuned with error 80000002"));
  schedule.m_name = ZEP_E_FAIL;
  EXPECT_EQ(m_adapter.LoadScheduleFromPropBag(&object), 0x80000006u);
  EXPECT_TRUE(m_log.Has(1, "CZEPScheduleObj::LoadScheduleFromPropBag::get_Name retuned with error 80000006"));
}

TEST_F(Adapter, FailingDateGettersAreToldAndPassedOver) {
  FailingSchedule& schedule = Failing();
  schedule.SetSpecificDate(1, Local("2024-12-24"));
  schedule.SetSpecificDate(2, Local("2024-12-25"));
  SCHEDULE_OBJECT object;
  schedule.m_date = ZEP_E_FAIL;
  EXPECT_EQ(m_adapter.LoadScheduleFromPropBag(&object), 0u);
  EXPECT_EQ(m_log.Count(1, " GetSpecificDate(INCLUDE, 0) returned with error 80000006"), 2);  // also of the exclude date
  schedule.m_count = ZEP_E_INVALIDARG;
  EXPECT_EQ(m_adapter.LoadScheduleFromPropBag(&object), 0u);
  EXPECT_TRUE(m_log.Has(1, "CZEPScheduleObj::LoadScheduleFromPropBag - GetSpecificDatesCount(INCLUDE) returned with error : 80000003"));
  EXPECT_TRUE(m_log.Has(1, "CZEPScheduleObj::LoadScheduleFromPropBag - GetSpecificDatesCount(EXCLUDE) returned with error : 80000003"));
}

TEST_F(Adapter, AValueWhoseFlagIsOffLeavesAsZero) {
  SCHEDULE_OBJECT object = Friday();
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  const SCHEDULE_RULE rule = Given().stScheduleRules;
  EXPECT_EQ(rule.lEffectiveDate, 0);
  EXPECT_EQ(rule.dwRestartInterval, 0u);
  EXPECT_EQ(rule.dwRepeatInterval, 0);
  EXPECT_EQ(Shown(rule.lAnchorDate), "2024-06-15 00:00:00");  // has no flag
}

TEST_F(Adapter, GivesTheNextWindowAndTellsIt) {
  SCHEDULE_OBJECT object = Friday();
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(Shown(m_adapter.GetNextTimeWindow()), "2024-06-21 10:00:00");
  EXPECT_TRUE(m_log.Has(5, "reference time: 1718449200 and NextTimeWindow: 1718964000"));
  EXPECT_EQ(Shown(Given().lNextTimeWindow), "2024-06-21 10:00:00");
}

TEST_F(Adapter, AnExhaustedScheduleHasAllBitsSet) {
  SCHEDULE_OBJECT object;
  object.stScheduleRules.alIncludeDates[0] = Local32("2024-01-01");
  EXPECT_EQ(m_adapter.Validate_ScheduleRules(&object), 0u);
  EXPECT_EQ(m_adapter.GetNextTimeWindow(), 0xFFFFFFFFu);
  EXPECT_EQ(Given().lNextTimeWindow, -1);
}

TEST_F(Adapter, TellsEntryAndExitOfEachOperation) {
  SCHEDULE_OBJECT object = Friday();
  m_adapter.AddScheduleRules(&object);
  m_adapter.Validate_ScheduleRules(&object);
  m_adapter.LoadScheduleFromFile();
  m_adapter.LoadScheduleFromPropBag(&object);
  for (const char* name : {"AddScheduleRules", "Validate_ScheduleRules", "SaveScheduleToFile", "LoadScheduleFromFile",
                           "LoadScheduleFromPropBag", "GetNextTimeWindow"}) {
    EXPECT_EQ(m_log.Count(4, std::string("Entered into CZEPScheduleObj::") + name), 1) << name;
    EXPECT_EQ(m_log.Count(4, std::string("Exited from CZEPScheduleObj::") + name), 1) << name;
  }
}

// --- the file ---

TEST_F(Adapter, AddingRulesSavesThem) {
  SCHEDULE_OBJECT object = Friday();
  EXPECT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  EXPECT_EQ(Dirty(), 0);
  Schedule().Reset();
  EXPECT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
  EXPECT_EQ(Given().bstrName, BSTR(u"friday"));
  EXPECT_EQ(Shown(m_adapter.GetNextTimeWindow()), "2024-06-21 10:00:00");
  EXPECT_TRUE(m_log.Has(5, "Ini file path is " + m_file));
}

TEST_F(Adapter, AddingRulesDoesNotLookAtTheSave) {
  SCHEDULE_OBJECT object = Friday();
  m_adapter.m_IniFilePath = ZepFoundation::wcstring(u"/no/such/directory/{1}.ini");
  EXPECT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  EXPECT_TRUE(m_log.Has(1, "Failed to save propBag into ini file, error : 80070003"));
}

TEST_F(Adapter, WritesTheFileOfAFullScheduleLetterByLetter) {
  const ZepFoundation::CGUID id(u"{00112233-4455-6677-8899-AABBCCDDEEFF}");
  zepISchedule& s = Schedule();
  s.Reset();
  s.put_ScheduleID(&id);
  s.put_Name(u"night run");
  s.put_Description(u"all volumes");
  s.put_StartTime(Local("2024-01-10 22:00"));
  s.put_TimeDuration(14400000);
  s.put_UseEffectiveDate(1);
  s.put_EffectiveDate(Local("2024-02-01"));
  s.put_UseRestartInterval(1);
  s.put_RestartInterval(3600000);
  s.put_UseRepeatInterval(1);
  s.put_RepeatInterval(14);
  s.put_AnchorDate(Local("2024-01-01"));
  s.SetSpecificDate(1, Local("2024-12-28"));
  s.SetSpecificDate(1, Local("2024-12-27"));
  s.SetSpecificDate(2, Local("2024-12-25"));
  s.SetDayOfMonth(0);
  s.SetDayOfMonth(31);
  s.SetDayOfWeek(5, 4);
  s.put_CustomBitSet(0x80000001);
  s.SetCustomString(u"colour", u"blue");
  s.SetCustomString(u"a", u"1");
  ASSERT_EQ(m_adapter.SaveScheduleToFile(), 0u);
  const std::string expected = FileText(test_paths::Data() + "/formats/schedule_full.ini");
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(FileText(m_file), expected);
  // A second save changes no byte.
  ASSERT_EQ(m_adapter.SaveScheduleToFile(), 0u);
  EXPECT_EQ(FileText(m_file), expected);
}

TEST_F(Adapter, BothDateSectionsAreWrittenAlsoWhenEmpty) {
  SCHEDULE_OBJECT object = Friday();
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  EXPECT_THAT(FileText(m_file), testing::EndsWith("[Specific Include Dates]\r\nCount=0\r\n[Specific Exclude Dates]\r\nCount=0\r\n"));
}

TEST_F(Adapter, OlderItemsOfTheDateSectionsGo) {
  for (int day = 1; day <= 28; ++day) Schedule().SetSpecificDate(2, Local("2024-02-01") + (day - 1) * 86400);
  ASSERT_EQ(m_adapter.SaveScheduleToFile(), 0u);
  EXPECT_THAT(FileText(m_file), testing::HasSubstr("Item10="));
  Schedule().ClearSpecificDates(2);
  Schedule().SetSpecificDate(2, Local("2024-02-05"));
  ASSERT_EQ(m_adapter.SaveScheduleToFile(), 0u);
  EXPECT_THAT(FileText(m_file), testing::EndsWith("[Specific Exclude Dates]\r\nCount=1\r\nItem01=1707091200\r\n"));
  Schedule().Reset();
  ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
  EXPECT_THAT(Dates(2), ElementsAre("2024-02-05"));
}

TEST_F(Adapter, AReloadKeepsBothDateListsApart) {
  SCHEDULE_OBJECT object = Friday();
  for (std::size_t i = 0; i < 120; ++i) {
    object.stScheduleRules.alIncludeDates[i] = Local32("2024-07-01") + static_cast<std::int32_t>(i * 86400);
    object.stScheduleRules.alExcludeDates[i] = Local32("2025-07-01") + static_cast<std::int32_t>(i * 86400);
  }
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  const auto includes = Dates(1);
  const auto excludes = Dates(2);
  Schedule().Reset();
  ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
  EXPECT_EQ(Dates(1), includes);
  EXPECT_EQ(Dates(2), excludes);
  EXPECT_EQ(includes.size(), 120u);
  EXPECT_EQ(Dirty(), 0);
}

TEST_F(Adapter, AFileWithoutTheDateSectionsIsLoadedByItsLetters) {
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.alExcludeDates[0] = Local32("2024-12-25");
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  std::string text = FileText(m_file);
  text.resize(text.find("[Specific Exclude Dates]"));  // one section alone doesn't count
  Put(text);
  Schedule().Reset();
  ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
  // Every line of "Run Day Rules" is taken as a date, in both lists.
  EXPECT_EQ(Dates(1), Dates(2));
  EXPECT_THAT(Dates(1), testing::Contains("1970-01-01"));
  EXPECT_THAT(Dates(1), testing::Contains("2024-12-25"));
}

TEST_F(Adapter, ADamagedDateSectionKeepsWhatItHoldsAndIsTold) {
  const struct {
    int line;
    const char* section;
    std::vector<std::string> dates;
  } kCases[] = {
      {__LINE__, "Count=3\r\nItem01=1735084800\r\nItem03=1735344000\r\n", {"2024-12-25", "2024-12-28"}},
      {__LINE__, "Count=4000000000\r\nItem01=1735084800\r\n", {"2024-12-25"}},
      {__LINE__, "Count=2\r\nItem1=1735084800\r\nItem002=1735344000\r\n", {}},
      {__LINE__, "Count=1\r\nItem01=soon\r\n", {}},
      {__LINE__, "Count=many\r\nItem01=1735084800\r\n", {}},
      {__LINE__, "Count=\r\n", {}},
      {__LINE__, "Count=-1\r\n", {}},
  };
  const std::string text = SavedUpToExcludeDates();
  for (const auto& c : kCases) {
    Put(text + c.section);
    m_log.Clear();
    ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u) << c.line;
    EXPECT_EQ(Dates(2), c.dates) << c.line;
    EXPECT_EQ(m_log.Count(1, "CZEPScheduleObj::LoadScheduleFromFile: the section Specific Exclude Dates of " + m_file +
                                 " is damaged, " + std::to_string(c.dates.size()) + " dates of it are kept"),
              1)
        << c.line;
  }
}

// As every other key and value of the file.
TEST_F(Adapter, ADateSectionIsReadWithoutRegardToCaseAndQuotes) {
  const struct {
    int line;
    const char* section;
  } kCases[] = {
      {__LINE__, "Count=2\r\nItem01=1735084800\r\nItem02=1735344000\r\n"},
      {__LINE__, "count=2\r\nITEM01=1735084800\r\nitem02=1735344000\r\n"},
      {__LINE__, "Count='2'\r\nItem01=\"1735084800\"\r\nItem02 = \"1735344000\" \r\n"},
      {__LINE__, "COUNT=2\r\nItem01=1735084800\r\nitem01=soon\r\nItem02=1735344000\r\nCount=1\r\n"},
  };
  const std::string text = SavedUpToExcludeDates();
  for (const auto& c : kCases) {
    Put(text + c.section);
    ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u) << c.line;
    EXPECT_THAT(Dates(1), testing::IsEmpty()) << c.line;
    EXPECT_THAT(Dates(2), ElementsAre("2024-12-25", "2024-12-28")) << c.line;
  }
}

TEST_F(Adapter, AFileThatCanNotBeReadFailsToLoadAndChangesNoRule) {
  const SCHEDULE_OBJECT object = Friday();
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  SCHEDULE_OBJECT before;
  ASSERT_EQ(m_adapter.LoadScheduleFromPropBag(&before), 0u);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kReadFile, 1, platform::ERROR_IO_DEVICE);
    EXPECT_EQ(m_adapter.LoadScheduleFromFile(), 0x8007045Du);
  }
  EXPECT_TRUE(m_log.Has(1, "CZEPScheduleObj::LoadScheduleFromFile:Failed to load the ini file into propBag, hr : 8007045d"));
  SCHEDULE_OBJECT after;
  ASSERT_EQ(m_adapter.LoadScheduleFromPropBag(&after), 0u);
  EXPECT_TRUE(after == before);
}

TEST_F(Adapter, AMissingFileFailsToLoad) {
  EXPECT_EQ(m_adapter.LoadScheduleFromFile(), 0x80000006u);
  EXPECT_TRUE(m_log.Has(1, "CZEPScheduleObj::LoadScheduleFromFile:Failed to load the ini file into propBag, hr : 80000006"));
}

TEST_F(Adapter, AFileWithoutAnEndKeepsTheEndOfAFullDay) {
  SCHEDULE_OBJECT object = Friday();
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  ASSERT_EQ(platform::WriteProfileString(m_adapter.m_IniFilePath, u"General", u"m_EndTime", nullptr), 0u);
  ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
  EXPECT_EQ(Shown(Given().stScheduleRules.lEndTime), "2024-06-15 23:59:59");
}

TEST_F(Adapter, ADurationASecondShortOfADayComesBackFromTheFileAsItWas) {
  SCHEDULE_OBJECT object = Friday();
  object.stScheduleRules.dwTimeDuration = 86399000;
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  const std::uint32_t before = ZepFoundation::ServiceLogLevel;
  for (const std::uint32_t level : {4u, before}) {  // through the property bag, and in one go
    ZepFoundation::ServiceLogLevel = level;
    ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
    EXPECT_EQ(Given().stScheduleRules.dwTimeDuration, 86399000u) << level;
  }
}

TEST_F(Adapter, AFileWithoutADurationKeepsThatOfAFullDay) {
  SCHEDULE_OBJECT object = Friday();
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  ASSERT_EQ(platform::WriteProfileString(m_adapter.m_IniFilePath, u"General", u"m_TimeDuration", nullptr), 0u);
  ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
  EXPECT_EQ(Given().stScheduleRules.dwTimeDuration, 86399059u);
}

TEST_F(Adapter, APercentSignInThePathReachesTheLogAsItIs) {
  m_file = m_directory + "/100%d%s.ini";
  m_adapter.m_IniFilePath = ZepFoundation::wcstring(platform::WideFromUtf8(m_file));
  SCHEDULE_OBJECT object = Friday();
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  ASSERT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
  EXPECT_TRUE(m_log.Has(5, "Ini file path is " + m_file));
}

// --- failures ---

TEST_F(Adapter, WithoutMemoryForTheBagNothingIsSavedOrLoaded) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, platform::ERROR_OUTOFMEMORY, platform::kFromThenOn,
                                             "CIniFilePropertyBag");
  EXPECT_EQ(m_adapter.SaveScheduleToFile(), 0x80000002u);
  EXPECT_FALSE(Exists(m_file));
  EXPECT_EQ(m_adapter.LoadScheduleFromFile(), 0x80000002u);
  EXPECT_TRUE(m_log.Has(1, "CZEPScheduleObj::LoadScheduleFromFile: new CIniFilePropertyBag() failed;"));
}

TEST_F(Adapter, AMissingInterfaceIsTold) {
  FailingSchedule& schedule = Failing();
  schedule.m_query = ZEP_E_NOINTERFACE;
  EXPECT_EQ(m_adapter.SaveScheduleToFile(), 0x80000004u);
  EXPECT_TRUE(m_log.Has(1, "SaveScheduleToFile:Unable to get query  IID_zepIPersistPropertyBag interface, error : 80000004"));
  EXPECT_EQ(m_adapter.LoadScheduleFromFile(), 0x80000004u);
  EXPECT_TRUE(m_log.Has(1, "CZEPScheduleObj::LoadScheduleFromFile:Failed to query IID_zepIPersistPropertyBag interface, hr : 80000004"));
}

TEST_F(Adapter, AFailedSaveOfTheBagIsTheResult) {
  FailingSchedule& schedule = Failing();
  schedule.m_save = ZEP_E_FAIL;
  EXPECT_EQ(m_adapter.SaveScheduleToFile(), 0x80000006u);
  EXPECT_TRUE(m_log.Has(1, "Failed to save propBag into ini file, error : 80000006"));
  EXPECT_FALSE(Exists(m_file));
}

TEST_F(Adapter, AFailedWriteOrCommitLeavesTheOldFileAndTheDirtyFlag) {
  SCHEDULE_OBJECT object = Friday();
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  const std::string before = FileText(m_file);
  for (const Operation operation : {Operation::kWriteProfileString, Operation::kCommitProfiles}) {
    Schedule().put_Name(u"other");
    Schedule().put_Dirty(1);
    m_log.Clear();
    const FaultPlan plan = FaultPlan::FailCall(operation, 1, platform::ERROR_DISK_FULL);
    EXPECT_EQ(m_adapter.SaveScheduleToFile(), 0x80070070u);
    EXPECT_EQ(plan.hits(), 1);
    EXPECT_TRUE(m_log.Has(1, "Failed to save propBag into ini file, error : 80070070"));
    EXPECT_EQ(FileText(m_file), before);
    EXPECT_EQ(Dirty(), 1);
  }
}

TEST_F(Adapter, TheFileHoldsTheOldTextOrTheNewWhicheverPlatformCallFails) {
  SCHEDULE_OBJECT object = Friday();
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  const std::string before = FileText(m_file);
  object.bstrName = u"renamed";
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  const std::string after = FileText(m_file);
  for (const platform::FaultMode mode : {platform::kOnce, platform::kFromThenOn}) {
    for (int n = 1;; ++n) {  // ends when the whole save runs without meeting the fault
      Put(before);
      FaultPlan plan = FaultPlan::FailAnyCall(n, platform::ERROR_DISK_FULL, mode);
      const Status status = m_adapter.SaveScheduleToFile();
      plan.Remove();
      EXPECT_THAT(FileText(m_file), AnyOf(Eq(before), Eq(after))) << "call " << n;
      if (status == 0) {
        EXPECT_EQ(FileText(m_file), after) << "call " << n;
      }
      if (plan.hits() == 0) {
        EXPECT_EQ(status, 0u);
        break;
      }
    }
  }
}

// --- the copy aside ---

TEST_F(Adapter, ACopyAsideTakesThePlaceOfAMissingFile) {
  SCHEDULE_OBJECT object = Friday();
  ASSERT_EQ(m_adapter.AddScheduleRules(&object), 0u);
  std::filesystem::rename(m_file, m_file + ".old");
  Schedule().Reset();
  EXPECT_EQ(m_adapter.LoadScheduleFromFile(), 0u);
  EXPECT_EQ(Given().bstrName, BSTR(u"friday"));
  EXPECT_TRUE(Exists(m_file));
  EXPECT_FALSE(Exists(m_file + ".old"));
  EXPECT_EQ(m_log.Count(1, "The schedule file " + m_file + " was missing and was restored from its .old copy"), 1);
}

TEST_F(Adapter, ACopyAsideStaysWhereTheFileIsThere) {
  Put("new");
  std::ofstream(m_file + ".old") << "old";
  EXPECT_FALSE(qx::RestoreOldIniFile(m_adapter.m_IniFilePath.view()));
  EXPECT_EQ(FileText(m_file), "new");
  EXPECT_EQ(FileText(m_file + ".old"), "old");
  EXPECT_FALSE(qx::RestoreOldIniFile(u""));
}

TEST_F(Adapter, ACopyAsideNeverReplacesAFileThatAppearsMeanwhile) {
  Put("new");
  std::ofstream(m_file + ".old") << "old";
  const FaultPlan plan = FaultPlan::FailCall(Operation::kFileExists, 1, platform::ERROR_ACCESS_DENIED);
  EXPECT_FALSE(qx::RestoreOldIniFile(m_adapter.m_IniFilePath.view()));
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_EQ(FileText(m_file), "new");
  EXPECT_EQ(FileText(m_file + ".old"), "old");
  EXPECT_TRUE(m_log.texts(1).empty());
}

TEST_F(Adapter, ACopyThatCannotBeMovedIsTold) {
  std::ofstream(m_file + ".old") << "old";
  const FaultPlan plan = FaultPlan::FailCall(Operation::kRenameFile, 1, platform::ERROR_ACCESS_DENIED);
  EXPECT_FALSE(qx::RestoreOldIniFile(m_adapter.m_IniFilePath.view()));
  EXPECT_TRUE(m_log.Has(1, "The schedule file " + m_file + " is missing and its .old copy can't be moved back, error : 5"));
  EXPECT_TRUE(Exists(m_file + ".old"));
}

}  // namespace
