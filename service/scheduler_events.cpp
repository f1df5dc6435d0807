#include "service/scheduler_events.h"

platform::EventSet g_SchedulerEvents;
