// service/event_sinks.h: who hears of the service's events, and the calls that tell them.
//
// Sinks stand in the slots of an array that grows by doubling; a slot is empty after Unadvise() and is used again.
// Firing reads the number of slots once, then fetches one sink after the other, holding the array's own lock only while
// it fetches: a sink may advise and unadvise from inside its event. Sinks are called one after the other on the firing
// thread; what they throw stays with them and stops nobody else. Nothing is queued and nothing is repeated.
// Threads: any; the events of one caller arrive in its order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "interface/ISchedulerService.h"
#include "platform/critical_section.h"
#include "platform/thread_annotations.h"

class CProxyISchedulerServiceEvents {
 public:
  using Sink = std::shared_ptr<ISchedulerServiceEvents>;

  CProxyISchedulerServiceEvents() = default;
  CProxyISchedulerServiceEvents(const CProxyISchedulerServiceEvents&) = delete;
  CProxyISchedulerServiceEvents& operator=(const CProxyISchedulerServiceEvents&) = delete;

  // Puts a sink into the first empty slot.
  //   sink     null stands for one without the events' interface
  //   cookie   names the sink in Unadvise(): never 0, never given twice; untouched on failure
  //   returns  0; kStatusNoSink for a null sink
  Status Advise(Sink sink, std::uint32_t& cookie);
  // Empties the slot. An event that is being fired may still reach the sink.
  //   returns  0; kStatusNoSuchSubscription for a cookie that names nobody
  Status Unadvise(std::uint32_t cookie);

  void Fire_Schedule_Add(const ScheduleGuid& id);
  void Fire_Schedule_Modify(const ScheduleGuid& id);
  void Fire_Schedule_Delete(const ScheduleGuid& id);
  void Fire_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow);
  void Fire_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                              const std::vector<std::int32_t>& nextTimeWindows);

  // Slots, the empty ones included.
  [[nodiscard]] std::size_t SlotCount();

 private:
  struct Slot {
    Sink sink;
    std::uint32_t cookie = 0;
  };
  Sink SinkAt(std::size_t index);
  void Fire(const char* name, const std::function<void(ISchedulerServiceEvents&)>& event);

  platform::CriticalSection m_lock;
  std::vector<Slot> m_slots QX_GUARDED_BY(m_lock);
  std::uint32_t m_lastCookie QX_GUARDED_BY(m_lock) = 0;
};
