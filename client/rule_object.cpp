#include "client/rule_object.h"

#include "common/zep_factory.h"

namespace qx {

RuleObject NewRuleObject() {
  zepISchedule2* schedule = nullptr;
  if (CreateScheduleObject(&schedule) != ZEP_S_OK) return nullptr;
  return RuleObject(schedule);
}

}  // namespace qx
