// platform/apartment.h: the single-threaded apartment: one thread, one queue of tasks, one poll over everything the
// thread listens to.
//
// Tasks run one after the other, in the order in which they were put in, on the thread that calls Run() or Step(). A
// task may take as long as it likes, everybody else waits meanwhile. No exception leaves a task: the guard catches it.
// Threads: Post(), Send(), Quit(), IsOwnThread() from any thread; all else on the apartment's own thread, which is the
// one that last called Run() or Step(), before that the one that made the object.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>

#include "platform/error_codes.h"

namespace platform {

// What the guards of the apartment and of the bus report: where an exception was caught (a member name, "task") and
// its text. Called on the thread that caught it; what it throws itself is dropped. For the whole process, null for
// none.
using GuardReport = void (*)(std::string_view where, std::string_view what);
void SetGuardReport(GuardReport report);

// Runs `body` and catches whatever it throws, reporting it. True when nothing was thrown.
bool RunGuarded(std::string_view where, const std::function<void()>& body) noexcept;
// The same for anything that can be called, whatever it has captured: the guard itself takes no memory.
template <typename Body>
  requires(!std::same_as<std::remove_cvref_t<Body>, std::function<void()>>)
bool RunGuarded(std::string_view where, Body&& body) noexcept {
  return RunGuarded(where, std::function<void()>(std::ref(body)));
}

// Something the apartment listens to besides its queue.
class PollSource {
 public:
  virtual ~PollSource() = default;
  // Does at most one piece of work without waiting; true when there may be more to do at once.
  virtual bool Process() = 0;
  // What poll(2) shall watch: a descriptor (-1 for none now) and its events. Asked anew before each wait.
  virtual int PollDescriptor() const = 0;
  virtual short PollEvents() const = 0;
  // Milliseconds until Process() wants to be called anyway; nothing for no such moment.
  virtual std::optional<std::uint32_t> PollLimit() const = 0;
};

class Apartment {
 public:
  using Task = std::function<void()>;
  using TimerId = std::uint64_t;
  static constexpr std::uint32_t kForever = 0xFFFFFFFF;

  Apartment();
  Apartment(const Apartment&) = delete;
  Apartment& operator=(const Apartment&) = delete;
  // Drops the tasks that didn't run and lets go of everybody who waits in Send(). Sources must have been removed, and
  // no other thread may still call.
  ~Apartment();

  // Puts a task at the end of the queue and returns at once.
  //   returns  false when the apartment has ended: the task is dropped
  bool Post(Task task);

  // Runs a task on the apartment's thread and returns when it has run: behind all tasks already queued, or, when called
  // on the apartment's own thread, inline and at once. The caller may hold no lock that a task takes.
  //   returns  false when the apartment ended before the task ran
  bool Send(Task task);

  // One turn: waits at most `limitMs` for something to do, works on the sources (bounded, so that tasks don't starve),
  // ahead of each piece of work running the tasks that are queued by then, and runs the timers that are due and the
  // tasks that are queued at the end. Tests call Step(0).
  //   returns  false when Quit() was called; the tasks queued until then have run and the queue is closed
  bool Step(std::uint32_t limitMs);

  // Turns until Quit().
  void Run();

  // Ends Run() after the present turn.
  void Quit();

  // Runs a task once after `delayMs` of the steady clock; with 0 behind the work of the present turn. Only on the
  // apartment's thread.
  TimerId StartTimer(std::uint32_t delayMs, Task task);
  // Takes a timer out; nothing when it already ran.
  void StopTimer(TimerId id);

  // The source is borrowed until it is removed. Only on the apartment's thread; a source may remove itself or others in
  // its Process().
  void AddSource(PollSource* source);
  void RemoveSource(PollSource* source);

  [[nodiscard]] bool IsOwnThread() const;
  // Whether the queue is closed, for good.
  [[nodiscard]] bool HasEnded() const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// A reference by which another thread reaches the apartment's object, as a client of the own process.
class ApartmentProxy {
 public:
  // Connects to an apartment, which must outlive the proxy. Asks Operation::kBusCreateInstance.
  //   returns  0; ERROR_NOT_CONNECTED (2250) when the apartment has ended. The proxy stays as it was on failure.
  [[nodiscard]] ErrorCode Create(Apartment& apartment);
  void Release() { m_apartment = nullptr; }
  explicit operator bool() const { return m_apartment != nullptr; }
  // Posts to the apartment; false without one or when it has ended.
  bool Post(Apartment::Task task) const;

 private:
  Apartment* m_apartment = nullptr;
};

}  // namespace platform
