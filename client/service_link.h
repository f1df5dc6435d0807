// client/service_link.h: a connected service as the commands of qxsched see it.
//
// Threads: one link belongs to one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/scheduler_client.h"
#include "common/bus_records.h"
#include "interface/ISchedulerService.h"
#include "platform/bus.h"

namespace qx {

// A link to a service. Each call waits for its answer without a limit. A call that the service didn't answer returns a
// status of the form 0x8007xxxx, and LastError() says why.
class ServiceLink {
 public:
  virtual ~ServiceLink() = default;

  virtual ISchedulerService& Service() = 0;
  // The next page of the list, in order of IDs.
  //   afterId  the last ID of the page before; empty for the first page
  //   limit    most rows wanted; fewer may come, none tells the end
  virtual Status ListInfo(const std::u16string& afterId, std::uint32_t limit, std::vector<ListRow>& rows) = 0;
  // The whole list, in order of IDs; untouched on failure.
  virtual Status ListAll(std::vector<ListRow>& rows);
  // The same with borrowed texts; let go of ahead of the link.
  virtual Status ListRows(SentListRows& list);
  virtual Status ReadProperties(ServiceProperties& properties) = 0;
  // From now on `sink`, which outlives the link, hears of the service's events, within WaitForEvents().
  virtual Status Listen(ISchedulerServiceEvents& sink) = 0;
  // Gives out the events that came, waiting at most `limitMs` milliseconds for one; false when the link is lost.
  virtual bool WaitForEvents(std::uint32_t limitMs) = 0;
  // As SchedulerClient::WatchService and ServiceProcess: neither starts the service.
  virtual Status WatchService(std::function<void(bool present)> presence) {
    (void)presence;
    return 0x80070000 | platform::ERROR_NOT_SUPPORTED;
  }
  virtual Status ServiceProcess(std::uint32_t& process) {
    (void)process;
    return 0x80070000 | platform::ERROR_NOT_SUPPORTED;
  }
  // Why the last call got no answer; unset when it got one.
  [[nodiscard]] virtual platform::BusError LastError() const = 0;
};

// Makes a link.
//   returns  0; the code of BusConnection::Open
using ServiceConnector =
    std::function<platform::ErrorCode(const platform::BusAddress& address, std::unique_ptr<ServiceLink>& link)>;

// The connector over the message bus.
[[nodiscard]] platform::ErrorCode ConnectOverBus(const platform::BusAddress& address,
                                                 std::unique_ptr<ServiceLink>& link);

}  // namespace qx
