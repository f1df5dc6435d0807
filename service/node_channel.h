// service/node_channel.h: what the service needs of the part that talks to other nodes.
//
// Implemented by the replication floor and plugged in by the program; without one the service runs its local schedules
// and says in its log that nothing can be carried to other nodes.
// Threads: LoadSecurityLibrary() and StartSockets() on the service thread before any other thread; Serve() on a thread
// of its own; the operations on the apartment's thread; the others on the scheduler thread at shutdown.
#pragma once

#include <cstdint>

#include "interface/ISchedulerService.h"
#include "platform/error_codes.h"

// The answer of an operation that this build of the service doesn't carry out (E_NOTIMPL of winerror.h).
inline constexpr Status kStatusNotSupported = 0x80004001;

namespace qx {

class INodeChannel {
 public:
  enum class Security {
    kLoaded,
    kNoLibrary,  // it can't be loaded
    kNoEntry,    // it has no entry point
  };

  virtual ~INodeChannel() = default;

  // Loads the security library and its table of functions.
  //   code  the system's code of a failure; nothing stays loaded then
  [[nodiscard]] virtual Security LoadSecurityLibrary(platform::ErrorCode& code) = 0;
  // Frees what was loaded; nothing otherwise.
  virtual void FreeSecurityLibrary() = 0;

  // Starts the socket library; 0 or the system's code.
  [[nodiscard]] virtual platform::ErrorCode StartSockets() = 0;
  // The port of all nodes, before any other use of it.
  virtual void SetPort(std::uint16_t port) { (void)port; }
  // The body of the listening thread: accepts peers until CloseListener().
  virtual void Serve(std::uint16_t port) = 0;
  // Closes the listening socket; also before Serve() began, which then returns at once.
  virtual void CloseListener() = 0;
  virtual void CleanUpSockets() = 0;

  // The operations on nodes of ISchedulerService; kStatusNotSupported from a channel that doesn't carry them out.
  //   self  the service's object, whose own methods do the local step
  virtual Status CreateScheduleOnNodes(ISchedulerService& self, const SCHEDULE_OBJECT& schedule, ScheduleGuid& id,
                                       std::uint32_t nodeCount, const NodeNames& nodeNames, NodeResults& results);
  virtual Status DeleteScheduleOnNodes(ISchedulerService& self, const ScheduleGuid& id, std::uint32_t nodeCount,
                                       const NodeNames& nodeNames, NodeResults& results);
  virtual Status ModifyScheduleOnNodes(ISchedulerService& self, const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule,
                                       std::uint32_t nodeCount, const NodeNames& nodeNames, NodeResults& results);
  virtual Status PerformOperationOnNodes(ISchedulerService& self, const BSTR& data, std::uint32_t nodeCount,
                                         const NodeNames& nodeNames, NodeResults& results);
};

}  // namespace qx
