#include "platform/event_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace platform {
namespace {

using testing::ElementsAre;

TEST(EventLog, HandsItsEventsToTheInstalledSink) {
  std::vector<LoggedEvent> seen;
  InstallEventSink([&](const LoggedEvent& event) { seen.push_back(event); });
  ReportEvent(u"Service", EventKindOf(0x68110002), 0x68110002, u"");
  ReportEvent(u"S\u00e4rvice", EventKindOf(0xE8110001), 0xE8110001, std::u16string_view(u"why\0not", 7));
  InstallEventSink(nullptr);
  EXPECT_THAT(seen, ElementsAre(LoggedEvent{"Service", EventKind::kInformation, 0x68110002, ""},
                                LoggedEvent{"S\xC3\xA4rvice", EventKind::kError, 0xE8110001, "why"}));
}

TEST(EventLog, WritesTheNumberInFrontOfTheText) {
  EXPECT_EQ(EventLine({"s", EventKind::kInformation, 0x68110002, ""}), "event 0x68110002");
  EXPECT_EQ(EventLine({"s", EventKind::kError, 0x1, "50% done %s"}), "event 0x00000001: 50% done %s");
}

TEST(EventLog, ReadsTheKindFromTheTopBits) {
  EXPECT_EQ(EventKindOf(0x28110002), EventKind::kInformation);
  EXPECT_EQ(EventKindOf(0xA8110002), EventKind::kWarning);
  EXPECT_EQ(EventKindOf(0xE8110003), EventKind::kError);
}

}  // namespace
}  // namespace platform
