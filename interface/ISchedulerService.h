// interface/ISchedulerService.h: what clients see of the service, and what they hear from it.
//
// Both classes are implemented by the service's object and by the client library, so that a program is written the same
// way inside the process and outside it. Methods stand in slot order.
// Threads: the service's object is called on its apartment's thread only, one call at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "interface/records.h"
#include "platform/automation.h"

// Arrays of records; an empty object stands for no array.
using ScheduleList = platform::RecordArray<SCHEDULE_OBJECT_EX>;
using ScheduleInfo = platform::RecordArray<SCHEDULE_OBJECT>;
using NodeNames = std::vector<std::u16string>;
using NodeResults = std::vector<std::int32_t>;

// Results of subscribing to the events (CONNECT_E_NOCONNECTION and CONNECT_E_CANNOTCONNECT of olectl.h).
inline constexpr Status kStatusNoSuchSubscription = 0x80040200;  // a cookie that names nobody
inline constexpr Status kStatusNoSink = 0x80040202;              // a null sink

class ISchedulerService {  // operations on schedules
 public:
  virtual ~ISchedulerService() = default;

  // Creates a schedule. `id` receives the new ID, also when a later step fails.
  //   returns  0; 1: no wrapper or a failed launch for bRunNow; kStatusNoDirectory; kStatusNoRunDay and the other codes
  //            of rules; kStatusBackdated; kStatusRegistryWrite; 0x8007xxxx of a failed save
  virtual Status CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) = 0;
  //   returns  0; kStatusNotFoundForDelete; kStatusSchedulesKey; kStatusNoSuchKey
  virtual Status DeleteSchedule(const ScheduleGuid& id) = 0;
  // Deliberate: a modification that failed late and was rolled back returns 0; only the missing event tells.
  virtual Status ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) = 0;
  // All schedules of the registry, also those without a further window. With none, `schedules` stays untouched.
  //   returns  0; kStatusList
  virtual Status ListSchedule(std::uint32_t& count, ScheduleList& schedules) = 0;
  // One schedule's record in an array of one element.
  //   returns  0; kStatusRegistryRead; 1: no .ini file or failed allocation
  virtual Status GetScheduleInfo(const ScheduleGuid& id, ScheduleInfo& schedule) = 0;
  // The same here, and when that worked on the other nodes, one after the other. There is no transaction.
  //   nodeCount  entries of names and results; one name, "localhost", stands for this node
  //   results    in: as many entries; out: 0 for a node that did it, 1 for one that never answered, else its own status
  //   returns    0; 1: the local step or one with a node failed; 0x80040211: no nodes; 0x80040212: no "localhost"
  virtual Status CreateScheduleOnNodes(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id, std::uint32_t nodeCount,
                                       const NodeNames& nodeNames, NodeResults& results) = 0;
  // As CreateScheduleOnNodes().
  virtual Status DeleteScheduleOnNodes(const ScheduleGuid& id, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                       NodeResults& results) = 0;
  // As CreateScheduleOnNodes().
  virtual Status ModifyScheduleOnNodes(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, std::uint32_t nodeCount,
                                       const NodeNames& nodeNames, NodeResults& results) = 0;
  // Has the service read the registry again. Always 0.
  virtual Status Refresh() = 0;
  // Raises the event of that name. The scheduler's own threads tell the service so.
  virtual Status Notify_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) = 0;
  // Raises the event of that name.
  virtual Status Notify_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                          const std::vector<std::int32_t>& nextTimeWindows) = 0;
  // Only logs the request; both outs stay untouched. 0, or 1 for a wrong parameter type.
  virtual Status UpdateList(std::int32_t type, const BSTR& value, std::uint32_t& count,
                            std::vector<std::u16string>& ids) = 0;
  // Has each node but this one run a command line. Nodes and results as in CreateScheduleOnNodes().
  virtual Status PerformOperationOnNodes(const BSTR& data, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                         NodeResults& results) = 0;
};

class ISchedulerServiceEvents {  // what a subscribed client hears
 public:
  virtual ~ISchedulerServiceEvents() = default;
  // A schedule was created.
  virtual void Schedule_Add(const ScheduleGuid& id) = 0;
  // It was changed.
  virtual void Schedule_Modify(const ScheduleGuid& id) = 0;
  // It was deleted.
  virtual void Schedule_Delete(const ScheduleGuid& id) = 0;
  // A job was launched; its new window, negative when it has ended.
  virtual void NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) = 0;
  // All windows were computed anew; a negative one: the schedule has left the list.
  virtual void SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                 const std::vector<std::int32_t>& nextTimeWindows) = 0;
};
