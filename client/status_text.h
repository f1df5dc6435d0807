// client/status_text.h: what a status number says, and what to do about it.
//
// Threads: every function may be called from any thread.
#pragma once

#include <string>

#include "interface/records.h"

namespace qx {

struct StatusText {  // a status in words
  std::string sentence;  // never empty
  std::string hint;      // what a user can do; may be empty
};

// The sentence of a status: 0, 1, the service's own codes, failures of the rules library in the form 0x8000xxxx, and
// failed system calls in the form 0x8007xxxx.
[[nodiscard]] StatusText DescribeStatus(Status status);

// Whether a status is a failure of the rules library.
[[nodiscard]] bool IsOfRulesLibrary(Status status);

// "0x8004020C The Restart interval exceeds the size of the time-window."
[[nodiscard]] std::string FormatStatus(Status status);

}  // namespace qx
