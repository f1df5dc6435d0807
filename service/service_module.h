// service/service_module.h: the program as a whole: its start, its service states, its end.
//
// A service stays until the stop control; a plain server ends with its last client. It is a service when it was
// registered as one and a service manager listens (NOTIFY_SOCKET), or when it was started with --foreground.
// Threads: everything on the main thread, which becomes the apartment's; HandleControl() on the control handler's.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/apartment.h"
#include "platform/bus.h"
#include "platform/clock_watch.h"
#include "platform/file.h"
#include "platform/mutex.h"
#include "platform/service_control.h"
#include "service/node_channel.h"
#include "service/run_thread.h"
#include "service/scheduler_service.h"
#include "service/service_bus.h"
#include "service/service_options.h"

namespace qx {

// Numbers of the events; each is written with an empty text.
inline constexpr std::uint32_t kEventStarted = 0x68110002;
inline constexpr std::uint32_t kEventStopped = 0x68110004;
inline constexpr std::uint32_t kEventHandlerNotInstalled = 0xE8110001;
inline constexpr std::uint32_t kEventBadControl = 0xE8110003;

// The status text of a running service for people, in local time: "running; next job at 2026-11-28 22:00:00".
//   window  seconds since 1970; below 1, as kNoWakeUp, for none
[[nodiscard]] std::string RunningText(std::int64_t window);

class CServiceModule {
 public:
  //   nodes  borrowed for the life of the process; null: nothing is carried to other nodes
  explicit CServiceModule(ServiceOptions options, INodeChannel* nodes = nullptr);
  CServiceModule(const CServiceModule&) = delete;
  CServiceModule& operator=(const CServiceModule&) = delete;
  // Never reached while the threads run: the process ends by _Exit() with the code of Main().
  ~CServiceModule();

  // Does what the command line says: registers, unregisters, or runs to the end.
  //   returns  the process's exit code: 0; 2 when the server was never registered; 1 for a failed start or registration
  int Main();

  // What a control does. Any thread.
  void HandleControl(std::uint32_t control);

  // Sets "ProcId" to the process's number, or to 0; the key isn't made here. Failures are logged and stop nothing.
  static void SetProcessRef(bool reset);

 private:
  [[nodiscard]] bool FindStateDirectory();
  int Register(CommandWord word);
  [[nodiscard]] int RegisterInStore(CommandWord word, const std::string& destination);
  [[nodiscard]] int RegisterOnThisHost(CommandWord word, const std::string& destination);
  int Start();
  [[nodiscard]] bool OpenStore();
  [[nodiscard]] platform::ErrorCode ReadApplicationKey();
  [[nodiscard]] bool StartDispatcher();
  void ServiceMain();
  void Run();
  void StartBus();
  void Report(platform::ServiceState state, std::string_view text);
  void TellSleep(std::int64_t window);
  [[nodiscard]] platform::BusAddress BusAddress() const;

  const ServiceOptions m_options;
  bool m_filesOnly = false;  // registering for a package: of this host nothing is changed
  bool m_runsAsService = true;
  bool m_started = false;  // the first attempt at the bus is over
  std::uint32_t m_exitCode = 0;  // of the status record

  platform::File m_stateLock;
  std::optional<platform::ServiceControlHandler> m_controls;
  platform::Apartment m_apartment;
  CSchedulerService m_service;
  platform::ClockWatch m_clockWatch;
  CSchedulerLoop m_loop;
  CTimeChangeThread m_timeChange;
  RunThreadParts m_parts;
  std::optional<CServiceBus> m_bus;

  platform::Mutex m_stopLock;
  bool m_eventsReady QX_GUARDED_BY(m_stopLock) = false;  // RunThread has made the events
  bool m_stopWanted QX_GUARDED_BY(m_stopLock) = false;   // the stop control came, maybe before the events
  std::string m_toldSleep;                               // the scheduler thread's: the last status text about a sleep
};

}  // namespace qx
