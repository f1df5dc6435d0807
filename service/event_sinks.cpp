#include "service/event_sinks.h"

#include <algorithm>
#include <utility>

#include "foundation/include/zfclog.h"
#include "platform/apartment.h"

using platform::CriticalSectionGuard;
using ZepFoundation::ServiceLog;

Status CProxyISchedulerServiceEvents::Advise(Sink sink, std::uint32_t& cookie) {
  if (sink == nullptr) return kStatusNoSink;
  const CriticalSectionGuard guard(m_lock);
  auto slot = std::find_if(m_slots.begin(), m_slots.end(), [](const Slot& s) { return s.sink == nullptr; });
  if (slot == m_slots.end()) {
    const std::size_t used = m_slots.size();
    m_slots.resize(used == 0 ? 1 : 2 * used);
    slot = m_slots.begin() + static_cast<std::ptrdiff_t>(used);
  }
  *slot = {std::move(sink), ++m_lastCookie};
  cookie = slot->cookie;
  return kStatusOk;
}

Status CProxyISchedulerServiceEvents::Unadvise(std::uint32_t cookie) {
  Sink gone;  // released outside the lock: the last reference runs code of the sink
  const CriticalSectionGuard guard(m_lock);
  const auto slot = std::find_if(m_slots.begin(), m_slots.end(),
                                 [cookie](const Slot& s) { return s.sink != nullptr && s.cookie == cookie; });
  if (slot == m_slots.end()) return kStatusNoSuchSubscription;
  gone = std::move(slot->sink);
  *slot = {};
  return kStatusOk;
}

std::size_t CProxyISchedulerServiceEvents::SlotCount() {
  const CriticalSectionGuard guard(m_lock);
  return m_slots.size();
}

CProxyISchedulerServiceEvents::Sink CProxyISchedulerServiceEvents::SinkAt(std::size_t index) {
  const CriticalSectionGuard guard(m_lock);
  return index < m_slots.size() ? m_slots[index].sink : nullptr;
}

void CProxyISchedulerServiceEvents::Fire(const char* name, const std::function<void(ISchedulerServiceEvents&)>& event) {
  const std::size_t slots = SlotCount();
  for (std::size_t i = 0; i < slots; ++i) {
    const Sink sink = SinkAt(i);
    if (sink != nullptr) platform::RunGuarded(name, [&] { event(*sink); });
  }
}

void CProxyISchedulerServiceEvents::Fire_Schedule_Add(const ScheduleGuid& id) {
  Fire("Schedule_Add", [&](ISchedulerServiceEvents& sink) { sink.Schedule_Add(id); });
}

void CProxyISchedulerServiceEvents::Fire_Schedule_Modify(const ScheduleGuid& id) {
  Fire("Schedule_Modify", [&](ISchedulerServiceEvents& sink) { sink.Schedule_Modify(id); });
}

void CProxyISchedulerServiceEvents::Fire_Schedule_Delete(const ScheduleGuid& id) {
  Fire("Schedule_Delete", [&](ISchedulerServiceEvents& sink) { sink.Schedule_Delete(id); });
}

void CProxyISchedulerServiceEvents::Fire_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) {
  ServiceLog(4, u"Entered into Fire_NextTimeWindow_Modify");
  Fire("NextTimeWindow_Modify", [&](ISchedulerServiceEvents& sink) { sink.NextTimeWindow_Modify(id, nextTimeWindow); });
  ServiceLog(4, u"Exited from Fire_NextTimeWindow_Modify");
}

void CProxyISchedulerServiceEvents::Fire_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                                           const std::vector<std::int32_t>& nextTimeWindows) {
  Fire("SystemTime_Change",
       [&](ISchedulerServiceEvents& sink) { sink.SystemTime_Change(count, ids, nextTimeWindows); });
}
