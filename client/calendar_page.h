// client/calendar_page.h: a calendar as one HTML page that needs nothing beside itself.
//
// The page loads no font, image or script and runs none; a policy in its head forbids both. It is well-formed XML
// behind its first line, the document type. Light or dark as the reader's system is. Each day can be pointed at,
// touched and reached with the Tab key, and tells then which windows it has and why. Threads: every function from any
// thread.
#pragma once

#include <string>
#include <string_view>

#include "client/calendar.h"

namespace qx {

// Text for the content and the attributes of an element: markup escaped; control characters, and bytes that aren't
// UTF-8, as U+FFFD.
[[nodiscard]] std::string HtmlText(std::string_view text);

[[nodiscard]] std::string CalendarPage(const Calendar& calendar);

}  // namespace qx
