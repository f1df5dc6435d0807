// foundation/tests/system_page.h: another system code page for a while.
#pragma once

#include <gtest/gtest.h>

#include "platform/text.h"

namespace ZepFoundation {

// UTF-8 behind it.
class SystemPage {
 public:
  explicit SystemPage(platform::CodePage page) { EXPECT_EQ(platform::SetSystemCodePage(page), 0u); }
  ~SystemPage() { EXPECT_EQ(platform::SetSystemCodePage(platform::kCodePageUtf8), 0u); }
  SystemPage(const SystemPage&) = delete;
  SystemPage& operator=(const SystemPage&) = delete;
};

}  // namespace ZepFoundation
