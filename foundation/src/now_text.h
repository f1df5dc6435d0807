// foundation/src/now_text.h: the present local time as both logs show it. Threads: any.
#pragma once

#include <string>

namespace ZepFoundation::detail {

// "Thu Jan  1 00:00:00 1970", as asctime gives it, without the newline.
[[nodiscard]] std::string NowText();

}  // namespace ZepFoundation::detail
