#include "service/node_channel.h"

namespace qx {

Status INodeChannel::CreateScheduleOnNodes(ISchedulerService&, const SCHEDULE_OBJECT&, ScheduleGuid&, std::uint32_t,
                                           const NodeNames&, NodeResults&) {
  return kStatusNotSupported;
}

Status INodeChannel::DeleteScheduleOnNodes(ISchedulerService&, const ScheduleGuid&, std::uint32_t, const NodeNames&,
                                           NodeResults&) {
  return kStatusNotSupported;
}

Status INodeChannel::ModifyScheduleOnNodes(ISchedulerService&, const ScheduleGuid&, const SCHEDULE_OBJECT&,
                                           std::uint32_t, const NodeNames&, NodeResults&) {
  return kStatusNotSupported;
}

Status INodeChannel::PerformOperationOnNodes(ISchedulerService&, const BSTR&, std::uint32_t, const NodeNames&,
                                             NodeResults&) {
  return kStatusNotSupported;
}

}  // namespace qx
