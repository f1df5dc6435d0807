// service/scheduler_service.h: the object behind ISchedulerService, one in the process.
//
// Each operation touches three stores that no transaction binds together: the .ini file, the registry key and the job
// list. The order in which it does so, and undoes it, is what the source file tells.
// Threads: called on the apartment's thread only, one call at a time; Notify_... reach it through the apartment's
// queue.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "interface/ISchedulerService.h"
#include "service/event_sinks.h"
#include "service/node_channel.h"

class CSchedulerService : public ISchedulerService, public CProxyISchedulerServiceEvents {
 public:
  // Who carries operations to other nodes; borrowed for the life of the object, null for nobody. Before the first call.
  void SetNodes(qx::INodeChannel* nodes) { m_nodes = nodes; }

  // The rules are saved and the key written before the event goes out: status 0 means that the schedule survives a kill
  // and a power cut. Deliberate: 0 also when the memory for its directory is refused, with nothing created.
  Status CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) override;
  Status DeleteSchedule(const ScheduleGuid& id) override;
  // New job, new rules; application, object and task code must be the old ones. Status 0 with Schedule_Modify: the
  // change survives a kill and a power cut.
  // Deliberate: 0 without the event: the change was refused or failed, and the old schedule is back.
  Status ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) override;
  Status ListSchedule(std::uint32_t& count, ScheduleList& schedules) override;
  Status GetScheduleInfo(const ScheduleGuid& id, ScheduleInfo& schedule) override;
  Status Refresh() override;
  Status Notify_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) override;
  Status Notify_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                  const std::vector<std::int32_t>& nextTimeWindows) override;
  Status UpdateList(std::int32_t type, const BSTR& value, std::uint32_t& count,
                    std::vector<std::u16string>& ids) override;

  // By the channel of nodes; without one they change nothing and return kStatusNotSupported.
  Status CreateScheduleOnNodes(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id, std::uint32_t nodeCount,
                               const NodeNames& nodeNames, NodeResults& results) override;
  Status DeleteScheduleOnNodes(const ScheduleGuid& id, std::uint32_t nodeCount, const NodeNames& nodeNames,
                               NodeResults& results) override;
  Status ModifyScheduleOnNodes(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, std::uint32_t nodeCount,
                               const NodeNames& nodeNames, NodeResults& results) override;
  Status PerformOperationOnNodes(const BSTR& data, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                 NodeResults& results) override;

 private:
  qx::INodeChannel* m_nodes = nullptr;
};
