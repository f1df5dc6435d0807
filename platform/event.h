// platform/event.h: auto-reset events and the wait for any of several.
//
// An event is set or not set. A wait that finds one set takes it (resets it) and returns its index; among several set
// events the lowest index wins and the others stay set. Setting a set event changes nothing, so a burst of settings
// collapses to one wake-up. No setting is ever lost to a waiter, and one setting wakes one waiter: behind the answer
// where the thread that sets has one to give (after_answer.h); whoever looks finds it set at once.
// Threads: Set() and Wait() from any thread; Create() before the set is shared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/error_codes.h"

namespace platform {

// The limit of a wait that never times out (INFINITE of winbase.h), in milliseconds.
inline constexpr std::uint32_t kWaitForever = 0xFFFFFFFF;

// How a wait ended.
struct WaitResult {
  enum class Kind {
    kEvent,    // `index` was set and has been taken
    kTimeout,  // the limit passed, nothing taken
    kFailed,   // the wait itself failed, nothing taken; the code is what Wait() returned
  };
  Kind kind = Kind::kTimeout;
  std::size_t index = 0;
  friend bool operator==(const WaitResult&, const WaitResult&) = default;
};

// A fixed number of auto-reset events, numbered from 0, none of them set at first.
class EventSet {
 public:
  static constexpr std::size_t kMaxEvents = 64;

  EventSet();  // without events until Create()
  EventSet(EventSet&&) noexcept;
  EventSet& operator=(EventSet&&) noexcept;
  ~EventSet();  // nobody may be waiting

  // Makes the events anew; Operation::kCreateEvent is asked once for each of them.
  //   count    1 to kMaxEvents
  //   returns  0; ERROR_INVALID_PARAMETER (87) for another count. After a failure the set is as before.
  [[nodiscard]] ErrorCode Create(std::size_t count);

  // Sets one event. An index without an event is ignored.
  void Set(std::size_t index);

  // Waits until one of the events is set, at most `limitMs` milliseconds of the steady clock (0 looks and returns,
  // kWaitForever waits without end). One that found nothing set and goes on beyond its limit times out, also where an
  // event was set meanwhile: that stays set, and what is due at the limit isn't put off by an event of its moment.
  // Under an installed ClockSource a wait that finds nothing set consumes the limit from it in this thread and times
  // out without waiting in real time; where the source doesn't take the wait, and always for kWaitForever, the wait is
  // real.
  //   returns  0 with kEvent or kTimeout; ERROR_INVALID_HANDLE (6) before Create(), or an injected code of
  //            Operation::kWaitForEvents, with kFailed
  //   fromSteadyNanoseconds  where the steady clock stood when the limit began to run; 0 for now
  [[nodiscard]] ErrorCode Wait(std::uint32_t limitMs, WaitResult& result, std::int64_t fromSteadyNanoseconds = 0);

  // The number of events, 0 before Create().
  [[nodiscard]] std::size_t Count() const;

 private:
  struct State;
  std::shared_ptr<State> m_state;
};

}  // namespace platform
