// client/tests/calendar_samples.h: calendars that show everything a calendar can show.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "client/calendar.h"
#include "client/cli_offline.h"
#include "platform/testing/virtual_clock.h"

// When the samples are looked at.
inline constexpr std::int64_t kSampleNow = 1792584000;  // Wednesday 2026-10-21 14:00:00 +0200

class AtAFixedTime : public testing::Test {
 protected:
  platform::ScopedZone m_zone{"CET-1CEST,M3.5.0,M10.5.0/3"};
  platform::VirtualClock m_clock{kSampleNow};
};

// A name that would be markup, and more that a page must not take as it is.
inline constexpr char kHostileName[] = "<script>alert('x')</script> & \"quarter\" \x1b[31m \xff r\xc3\xa9sum\xc3\xa9";

inline std::vector<std::pair<std::string, std::string>> SampleSchedules() {
  return {{"nightly backup",
           "[window]\nstart = \"22:00\"\nduration = \"4h\"\nrestart = \"1h\"\n"
           "[days]\nevery = [\"mon\",\"tue\",\"wed\",\"thu\",\"fri\"]\nexclude = [2026-10-30, 2026-12-25]\n"},
          {kHostileName,
           "[window]\nstart = \"02:30\"\nduration = \"30m\"\n"
           "[days]\nlast = [\"sun\"]\nof_month = [1, \"last\"]\ninclude = [2026-10-28]\n"},
          {"poll",
           "[window]\nstart = \"08:00\"\nduration = \"10h\"\nrestart = \"10m\"\n"
           "[days]\nrepeat = { every = 3, anchor = 2026-01-02 }\n"},
          {"farewell", "[window]\nstart = \"12:15\"\nduration = \"1h\"\n[days]\ninclude = [2026-10-08, 2026-10-14]\n"}};
}

// In the zone in force.
inline qx::Calendar SampleCalendar(qx::CalendarSpan span, std::int64_t now, std::size_t copies = 1,
                                   std::size_t kept = 40) {
  qx::CalendarBuilder builder(span, now, kept);
  for (const auto& [name, toml] : SampleSchedules()) {
    const qx::CheckedFile checked = qx::CheckText("[job]\nwrapper = \"/bin/true\"\n" + toml, false);
    for (std::size_t i = 0; i < copies; ++i) EXPECT_EQ(builder.Add(name, checked.record), kStatusOk) << name;
  }
  return builder.Finish();
}
