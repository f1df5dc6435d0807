// service/run_thread.h: the start of the service's working threads, in the order in which later steps use earlier ones.
//
// Threads: the service thread, before the apartment's queue is worked on.
#pragma once

#include <cstdint>
#include <memory>

#include "common/service_install.h"
#include "interface/records.h"
#include "platform/thread.h"
#include "service/load_ahead.h"
#include "service/node_channel.h"
#include "service/scheduler_loop.h"
#include "service/time_change_thread.h"

namespace qx {

inline constexpr std::uint16_t kDefaultPort = kStandardNodePort;  // without a value "DefaultPort"

// The port of the node channel: the low 16 bits of "DefaultPort", kDefaultPort when it can't be read.
[[nodiscard]] std::uint16_t ReadPort();

// What RunThread works with; all pointers and references are borrowed and live to the end of the threads.
struct RunThreadParts {
  CSchedulerLoop& loop;
  CTimeChangeThread& timeChange;
  INodeChannel* nodes = nullptr;  // null: nothing is carried to other nodes
  std::unique_ptr<LoadAhead> ahead{};  // what was begun to load the schedules ahead; taken

  // Results.
  std::uint16_t port = 0;
  bool securityLoaded = false;
  // The threads that were started; the service detaches them, as nobody joins them, and tests join them.
  platform::Thread schedulerThread;
  platform::Thread timeChangeThread;
  platform::Thread socketThread;
};

// Makes the events, starts log, rules, list and threads. Failures are logged and the start goes on; only a failed start
// of the socket library ends it, with the scheduler running.
//   returns  the result of PopulateJobList(), 0
Status RunThread(RunThreadParts& parts);

}  // namespace qx
