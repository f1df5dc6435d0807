// service/scheduler_events.h: the six events that wake the scheduler loop.
//
// The order is fixed: the index that a wait returns selects the branch, and a lower index wins when several are set.
// Threads: any may set them.
#pragma once

#include <cstddef>

#include "platform/event.h"

enum SchedulerEvent : std::size_t {
  CREATE_EVENT = 0,         // CreateSchedule, after success
  MODIFY_EVENT = 1,         // ModifySchedule, after success
  DELETE_EVENT = 2,         // DeleteSchedule, after erasing a node
  SHUTDOWN_EVENT = 3,       // the stop control
  SYSTEM_TIME_CHANGED = 4,  // the clock watch
  REFRESH_EVENT = 5,        // Refresh, after reloading the list
};
inline constexpr std::size_t kSchedulerEventCount = 6;

// Auto-reset, made by RunThread.
extern platform::EventSet g_SchedulerEvents;
