#include "platform/event.h"

#include <bit>
#include <chrono>
#include <utility>

#include "platform/after_answer.h"
#include "platform/clock.h"
#include "platform/fault_point.h"
#include "platform/mutex.h"

namespace platform {

struct EventSet::State {
  Mutex mutex;
  Condition changed;
  std::uint64_t set QX_GUARDED_BY(mutex) = 0;  // bit i: event i is set
  std::size_t count = 0;                       // never changes

  bool TakeLowest(WaitResult& result) QX_REQUIRES(mutex) {
    if (set == 0) return false;
    result = {WaitResult::Kind::kEvent, static_cast<std::size_t>(std::countr_zero(set))};
    set &= set - 1;
    return true;
  }
};

EventSet::EventSet() = default;
EventSet::EventSet(EventSet&&) noexcept = default;
EventSet& EventSet::operator=(EventSet&&) noexcept = default;
EventSet::~EventSet() = default;

ErrorCode EventSet::Create(std::size_t count) {
  if (count == 0 || count > kMaxEvents) return ERROR_INVALID_PARAMETER;
  for (std::size_t i = 0; i < count; ++i) {
    if (const ErrorCode rc = FaultAt(Operation::kCreateEvent); rc != ERROR_SUCCESS) return rc;
  }
  auto state = std::make_shared<State>();
  state->count = count;
  m_state = std::move(state);
  return ERROR_SUCCESS;
}

void EventSet::Set(std::size_t index) {
  if (!m_state) return;
  State& state = *m_state;
  {
    const MutexLock lock(state.mutex);
    if (index >= state.count) return;
    state.set |= std::uint64_t{1} << index;
  }
  // One waiter is enough: it takes one event, and further set events stay set for whoever looks next. Several waiters
  // with several settings each get their own call.
  AfterAnswer::LeaveFirst([state = m_state] { state->changed.NotifyOne(); });
}

ErrorCode EventSet::Wait(std::uint32_t limitMs, WaitResult& result, std::int64_t fromSteadyNanoseconds) {
  result = {WaitResult::Kind::kFailed, 0};
  if (const ErrorCode rc = FaultAt(Operation::kWaitForEvents); rc != ERROR_SUCCESS) return rc;
  if (!m_state) return ERROR_INVALID_HANDLE;
  State& state = *m_state;
  MutexLock lock(state.mutex);
  if (state.TakeLowest(result)) return ERROR_SUCCESS;
  if (limitMs == kWaitForever) {
    while (!state.TakeLowest(result)) state.changed.Wait(lock);
    return ERROR_SUCCESS;
  }
  result = {WaitResult::Kind::kTimeout, 0};
  if (limitMs == 0) return ERROR_SUCCESS;
  using Steady = std::chrono::steady_clock;
  const auto begin = fromSteadyNanoseconds != 0 ? Steady::time_point(std::chrono::nanoseconds(fromSteadyNanoseconds))
                                                : Steady::now();
  const auto deadline = begin + std::chrono::milliseconds(limitMs);
  if (ClockSource* source = InstalledClockSource()) {
    lock.Unlock();  // the source may set events of this very set
    if (source->ConsumeWait(limitMs)) return ERROR_SUCCESS;
    lock.Lock();
  }
  while (Steady::now() < deadline) {
    if (state.TakeLowest(result)) return ERROR_SUCCESS;
    (void)state.changed.WaitUntil(lock, deadline);
  }
  if (state.set != 0) state.changed.NotifyOne();  // its wake may have been spent on this wait
  return ERROR_SUCCESS;
}

std::size_t EventSet::Count() const { return m_state ? m_state->count : 0; }

}  // namespace platform
