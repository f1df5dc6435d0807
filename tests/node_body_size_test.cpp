// The client's count of a body's bytes against the body that the service sends.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "client/cli_nodes.h"
#include "platform/text.h"
#include "replication/message_body.h"
#include "replication/wire.h"

namespace {

TEST(NodeBodySize, IsTheLengthOfTheBodyThatIsSent) {
  SCHEDULE_OBJECT schedule;
  const ScheduleGuid id{};
  for (const std::size_t length : {0u, 1u, 4000u}) {
    schedule.bstrApplication = u"caf\u00e9\U0001F600";
    schedule.bstrParameters = std::u16string(length, u'\u20ac');
    schedule.bstrPostScript = u"post";
    schedule.dwTaskOpCode = static_cast<std::uint32_t>(length) * 1000003;
    schedule.bUseGUID = length != 0;
    std::u16string xml;
    EXPECT_EQ(qx::NodeBodySize(schedule), qx::CreateXMLString(schedule, id, qx::MSG_MODIFY, xml));
    xml.clear();
    EXPECT_EQ(qx::NodeBodySize(std::u16string_view(*schedule.bstrParameters)),
              qx::CreateXMLString(std::u16string_view(*schedule.bstrParameters), qx::MSG_PERFORM, xml));
  }
}

// What a node reads of a value that another one sends it; nothing where it refuses the operation.
std::optional<std::u16string> Carried(const std::u16string& value) {
  SCHEDULE_OBJECT schedule;
  schedule.bstrParameters = value;
  std::u16string xml;
  EXPECT_NE(qx::CreateXMLString(schedule, ScheduleGuid{}, qx::MSG_MODIFY, xml), 0u);
  SCHEDULE_OBJECT read;
  BSTR id;
  std::uint32_t type = 0;
  if (qx::ParseXMLContent(xml.c_str(), read, &id, type) != 0 || !id) return std::nullopt;
  return read.bstrParameters;
}

TEST(WhatCantBeCarried, IsWhatAnotherNodeRefusesOrReadsAsAnotherTextAndNothingElse) {
  std::vector<std::u16string> values = {u"",     u" ",     u"  x  ",   u"\t",         u"a]]>b",
                                        u"a]]b", u"a]>b", u"a&amp;b", u"a<!-- -->b", u"\U0001F600"};
  // No client can send a line end or a noncharacter.
  for (char32_t c = 1; c < 0xFFFE; ++c) {
    const bool isSent = c != u'\n' && c != u'\r' && (c < 0xD800 || c > 0xDFFF) && (c < 0xFDD0 || c > 0xFDEF);
    if (!isSent || (c > 0x2100 && c % 97 != 0)) continue;
    const std::u16string one(1, static_cast<char16_t>(c));
    values.insert(values.end(), {one, u"a" + one + u"b"});
  }
  for (const std::u16string& value : values) {
    const std::string text = platform::Utf8FromWide(value);
    EXPECT_EQ(qx::WhatCantBeCarried(value).empty(), Carried(value) == value) << text;
  }
}

}  // namespace
