// platform/service_control.h: what the service manager is told, and the controls that it sends.
//
// On this host the manager is systemd: it is told by its notification protocol (sd_notify(3)), and its stop control is
// the signal SIGTERM. Started by hand, SIGINT (Ctrl-C) is the stop control too.
// Threads: as each function says.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// Controls of a service (winsvc.h).
inline constexpr std::uint32_t kServiceControlStop = 1;
inline constexpr std::uint32_t kServiceControlPause = 2;
inline constexpr std::uint32_t kServiceControlContinue = 3;
inline constexpr std::uint32_t kServiceControlInterrogate = 4;
inline constexpr std::uint32_t kServiceControlShutdown = 5;

// States of a service (winsvc.h), those that are reported here.
enum class ServiceState : std::uint32_t { kStopped = 1, kStartPending = 2, kStopPending = 3, kRunning = 4 };

// Whether a manager listens: NOTIFY_SOCKET is set and not empty.
[[nodiscard]] bool HasServiceManager();

// Tells the manager a state, with a status text for people (UTF-8, one line). Running is told as READY=1, stop pending
// as STOPPING=1, the others by their text alone. Any thread.
//   returns  0, also when there is no manager; the host's code when it couldn't be told
[[nodiscard]] ErrorCode ReportServiceState(ServiceState state, std::string_view statusText);

// Tells the manager a status text alone. Any thread.
//   returns  as ReportServiceState()
[[nodiscard]] ErrorCode ReportServiceStatus(std::string_view statusText);

// Sends the stop control to the service that works on this state directory and doesn't wait for the effect. Asks
// Operation::kOpenService.
//   processId  its number as it was noted; what bears the number now may be another process, and gets nothing
//   returns    0; ERROR_INVALID_PARAMETER (87) for a number that no process has or 0; ERROR_FILE_NOT_FOUND (2) when
//              that process hasn't the directory's lock open; ERROR_ACCESS_DENIED (5) and other codes of the host
[[nodiscard]] ErrorCode SendStopControl(std::uint32_t processId);

// Receives the manager's controls, on a thread of its own, from Start() to destruction.
class ServiceControlHandler {
 public:
  // Called once for each control, on the handler's thread.
  using Handler = std::function<void(std::uint32_t control)>;

  ServiceControlHandler();
  ServiceControlHandler(const ServiceControlHandler&) = delete;
  ServiceControlHandler& operator=(const ServiceControlHandler&) = delete;
  // Ends the thread and gives the signals back their earlier mask on this thread. Not from the handler itself.
  ~ServiceControlHandler();

  // Blocks SIGTERM and SIGINT in the calling thread, and so in each thread that it starts later, and begins to
  // receive them. Call it on the main thread before any other thread starts: a thread with the signals unblocked would
  // take them away, and the process would end. Asks Operation::kRegisterServiceHandler.
  //   returns  0; ERROR_BUSY (170) when started already; ERROR_INVALID_PARAMETER (87) without a handler; the host's
  //            code
  [[nodiscard]] ErrorCode Start(Handler handler);

  // Hands a control to the handler as if the manager had sent it. Any thread, after Start().
  void Inject(std::uint32_t control);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace platform
