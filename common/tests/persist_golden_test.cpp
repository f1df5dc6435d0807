// The byte form in each of its versions, from annotated files that were typed from the table of fields: every field that
// the interface gives out is compared, and the present version's bytes with what a save writes.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Schedule.h"
#include "common/tests/schedule_fixture.h"
#include "foundation/include/zfcguid.h"
#include "platform/guid.h"
#include "platform/text.h"
#include "tests/test_paths.h"

namespace {

using qx::testing::Shown;

// The bytes of an annotated file: pairs of hex digits; "#" begins a comment that goes to the end of the line.
std::string BytesOf(const std::string& name) {
  const std::string path = test_paths::Data() + "/formats/" + name;
  std::ifstream in(path);
  if (!in) throw std::runtime_error("no file " + path);
  std::string digits;
  for (std::string line; std::getline(in, line);) {
    for (const char c : line.substr(0, line.find('#'))) {
      if (std::isspace(static_cast<unsigned char>(c))) continue;
      if (!std::isxdigit(static_cast<unsigned char>(c))) throw std::runtime_error(path + ": not a hex digit: " + c);
      digits += c;
    }
  }
  if (digits.empty() || digits.size() % 2 != 0) throw std::runtime_error(path + ": no whole bytes");
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

class Stream final : public zepIStream {
 public:
  explicit Stream(std::string bytes = "") : m_bytes(std::move(bytes)) {}
  ZRESULT QueryInterface(const ZepGuid&, void** out) override { return *out = nullptr, ZEP_E_NOINTERFACE; }
  std::uint32_t AddRef() override { return 1; }
  std::uint32_t Release() override { return 1; }
  ZRESULT Read(void* buffer, std::uint32_t size, std::uint32_t* read) override {
    *read = static_cast<std::uint32_t>(m_bytes.copy(static_cast<char*>(buffer), size));
    return ZEP_S_OK;
  }
  ZRESULT Write(const void* buffer, std::uint32_t size, std::uint32_t* written) override {
    m_bytes.assign(static_cast<const char*>(buffer), *written = size);
    return ZEP_S_OK;
  }
  std::string m_bytes;
};

std::string Utf8(char16_t* owned) {
  std::string text = platform::Utf8FromWide(owned);
  ZepStringFree(owned);
  return text;
}

// Every field that the interface gives out, a line each.
std::string Told(CSchedule& s) {
  std::ostringstream out;
  ZepFoundation::CGUID id;
  s.get_ScheduleID(&id);
  out << "id " << platform::Utf8FromWide(id.GUIDAsString(0).view()) << '\n';
  char16_t* text = nullptr;
  s.get_Name(&text);
  out << "name " << Utf8(text) << '\n';
  s.get_Description(&text);
  out << "description " << Utf8(text) << '\n';
  ZepTime time = 0;
  std::uint32_t number = 0;
  zepByte flag = 9;
  const auto timeOfDay = [](ZepTime at) { return Shown(at).substr(11); };
  const auto date = [](ZepTime at) { return Shown(at).substr(0, 10); };
  s.get_StartTime(&time), out << "start " << timeOfDay(time) << '\n';
  s.get_EndTime(&time), out << "end " << timeOfDay(time) << '\n';
  s.get_TimeDuration(&number), out << "duration " << number << '\n';
  s.get_UseEffectiveDate(&flag), out << "effective " << int{flag};
  s.get_EffectiveDate(&time), out << ' ' << date(time) << '\n';
  s.get_UseRestartInterval(&flag), out << "restart " << int{flag};
  s.get_RestartInterval(&number), out << ' ' << number << '\n';
  std::int32_t days = 0;
  s.get_UseRepeatInterval(&flag), out << "repeat " << int{flag};
  s.get_RepeatInterval(&days), out << ' ' << days;
  s.get_AnchorDate(&time), out << ' ' << date(time) << '\n';
  for (const std::uint32_t type : {ZEP_SPECIFIC_INCLUDE, ZEP_SPECIFIC_EXCLUDE}) {
    out << (type == ZEP_SPECIFIC_INCLUDE ? "include" : "exclude");
    s.GetSpecificDatesCount(type, &number);
    for (std::uint32_t i = 0; i < number; ++i) s.GetSpecificDate(type, i, &time), out << ' ' << date(time);
    out << '\n';
  }
  out << "month";
  for (std::uint16_t i = 0; i < 32; ++i) {
    std::uint16_t set = 0;
    if (s.GetDayOfMonth(i, &set), set != 0) out << ' ' << i;
  }
  out << "\nweek";
  for (zepByte week = 0; week < 5; ++week) {
    for (zepByte day = 0; day < 7; ++day) {
      if (s.GetDayOfWeek(day, week, &flag), flag != 0) out << ' ' << int{week} << ':' << int{day};
    }
  }
  s.get_CustomBitSet(&number), out << "\nbits " << std::hex << number << std::dec << '\n';
  s.GetCustomStringCount(&number), out << "strings " << number;
  for (const char16_t* key : {u"", u"a", u"colour"}) {
    if (number == 0) break;
    s.GetCustomString(key, &text), out << " [" << Utf8(text) << ']';
  }
  s.get_Dirty(&flag), out << "\ndirty " << int{flag} << '\n';
  return out.str();
}

struct Version {
  const char* file;
  const char* told;
};

constexpr Version kVersions[] = {
    {"schedule_20032.hex",
     "id {00112233-4455-6677-8899-AABBCCDDEEFF}\nname Gr\xC3\xBC\xC3\x9F" "e\ndescription all volumes\n"
     "start 22:00:00\nend 02:00:00\nduration 14400000\neffective 1 2024-02-01\nrestart 1 3600000\n"
     "repeat 1 14 2024-01-01\ninclude 2024-12-27 2024-12-28\nexclude 2024-12-25\nmonth 0 31\nweek 0:1 4:5\n"
     "bits 80000001\nstrings 2 [] [1] [blue]\ndirty 0\n"},
    {"schedule_2000a.hex",
     "id {12345678-9ABC-DEF0-0123-456789ABCDEF}\nname weekly\ndescription \n"
     "start 08:30:00\nend 17:00:00\nduration 30600000\neffective 0 2025-01-06\nrestart 1 900000\n"
     "repeat 0 9999 2000-02-29\ninclude 2026-03-31\nexclude 2020-12-24 2037-12-31\nmonth 14 30\nweek 1:3 3:0 3:6\n"
     "bits ffff\nstrings 1 [x] [] []\ndirty 0\n"},
    {"schedule_20000.hex",
     "id {A0A1A2A3-A4A5-A6A7-A8A9-AAABACADAEAF}\nname \ndescription \n"
     "start 00:00:00\nend 23:59:59\nduration 86399059\neffective 0 2020-02-29\nrestart 0 0\n"
     "repeat 0 2 2019-05-06\ninclude\nexclude\nmonth\n"
     "week 0:0 0:1 0:2 0:3 0:4 0:5 0:6 1:0 1:1 1:2 1:3 1:4 1:5 1:6 2:0 2:1 2:2 2:3 2:4 2:5 2:6 "
     "3:0 3:1 3:2 3:3 3:4 3:5 3:6 4:0 4:1 4:2 4:3 4:4 4:5 4:6\n"
     "bits 0\nstrings 0\ndirty 0\n"},
    {"schedule_10100.hex",
     "id {0F0E0D0C-0B0A-0908-0706-050403020100}\nname night run\ndescription old\n"
     "start 06:00:00\nend 07:00:00\nduration 3600000\neffective 1 1999-09-09\nrestart 1 1500\n"
     "repeat 0 5 2000-01-03\ninclude\nexclude 2001-04-16\nmonth 1\nweek 0:0 2:1 4:6\n"
     "bits 0\nstrings 0\ndirty 0\n"},
};

class golden_schedule_bytes : public ::testing::Test {
 protected:
  platform::VirtualClock m_clock{1718449200};  // 15 June 2024
  platform::ScopedZone m_zone{"UTC0"};
};

TEST_F(golden_schedule_bytes, EachVersionLoadsFromAStreamFieldByField) {
  for (const Version& version : kVersions) {
    Stream stream(BytesOf(version.file));
    CSchedule schedule;
    EXPECT_EQ(schedule.Load(&stream), ZEP_S_OK) << version.file;
    EXPECT_EQ(Told(schedule), version.told) << version.file;
  }
}

TEST_F(golden_schedule_bytes, EachVersionLoadsFromMemoryFieldByField) {
  for (const Version& version : kVersions) {
    std::string block = BytesOf(version.file);
    CSchedule schedule;
    EXPECT_EQ(schedule.Load(block.data(), static_cast<std::uint32_t>(block.size())), ZEP_S_OK) << version.file;
    EXPECT_EQ(Told(schedule), version.told) << version.file;
  }
}

TEST_F(golden_schedule_bytes, ASaveWritesThePresentVersion) {
  const std::string expected = BytesOf("schedule_20032.hex");
  std::string loaded = expected;
  CSchedule schedule;
  ASSERT_EQ(schedule.Load(loaded.data(), static_cast<std::uint32_t>(loaded.size())), ZEP_S_OK);
  Stream stream;
  ASSERT_EQ(schedule.Save(&stream, 1), ZEP_S_OK);
  EXPECT_EQ(stream.m_bytes, expected);
  std::string block(expected.size(), '\0');
  ASSERT_EQ(schedule.Save(block.data(), 1, static_cast<std::uint32_t>(block.size())), ZEP_S_OK);
  EXPECT_EQ(block, expected);
}

TEST_F(golden_schedule_bytes, AnOlderSecondGenerationDiffersByItsVersionAlone) {
  for (const char* file : {"schedule_20000.hex", "schedule_2000a.hex"}) {
    std::string bytes = BytesOf(file);
    CSchedule schedule;
    ASSERT_EQ(schedule.Load(bytes.data(), static_cast<std::uint32_t>(bytes.size())), ZEP_S_OK);
    Stream stream;
    ASSERT_EQ(schedule.Save(&stream, 1), ZEP_S_OK);
    bytes.replace(16, 4, std::string("\x00\x02\x00\x32", 4));
    EXPECT_EQ(stream.m_bytes, bytes) << file;
  }
}

}  // namespace
