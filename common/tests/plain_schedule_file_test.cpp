// Files in the form of a save load the same from their bytes as through the property bag; all others are left alone.
#include "common/plain_schedule_file.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "common/Schedule.h"
#include "common/schedule_adapter.h"
#include "common/zep_factory.h"
#include "foundation/testing/captured_log.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"

namespace {

constexpr std::int32_t kNow = 1735718400;

rc::Gen<std::int32_t> PlainInstant() {
  return rc::gen::inRange<std::int32_t>(kNow - 86400 * 900, kNow + 86400 * 900);
}
rc::Gen<std::uint32_t> PlainFlag() {
  return rc::gen::inRange<std::uint32_t>(0, 2);
}

std::u16string RandomText() {
  const std::vector<char16_t> units = *rc::gen::container<std::vector<char16_t>>(
      rc::gen::oneOf(rc::gen::inRange<char16_t>(u' ', u'~'), rc::gen::inRange<char16_t>(0xA0, 0x2FFF),
                     rc::gen::element<char16_t>(u'"', u'\'', u' ', u'=', u'[', u']', u';', u'%', u'a')));
  return {units.begin(), units.end()};
}

SCHEDULE_OBJECT RandomPlainRecord() {
  SCHEDULE_OBJECT object;
  object.bstrName = RandomText();
  object.bstrDescription = RandomText();
  SCHEDULE_RULE& rule = object.stScheduleRules;
  rule.lStartTime = *PlainInstant();
  rule.lEndTime = *PlainInstant();
  if (*PlainFlag() != 0) rule.dwTimeDuration = *rc::gen::inRange<std::uint32_t>(1, 86401) * 1000;
  rule.bEffectiveDate = *PlainFlag();
  rule.lEffectiveDate = *PlainInstant();
  rule.bRestartInterval = *PlainFlag();
  rule.dwRestartInterval = *rc::gen::inRange<std::uint32_t>(1, 86401) * 1000;
  rule.bRepeatInterval = *PlainFlag();
  rule.dwRepeatInterval = *rc::gen::inRange<std::int32_t>(1, 60);
  rule.lAnchorDate = *PlainInstant();
  for (int i = 0; i < 3; ++i) rule.adwDaysOfMonth[*rc::gen::inRange<std::size_t>(0, 32)] = 1;
  if (*PlainFlag() != 0) rule.dwDaysOfWeek2[*rc::gen::inRange<std::size_t>(0, 7)] = 1;
  if (*PlainFlag() != 0) rule.dwDaysOfWeek3[*rc::gen::inRange<std::size_t>(0, 7)] = 1;
  const auto includes = *rc::gen::inRange<std::size_t>(0, 30);
  for (std::size_t i = 0; i < includes; ++i) rule.alIncludeDates[i] = *PlainInstant();
  const auto excludes = *rc::gen::inRange<std::size_t>(0, 30);
  for (std::size_t i = 0; i < excludes; ++i) rule.alExcludeDates[i] = *PlainInstant();
  return object;
}

// Everything that a schedule holds, as its memory form has it, and whether it is to be saved.
std::string Contents(zepISchedule& schedule) {
  void* found = nullptr;
  EXPECT_EQ(schedule.QueryInterface(IID_zepIPersistMemory, &found), 0);
  auto* const persist = static_cast<zepIPersistMemory*>(found);
  std::uint32_t size = 0;
  EXPECT_EQ(persist->GetSizeMax(&size), 0);
  std::string bytes(size, '\0');
  EXPECT_EQ(persist->Save(bytes.data(), 0, size), 0);
  persist->Release();
  zepByte dirty = 0;
  EXPECT_EQ(schedule.get_Dirty(&dirty), 0);
  ZepTime start = 0, end = 0;
  zepByte last = 0;
  const ZRESULT result = schedule.GetNextTimeWindow(0, 0, kNow, &start, &end, &last);
  std::ostringstream more;
  more << ' ' << int{dirty} << ' ' << result << ' ' << start << ' ' << end << ' ' << int{last};
  return bytes + more.str();
}

class PlainScheduleFile : public testing::Test {
 protected:
  void SetUp() override {
    m_file = m_folder + "/s.ini";
  }

  CZEPScheduleObj NewAdapter() const {
    zepISchedule2* schedule = nullptr;
    EXPECT_EQ(qx::CreateScheduleObject(&schedule), 0);
    CZEPScheduleObj adapter;
    adapter.m_pSchedule = schedule;
    adapter.m_IniFilePath = ZepFoundation::wcstring(platform::WideFromUtf8(m_file));
    return adapter;
  }
  std::string Saved(const SCHEDULE_OBJECT& record, bool intoTheOldFile = false) const {
    if (!intoTheOldFile) std::filesystem::remove(m_file);
    CZEPScheduleObj adapter = NewAdapter();
    (void)adapter.Validate_ScheduleRules(&record);
    EXPECT_EQ(adapter.SaveScheduleToFile(), 0u);
    adapter.m_pSchedule->Release();
    std::ifstream in(m_file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  // What the file gives through the bag; empty where that fails or is told about.
  std::string ThroughTheBag(const std::string& bytes) {
    std::ofstream(m_file, std::ios::binary) << bytes;
    CZEPScheduleObj adapter = NewAdapter();
    m_log.Clear();
    ZepFoundation::ServiceLogLevel = 4;  // whoever is to tell of a load goes through the bag
    EXPECT_TRUE(qx::IsLoadingTold());
    const Status status = adapter.LoadScheduleFromFile();
    ZepFoundation::ServiceLogLevel = 0;
    EXPECT_FALSE(qx::IsLoadingTold());
    const std::string contents = status == 0 && m_log.texts(3).empty() ? Contents(*adapter.m_pSchedule) : "";
    adapter.m_pSchedule->Release();
    return contents;
  }
  // What the bytes give; empty where they aren't plain.
  std::string FromTheBytes(const std::string& bytes) {
    const CZEPScheduleObj adapter = NewAdapter();
    m_log.Clear();
    const bool plain = qx::LoadPlainSchedule(*adapter.m_pSchedule, bytes);
    EXPECT_TRUE(m_log.lines().empty());
    const std::string contents = plain ? Contents(*adapter.m_pSchedule) : "";
    adapter.m_pSchedule->Release();
    return contents;
  }
  static SCHEDULE_OBJECT Daily() {
    SCHEDULE_OBJECT record;
    record.bstrName = u"daily";
    record.stScheduleRules.lStartTime = kNow + 3600;
    record.stScheduleRules.dwTimeDuration = 3600000;
    record.stScheduleRules.bRepeatInterval = 1;
    record.stScheduleRules.dwRepeatInterval = 1;
    record.stScheduleRules.alIncludeDates[0] = kNow + 86400;
    record.stScheduleRules.alExcludeDates[0] = kNow + 2 * 86400;
    record.stScheduleRules.alExcludeDates[1] = kNow + 3 * 86400;
    return record;
  }

  ZepFoundation::CapturedServiceLog m_log;
  platform::VirtualClock m_clock{kNow};
  platform::ScopedZone m_zone{"EST5EDT,M3.2.0,M11.1.0"};
  const platform::TemporaryFolder m_temporary{"plain"};
  const std::string m_folder = m_temporary.Path();
  std::string m_file;
};

TEST_F(PlainScheduleFile, IsTheWayOfALoadOfWhichNothingIsTold) {
  const std::string bytes = Saved(Daily());
  const platform::FaultPlan plan = platform::FaultPlan::FailCall(platform::Operation::kGetProfileInt, 1,
                                                                 platform::ERROR_ACCESS_DENIED, platform::kFromThenOn);
  CZEPScheduleObj adapter = NewAdapter();
  EXPECT_EQ(adapter.LoadScheduleFromFile(), 0u);
  EXPECT_EQ(Contents(*adapter.m_pSchedule), FromTheBytes(bytes));
  ZepFoundation::ServiceLogLevel = 4;
  EXPECT_EQ(adapter.LoadScheduleFromFile(), 0x80070005u);
  ZepFoundation::ServiceLogLevel = 0;
  EXPECT_TRUE(m_log.Has(
      1, "CZEPScheduleObj::LoadScheduleFromFile:Failed to load the ini file into propBag, hr : 80070005"));
  adapter.m_pSchedule->Release();
}

TEST_F(PlainScheduleFile, LoadsWhatASaveWrote) {
  std::size_t plain = 0;
  EXPECT_TRUE(rc::check("a saved schedule is the same from its bytes as through the bag", [&] {
    const std::string bytes = Saved(RandomPlainRecord());
    const std::string contents = FromTheBytes(bytes);
    RC_ASSERT(contents.empty() || contents == ThroughTheBag(bytes));
    plain += contents.empty() ? 0 : 1;
  }));
  EXPECT_GT(plain, 50u);  // all but those whose text begins or ends with blanks, or begins with a quote
}

TEST_F(PlainScheduleFile, IsPlainWithDatesAndWithoutAndWithAnyUsualText) {
  SCHEDULE_OBJECT none = Daily();
  none.stScheduleRules.alIncludeDates = {};
  none.stScheduleRules.alExcludeDates = {};
  SCHEDULE_OBJECT many = Daily();
  for (int i = 0; i < 60; ++i) many.stScheduleRules.alIncludeDates[i] = kNow + i * 86400;
  SCHEDULE_OBJECT text = Daily();
  text.bstrName = u"Nächtlich \u20AC \U0001F600 = 100 % [a];";
  text.bstrDescription = std::u16string(254, u'x');
  for (const SCHEDULE_OBJECT& record : {Daily(), none, many, text}) {
    const std::string bytes = Saved(record);
    EXPECT_FALSE(FromTheBytes(bytes).empty()) << bytes;
    EXPECT_EQ(FromTheBytes(bytes), ThroughTheBag(bytes)) << bytes;
  }
}

TEST_F(PlainScheduleFile, IsPlainAfterASecondSaveWithOtherDates) {
  (void)Saved(Daily());
  SCHEDULE_OBJECT fewer = Daily();
  fewer.stScheduleRules.alExcludeDates = {};
  const std::string bytes = Saved(fewer, true);
  EXPECT_FALSE(FromTheBytes(bytes).empty()) << bytes;
  EXPECT_EQ(FromTheBytes(bytes), ThroughTheBag(bytes));
}

TEST_F(PlainScheduleFile, LoadsNothingElseOfADamagedFile) {
  std::size_t plain = 0;
  EXPECT_TRUE(rc::check("what loads from changed bytes loads the same through the bag, without a line in the log", [&] {
    SCHEDULE_OBJECT record = RandomPlainRecord();
    if (*PlainFlag() != 0) record.bstrName = record.bstrDescription = u"plain";
    std::string bytes = Saved(record);
    const int changes = *rc::gen::inRange(1, 3);
    for (int i = 0; i < changes; ++i) {
      auto at = *rc::gen::inRange<std::size_t>(0, bytes.size());
      const char byte = *rc::gen::element('0', '9', '-', ' ', '=', '\r', '\n', '[', ']', ';', '"', '\0', 'T', '\xC3');
      switch (*rc::gen::inRange(0, 6)) {
        case 0:
          bytes[at] = byte;
          break;
        case 1:
          bytes.insert(at, 1, byte);
          break;
        case 2:
          bytes.erase(at, *rc::gen::inRange<std::size_t>(1, 30));
          break;
        case 3:  // something twice
          bytes.insert(at, bytes.substr(at, *rc::gen::inRange<std::size_t>(1, 60)));
          break;
        default:  // another number
          at = std::min(bytes.find_first_of("0123456789", at), bytes.size() - 1);
          bytes[at] = *rc::gen::element('0', '1', '5', '9');
      }
      if (bytes.empty()) bytes = "x";
    }
    const std::string contents = FromTheBytes(bytes);
    RC_ASSERT(contents.empty() || contents == ThroughTheBag(bytes));
    plain += contents.empty() ? 0 : 1;
  }));
  EXPECT_GT(plain, 10u);
}

struct Change {
  const char* from;
  const char* to;
};
// Its first occurrence, which is there.
std::string Changed(std::string text, const Change& change) {
  const std::size_t at = text.find(change.from);
  EXPECT_NE(at, std::string::npos) << change.from << text;
  return at == std::string::npos ? text : text.replace(at, std::string_view(change.from).size(), change.to);
}

// Numbers in every notation that the form allows, put into a saved file.
TEST_F(PlainScheduleFile, ReadsEachNumberAsTheBagDoes) {
  const Change changes[] = {
      {"Object Version=131122", "Object Version=7"},
      {"m_iRepeatInterval=1", "m_iRepeatInterval=9999999999"},
      {"m_iRepeatInterval=1", "m_iRepeatInterval=-3"},
      {"m_iRepeatInterval=1", "m_iRepeatInterval=0000000012"},
      {"m_TimeDuration=3600", "m_TimeDuration=4294967295"},
      {"m_TimeDuration=3600", "m_TimeDuration=-1"},
      {"m_StartTime=", "m_StartTime=-"},
      {"m_CustomBitSet=0", "m_CustomBitSet=4294967297"},
      {"m_bUseRepeatInterval=TRUE", "m_bUseRepeatInterval=FALSE"},
      {"Item01=0\r\nItem02=0", "Item01=257\r\nItem02=-1"},
      {"Include Dates]\r\nCount=1", "Include Dates]\r\nCount=01"},
  };
  const std::string saved = Saved(Daily());
  for (const Change& c : changes) {
    const std::string bytes = Changed(saved, c);
    EXPECT_FALSE(FromTheBytes(bytes).empty()) << c.to;
    EXPECT_EQ(FromTheBytes(bytes), ThroughTheBag(bytes)) << c.to;
  }
}

TEST_F(PlainScheduleFile, LeavesEveryOtherFormAlone) {
  const Change changes[] = {
      {"[General]\r\n", "; by hand\r\n[General]\r\n"},
      {"[General]\r\n", "[General]\n"},
      {"[General]", "[general]"},
      {"m_Name=daily", "m_Name= daily"},
      {"m_Name=daily", "m_Name=\"daily\""},
      {"m_Name=daily", "m_Name=daily "},
      {"m_Name=daily", "m_name=daily"},
      {"m_Name=daily\r\n", ""},
      {"m_Name=daily\r\n", "m_Name=daily\r\nm_Name=other\r\n"},
      {"m_Name=daily", "m_Name=da\tily"},
      {"m_iRepeatInterval=1", "m_iRepeatInterval=0x1"},
      {"m_iRepeatInterval=1", "m_iRepeatInterval=+1"},
      {"m_iRepeatInterval=1", "m_iRepeatInterval=1x"},
      {"m_iRepeatInterval=1", "m_iRepeatInterval="},
      {"m_iRepeatInterval=1", "m_iRepeatInterval=10000000000"},
      {"m_bUseRepeatInterval=TRUE", "m_bUseRepeatInterval=true"},
      {"Item05=0", "Item05=0\r\nItem06=0"},
      {"Item05=0\r\n", ""},
      {"[Specific Include Dates]\r\nCount=1", "[Specific Include Dates]\r\nCount=2"},
      {"[Specific Include Dates]\r\nCount=1", "[Specific Include Dates]\r\nCount=-1"},
      {"[Specific Exclude Dates]\r\nCount=2", "[Specific Exclude Dates]\r\nCount=1"},
      {"[Specific Exclude Dates]", "[Custom Map Data]\r\na=b\r\n[Specific Exclude Dates]"},
      {"m_DaysOfMonth=0", "Item99=1\nm_DaysOfMonth=4\r\nm_DaysOfMonth=0"},
  };
  const std::string saved = Saved(Daily());
  for (const Change& c : changes) {
    const std::string bytes = Changed(saved, c);
    EXPECT_EQ(FromTheBytes(bytes), "") << c.to;
  }
  for (std::size_t size = 0; size < saved.size(); ++size) EXPECT_EQ(FromTheBytes(saved.substr(0, size)), "") << size;
  EXPECT_EQ(FromTheBytes(saved + "x"), "");
  EXPECT_EQ(FromTheBytes(saved + "\r\n"), "");
}

}  // namespace
