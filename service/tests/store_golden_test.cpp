// The values of a schedule's key, against a file typed by hand from the layout.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/text.h"
#include "service/schedule_store.h"
#include "service/tests/service_fixture.h"
#include "tests/test_paths.h"

namespace qx::testing {
namespace {

// One line a value: name, type, data (numbers in decimal, text as it is with its terminator as "\0").
std::string KeyText(const ScheduleGuid& id) {
  platform::RegistryKey key;
  EXPECT_EQ(platform::OpenKey(platform::Hive::kLocalMachine,
                              std::u16string(kSchedulesKey) + u"\\" + platform::GuidText(id), platform::KEY_READ, key),
            0u);
  std::string text;
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  for (std::uint32_t i = 0; platform::EnumValue(key, i, name, type, data) == 0; ++i) {
    text += platform::Utf8FromWide(name) + "\t";
    if (type == platform::REG_DWORD) {
      std::uint32_t number = 0;
      for (std::size_t b = data.size(); b-- > 0;) number = number << 8 | std::to_integer<std::uint32_t>(data[b]);
      text += "REG_DWORD\t" + std::to_string(number);
    } else {
      std::u16string value;
      for (std::size_t b = 0; b + 1 < data.size(); b += 2) {
        value += static_cast<char16_t>(std::to_integer<int>(data[b]) | std::to_integer<int>(data[b + 1]) << 8);
      }
      text += (type == platform::REG_SZ ? "REG_SZ\t" : "?\t");
      for (const char16_t c : value) text += c == u'\0' ? "\\0" : platform::Utf8FromWide(std::u16string(1, c));
    }
    text += "\n";
  }
  return text;
}

class ScheduleKey : public ServiceFixture {};

TEST_F(ScheduleKey, HoldsTheValuesOfTheLayout) {
  m_clock.SetWall(1714665600, 0);
  SCHEDULE_OBJECT schedule;
  schedule.bstrName = u"not in the registry";
  schedule.bstrApplication = u"snapshot";
  schedule.bstrObjectID = u"vol-17";
  schedule.dwTaskOpCode = 4000000000u;
  schedule.bstrWrapperBinaryName = u"/usr/lib/qx/snapwrap";
  schedule.bstrXMLFilePathName = u"/srv/qx/vol-17.xml";
  schedule.bstrParameters = u"-v \u00fc";
  schedule.bstrPreScript = u"/srv/qx/quiesce";
  schedule.bUseGUID = 7;  // as it was passed
  const ScheduleGuid id = platform::GuidConstant(u"{0E9D3A52-6C41-4F7B-9A08-1D2C3B4A5968}");
  ASSERT_EQ(WriteRegistry(schedule, id), kStatusOk);

  std::ifstream file(test_paths::Data() + "/formats/schedule_key.txt", std::ios::binary);
  std::stringstream golden;
  golden << file.rdbuf();
  ASSERT_FALSE(golden.str().empty());
  EXPECT_EQ(KeyText(id), golden.str());
}

}  // namespace
}  // namespace qx::testing
