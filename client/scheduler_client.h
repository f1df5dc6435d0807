// client/scheduler_client.h: the client library: the service's interface over the message bus.
//
// SchedulerClient implements ISchedulerService, so that a program is written the same way inside the service's process
// and outside it. A call waits for its answer without a time limit (an operation on nodes may take minutes); events
// that arrive meanwhile are delivered by the next WaitForEvents().
//
// A call that doesn't reach the service, or that it refuses, returns a status in the form 0x8007xxxx, and LastError()
// has the error's name and text; a refusal of arguments names the key ("unknown key 'stScheduleRules.foo'"). Outputs
// stay untouched then. Statuses of the service itself come as they are, with an empty LastError().
// Threads: one client is used by one thread at a time; it may be handed on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "interface/ISchedulerService.h"
#include "interface/list_row.h"
#include "platform/bus_address.h"

namespace qx {

// What the service says about itself.
struct ServiceProperties {
  std::string version;           // of the program, as "0.1.0"
  std::string zone;              // a TZ text
  std::uint16_t port = 0;        // set for the node channel, open or not
  std::uint32_t traceLevel = 0;  // 0 to 6: the greatest level of the service log
  std::int64_t nextWakeUp = -1;  // seconds since 1970; -1: nothing to wait for
  std::string stateDirectory;    // on the service's host
};

class SchedulerClient : public ISchedulerService {  // a connection to the service
 public:
  // Who is told of events.
  using Sink = std::shared_ptr<ISchedulerServiceEvents>;

  SchedulerClient();
  SchedulerClient(const SchedulerClient&) = delete;
  SchedulerClient& operator=(const SchedulerClient&) = delete;
  ~SchedulerClient() override;

  // Connects to a bus; subscriptions of an earlier connection are set up again. The service itself need not be there.
  //   returns  0; 0x8007xxxx
  Status Connect(const platform::BusAddress& address);
  // Subscriptions stay and are set up again by the next Connect().
  void Disconnect();
  // False before Connect(), after Disconnect() and when the connection was lost.
  [[nodiscard]] bool IsConnected() const;
  // Of the last call of any method; unset when that reached the service and was answered.
  [[nodiscard]] const platform::BusError& LastError() const;

  Status CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) override;
  Status DeleteSchedule(const ScheduleGuid& id) override;
  Status ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) override;
  Status ListSchedule(std::uint32_t& count, ScheduleList& schedules) override;
  Status GetScheduleInfo(const ScheduleGuid& id, ScheduleInfo& schedule) override;
  Status CreateScheduleOnNodes(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id, std::uint32_t nodeCount,
                               const NodeNames& nodeNames, NodeResults& results) override;
  Status DeleteScheduleOnNodes(const ScheduleGuid& id, std::uint32_t nodeCount, const NodeNames& nodeNames,
                               NodeResults& results) override;
  Status ModifyScheduleOnNodes(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, std::uint32_t nodeCount,
                               const NodeNames& nodeNames, NodeResults& results) override;
  Status Refresh() override;
  Status Notify_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) override;
  Status Notify_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                  const std::vector<std::int32_t>& nextTimeWindows) override;
  Status UpdateList(std::int32_t type, const BSTR& value, std::uint32_t& count,
                    std::vector<std::u16string>& ids) override;
  Status PerformOperationOnNodes(const BSTR& data, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                 NodeResults& results) override;

  // --- events ---

  // Puts a sink into the first empty slot; slots are told of an event in their order. The array of slots grows by
  // doubling, and an event reads its length once: a sink that is put into one of the slots behind, from within an
  // event, hears of that event still. The first sink subscribes at the service. What a sink throws stays with it.
  //   cookie   names the sink in Unadvise(): never 0, never given twice; untouched on failure
  //   returns  0; kStatusNoSink for null; 0x8007xxxx: not subscribed
  Status Advise(Sink sink, std::uint32_t& cookie);
  // Empties the slot; the next sink takes it.
  //   returns  0; kStatusNoSuchSubscription
  Status Unadvise(std::uint32_t cookie);
  // Delivers the events that are there, and waits for the first one at most `limitMs` milliseconds.
  //   returns  the number of events delivered; 0 when none came in time or the connection was lost
  std::size_t WaitForEvents(std::uint32_t limitMs);

  // --- the service's coming and going ---

  // From now on, within WaitForEvents(), `presence` is told when the service takes its name on the bus (true) and when
  // it leaves (false), in order with the events; it counts there as an event. One at a time; it stays over Connect().
  // Doesn't start the service. An empty function ends it.
  //   returns  0; 0x8007xxxx: not subscribed
  Status WatchService(std::function<void(bool present)> presence);
  // The process that serves, 0 when there is none. Doesn't start it.
  Status ServiceProcess(std::uint32_t& process);

  // --- the Manager interface ---

  // One page: the schedules behind `afterId` (empty: from the first). No rows: the end.
  //   limit    0: as many as the service likes
  //   rows     appended to
  Status ListInfo(std::u16string_view afterId, std::uint32_t limit, std::vector<ListRow>& rows);
  // All pages, in order of IDs. A long list comes in several parts at a time.
  //   rows     appended to; untouched on failure
  Status ListAll(std::vector<ListRow>& rows);
  // The same without a copy of any text; let go of on this client's thread.
  Status ListAll(SentListRows& list);
  // What the service says about itself.
  Status Properties(ServiceProperties& properties);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace qx
