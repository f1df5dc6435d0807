#include "platform/apartment.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "platform/fault_point.h"
#include "platform/mutex.h"

namespace platform {
namespace {

using SteadyClock = std::chrono::steady_clock;

std::atomic<GuardReport> g_guardReport{nullptr};

void ReportCaught(std::string_view where, std::string_view what) noexcept {
  try {
    if (const GuardReport report = g_guardReport.load()) report(where, what);
  } catch (...) {  // no memory to tell it in
  }
}

// A source may work this often in one turn, so that a busy one doesn't starve the tasks.
constexpr int kSourceBurst = 16;
// How often the queue is looked at when the host has no descriptor left for waking, in milliseconds.
constexpr std::uint32_t kBlindLimitMs = 20;

// Milliseconds until `moment`, rounded up: cut down, the poll would wake before it.
std::uint32_t MillisecondsUntil(SteadyClock::time_point moment) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(moment - SteadyClock::now()).count();
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(left, 0, Apartment::kForever - 1));
}

// What a caller of Send() waits on.
class SendTicket {
 public:
  void Finish(bool ran) {
    const MutexLock lock(m_mutex);
    m_finished = true;
    m_ran = ran;
    m_changed.NotifyAll();
  }
  bool WaitUntilFinished() {
    MutexLock lock(m_mutex);
    while (!m_finished) m_changed.Wait(lock);
    return m_ran;
  }

 private:
  Mutex m_mutex;
  Condition m_changed;
  bool m_finished QX_GUARDED_BY(m_mutex) = false;
  bool m_ran QX_GUARDED_BY(m_mutex) = false;
};

struct QueuedTask {
  Apartment::Task task;
  std::shared_ptr<SendTicket> ticket;  // null for a post
};

}  // namespace

void SetGuardReport(GuardReport report) { g_guardReport.store(report); }

bool RunGuarded(std::string_view where, const std::function<void()>& body) noexcept {
  try {
    body();
    return true;
  } catch (const std::exception& e) {
    ReportCaught(where, e.what());
  } catch (...) {
    ReportCaught(where, "not a standard exception");
  }
  return false;
}

struct Apartment::State {
  struct Timer {
    SteadyClock::time_point due;
    Task task;
  };

  Mutex mutex;
  std::vector<QueuedTask> queue QX_GUARDED_BY(mutex);
  bool quit QX_GUARDED_BY(mutex) = false;
  bool closed QX_GUARDED_BY(mutex) = false;

  std::atomic<std::thread::id> owner{std::this_thread::get_id()};
  const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

  std::vector<PollSource*> sources;  // these two belong to the own thread
  std::map<TimerId, Timer> timers;
  TimerId lastTimer = 0;
  bool more = false;  // a source has more to do at once

  ~State() {
    if (wake >= 0) close(wake);
  }

  void Wake() const {
    const std::uint64_t one = 1;
    // A full counter means that a wake-up is pending already.
    if (wake >= 0) (void)!write(wake, &one, sizeof one);
  }

  bool Enqueue(QueuedTask task) {
    const MutexLock lock(mutex);
    if (closed) return false;
    const bool wasEmpty = queue.empty();
    queue.push_back(std::move(task));
    if (wasEmpty) Wake();
    return true;
  }

  bool IsSource(const PollSource* source) const {
    return std::find(sources.begin(), sources.end(), source) != sources.end();
  }

  // A task that was put in ahead of a piece of work runs ahead of it: callers see what happened in its order.
  void WorkOnSources() {
    more = false;
    const std::vector<PollSource*> present = sources;
    for (PollSource* source : present) {
      bool again = true;
      for (int i = 0; again && i < kSourceBurst; ++i) {
        if (HasQueued()) (void)RunQueued();
        if (!IsSource(source)) break;
        again = source->Process();
      }
      more = more || (again && IsSource(source));
    }
  }

  void RunDueTimers() {
    const auto now = SteadyClock::now();
    std::vector<std::pair<SteadyClock::time_point, TimerId>> due;
    for (const auto& [id, timer] : timers) {
      if (timer.due <= now) due.emplace_back(timer.due, id);
    }
    std::sort(due.begin(), due.end());
    for (const auto& [moment, id] : due) {
      auto node = timers.extract(id);  // empty when an earlier one stopped it
      if (!node.empty()) (void)RunGuarded("timer", node.mapped().task);
    }
  }

  // Runs what is queued now; true when Quit() was called before.
  bool RunQueued() {
    std::vector<QueuedTask> batch;
    bool ending = false;
    {
      const MutexLock lock(mutex);
      batch.swap(queue);
      ending = quit;
      if (wake >= 0) {
        std::uint64_t count = 0;
        (void)!read(wake, &count, sizeof count);
      }
    }
    for (QueuedTask& entry : batch) {
      (void)RunGuarded("task", entry.task);
      entry.task = nullptr;  // what it captured goes before its sender goes on
      if (entry.ticket) entry.ticket->Finish(true);
    }
    return ending;
  }

  void CloseQueue() {
    std::vector<QueuedTask> dropped;
    {
      const MutexLock lock(mutex);
      closed = true;
      dropped.swap(queue);
    }
    for (QueuedTask& entry : dropped) {
      entry.task = nullptr;
      if (entry.ticket) entry.ticket->Finish(false);
    }
  }

  bool HasQuit() {
    const MutexLock lock(mutex);
    return quit;
  }

  bool HasQueued() {
    const MutexLock lock(mutex);
    return quit || !queue.empty();
  }

  void WaitForWork(std::uint32_t limitMs) {
    std::vector<pollfd> descriptors;
    for (const PollSource* source : sources) {
      if (const auto limit = source->PollLimit()) limitMs = std::min(limitMs, *limit);
      if (const int fd = source->PollDescriptor(); fd >= 0) descriptors.push_back({fd, source->PollEvents(), 0});
    }
    for (const auto& [id, timer] : timers) limitMs = std::min(limitMs, MillisecondsUntil(timer.due));
    if (wake >= 0) {
      descriptors.push_back({wake, POLLIN, 0});
    } else {
      limitMs = std::min(limitMs, kBlindLimitMs);
    }
    const int timeout = limitMs == kForever ? -1 : static_cast<int>(std::min<std::uint32_t>(limitMs, INT32_MAX));
    (void)poll(descriptors.data(), descriptors.size(), timeout);  // interrupted or not: the next turn looks at all
  }
};

Apartment::Apartment() : m_state(std::make_unique<State>()) {}

Apartment::~Apartment() { m_state->CloseQueue(); }

bool Apartment::Post(Task task) { return m_state->Enqueue({std::move(task), nullptr}); }

bool Apartment::Send(Task task) {
  if (HasEnded()) return false;
  if (IsOwnThread()) {
    (void)RunGuarded("task", task);
    return true;
  }
  const auto ticket = std::make_shared<SendTicket>();
  return m_state->Enqueue({std::move(task), ticket}) && ticket->WaitUntilFinished();
}

bool Apartment::Step(std::uint32_t limitMs) {
  if (HasEnded()) return false;
  m_state->owner = std::this_thread::get_id();
  m_state->WaitForWork(m_state->more || m_state->HasQueued() ? 0 : limitMs);
  m_state->WorkOnSources();
  m_state->RunDueTimers();
  bool ending = m_state->RunQueued();
  if (!ending && m_state->HasQuit()) ending = m_state->RunQueued();
  if (ending) m_state->CloseQueue();
  return !ending;
}

void Apartment::Run() {
  while (Step(kForever)) {
  }
}

void Apartment::Quit() {
  State& state = *m_state;
  const MutexLock lock(state.mutex);
  state.quit = true;
  state.Wake();
}

Apartment::TimerId Apartment::StartTimer(std::uint32_t delayMs, Task task) {
  const TimerId id = ++m_state->lastTimer;
  m_state->timers[id] = {SteadyClock::now() + std::chrono::milliseconds(delayMs), std::move(task)};
  return id;
}

void Apartment::StopTimer(TimerId id) { m_state->timers.erase(id); }

void Apartment::AddSource(PollSource* source) {
  m_state->sources.push_back(source);
  m_state->more = true;  // it may have work already
}

void Apartment::RemoveSource(PollSource* source) { std::erase(m_state->sources, source); }

bool Apartment::IsOwnThread() const { return m_state->owner.load() == std::this_thread::get_id(); }

bool Apartment::HasEnded() const {
  State& state = *m_state;
  const MutexLock lock(state.mutex);
  return state.closed;
}

ErrorCode ApartmentProxy::Create(Apartment& apartment) {
  if (const ErrorCode rc = FaultAt(Operation::kBusCreateInstance); rc != ERROR_SUCCESS) return rc;
  if (apartment.HasEnded()) return ERROR_NOT_CONNECTED;
  m_apartment = &apartment;
  return ERROR_SUCCESS;
}

bool ApartmentProxy::Post(Apartment::Task task) const {
  return m_apartment != nullptr && m_apartment->Post(std::move(task));
}

}  // namespace platform
