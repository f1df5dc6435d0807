// client/rule_object.h: a schedule object of the rules library, held by one reference.
//
// Threads: one object on one thread at a time.
#pragma once

#include <memory>

#include "common/zepSchedIUnknown.h"

namespace qx {

struct ReleaseReference {
  void operator()(zepISchedule2* schedule) const { schedule->Release(); }
};
using RuleObject = std::unique_ptr<zepISchedule2, ReleaseReference>;

// A new object from the factory: every day of the week, from 00:00:00 for almost 24 hours. Null when it can't be made.
[[nodiscard]] RuleObject NewRuleObject();

}  // namespace qx
