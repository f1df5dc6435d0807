// The bytes that a fixed sequence of properties leaves, against a file typed by hand.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/ini_property_bag.h"
#include "platform/profile.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"
#include "tests/test_paths.h"

namespace {

std::string Contents(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

PropertyValue Text(std::string_view text) {
  PropertyValue value;
  value.SetText(text);
  return value;
}

PropertyValue Dates(std::vector<std::int64_t> dates) {
  PropertyValue value;
  value.SetDates(dates);
  return value;
}

// A schedule's properties in the order in which it saves itself.
void SaveAll(const std::u16string& path) {
  CIniFilePropertyBag bag;
  bag.SetFileName(path.c_str());
  const auto write = [&](const char16_t* name, PropertyValue value) { EXPECT_EQ(bag.Write(name, &value), 0); };
  PropertyValue days;
  days.SetBytes(std::vector<std::uint8_t>{3, 0, 127, 0, 128});
  PropertyValue map;
  map.SetStrings(std::vector<std::string>{"colour", "blue", "owner", "operations"});
  write(u"Object Type", Text("{C2EDA523-69C6-11D2-8A7C-0000C0B839E5}"));
  write(u"Object Version", PropertyValue(kTagUInt32, 0x20032));
  write(u"m_ScheduleID", Text("{0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0}"));
  write(u"m_Name", Text("Nightly \"full\" backup; caf\xC3\xA9"));
  write(u"m_Description", Text(""));
  write(u"m_StartTime", PropertyValue(kTagTime, 1714557600));
  write(u"m_EndTime", PropertyValue(kTagTime, 1714561200));
  write(u"m_TimeDuration", PropertyValue(kTagTimeSpan, 3600));
  write(u"m_bUseEffectiveDate", PropertyValue(kTagBool, 1));
  write(u"m_dtEffectiveDate", PropertyValue(kTagDate, 1714514400));
  write(u"m_bUseRestartInterval", PropertyValue(kTagBool, 0));
  write(u"m_RestartInterval", PropertyValue(kTagTimeSpan, 900));
  write(u"m_bUseRepeatInterval", PropertyValue(kTagBool, 1));
  write(u"m_iRepeatInterval", PropertyValue(kTagInt32, 2));
  write(u"m_AnchorDate", PropertyValue(kTagDate, -1));
  write(u"m_SpecificIncludeDateSet", Dates({1715810400, 1715896800, 1715983200}));
  write(u"m_SpecificExcludeDateSet", Dates({1717200000}));  // the same keys: the first include date gives way
  write(u"m_DaysOfMonth", PropertyValue(kTagBits32, 0x80000001));
  write(u"m_DayOfWeekList", std::move(days));
  write(u"m_CustomBitSet", PropertyValue(kTagBits32, 0xFFFFFFFF));
  write(u"m_CustomStringMap", std::move(map));
}

class golden_ini : public testing::TestWithParam<bool> {
 protected:
  const platform::TemporaryFolder m_temporary{"ini_golden"};
  const std::string m_directory = m_temporary.Path();
};

TEST_P(golden_ini, IsWrittenByteByByteAsTheFormatSays) {
  const std::string expected = Contents(test_paths::Data() + "/formats/schedule.ini");
  ASSERT_FALSE(expected.empty());
  const std::string file = m_directory + "/schedule.ini";
  const std::u16string path = platform::WideFromUtf8(file);
  for (int save = 0; save < 2; ++save) {  // a second save finds every key in its place
    if (GetParam()) {
      platform::ProfileBatch batch(path, platform::ProfileBatch::kSave);
      SaveAll(path);
      EXPECT_EQ(batch.Commit(), platform::ERROR_SUCCESS);
    } else {
      SaveAll(path);
    }
    EXPECT_EQ(Contents(file), expected);
  }
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutABatch, golden_ini, testing::Bool());

}  // namespace
