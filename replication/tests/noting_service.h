// The local step of an operation on several nodes: notes what it was asked and answers what it was told to.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "interface/ISchedulerService.h"
#include "platform/guid.h"

namespace qx::testing {

class NotingService : public ISchedulerService {
 public:
  Status CreateSchedule(const SCHEDULE_OBJECT&, ScheduleGuid& id) override {
    id = platform::GuidConstant(u"{11111111-2222-3333-4444-555555555555}");
    return Note("create");
  }
  Status DeleteSchedule(const ScheduleGuid&) override { return Note("delete"); }
  Status ModifySchedule(const ScheduleGuid&, const SCHEDULE_OBJECT&) override { return Note("modify"); }
  Status ListSchedule(std::uint32_t&, ScheduleList&) override { return 0; }
  Status GetScheduleInfo(const ScheduleGuid&, ScheduleInfo&) override { return 0; }
  Status CreateScheduleOnNodes(const SCHEDULE_OBJECT&, ScheduleGuid&, std::uint32_t, const NodeNames&,
                               NodeResults&) override {
    return 0;
  }
  Status DeleteScheduleOnNodes(const ScheduleGuid&, std::uint32_t, const NodeNames&, NodeResults&) override {
    return 0;
  }
  Status ModifyScheduleOnNodes(const ScheduleGuid&, const SCHEDULE_OBJECT&, std::uint32_t, const NodeNames&,
                               NodeResults&) override {
    return 0;
  }
  Status Refresh() override { return 0; }
  Status Notify_NextTimeWindow_Modify(const ScheduleGuid&, std::int32_t) override { return 0; }
  Status Notify_SystemTime_Change(std::int32_t, const std::vector<std::u16string>&,
                                  const std::vector<std::int32_t>&) override {
    return 0;
  }
  Status UpdateList(std::int32_t, const BSTR&, std::uint32_t&, std::vector<std::u16string>&) override { return 0; }
  Status PerformOperationOnNodes(const BSTR&, std::uint32_t, const NodeNames&, NodeResults&) override { return 0; }

  Status Note(const char* what) {
    calls.push_back(what);
    if (onCall) onCall();
    return answer;
  }
  std::vector<std::string> calls;
  std::function<void()> onCall;
  Status answer = 0;
};

}  // namespace qx::testing
