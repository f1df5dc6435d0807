// The client's count of a body's bytes against the body that the service sends.
#include <gtest/gtest.h>

#include "client/cli_nodes.h"
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

}  // namespace
