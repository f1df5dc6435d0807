#include "service/service_module.h"

#include <cstdio>
#include <ctime>
#include <memory>
#include <utility>
#include <vector>

#include "foundation/include/zfcdbg.h"
#include "foundation/include/zfclog.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/event_log.h"
#include "platform/host.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/registry_log_room.h"
#include "platform/state_home.h"
#include "platform/terminal.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "service/schedule_store.h"
#include "service/scheduler_events.h"
#include "service/service_registration.h"

namespace qx {
namespace {

using platform::ERROR_FILE_NOT_FOUND;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::ServiceState;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;

void ComplainUtf8(const std::string& text) {
  Complain(platform::WideFromUtf8(text));
}

void ReportGuard(std::string_view where, std::string_view what) {
  ServiceLog(0, u"An exception was caught in %s: %s", ForLog(platform::WideFromUtf8(where)),
             ForLog(platform::WideFromUtf8(what)));
}

// A server that its last client left gives its name up first and its state directory last: the bus may start the next
// one in between, which waits for it. Returns what LockStateDirectory() said last.
ErrorCode AwaitPredecessor(platform::File& lock) {
  constexpr std::uint32_t kPatienceMs = 5000;
  constexpr std::uint32_t kLookMs = 20;
  ComplainUtf8("Waiting for the service that works on " + platform::StateDirectory());
  platform::EventSet none;  // nobody sets it: a wait of a given length
  if (const ErrorCode rc = none.Create(1); rc != ERROR_SUCCESS) return rc;
  ErrorCode rc = platform::ERROR_LOCK_VIOLATION;
  for (std::uint32_t passed = 0; rc == platform::ERROR_LOCK_VIOLATION && passed < kPatienceMs; passed += kLookMs) {
    platform::WaitResult ignored;
    if (const ErrorCode waited = none.Wait(kLookMs, ignored); waited != ERROR_SUCCESS) return waited;
    rc = platform::LockStateDirectory(lock);
  }
  return rc;
}

void WriteEvent(std::uint32_t number) {
  platform::ReportEvent(kServiceTitle, platform::EventKindOf(number), number, u"");
}

}  // namespace

std::string RunningText(std::int64_t window) {
  std::tm local{};
  if (window <= 0) return "running; no job is due";  // 0: a job that the loop leaves alone
  if (!platform::LocalBreakdown(window, local)) return "running";
  char text[96] = "";
  std::snprintf(text, sizeof text, "running; next job at %04d-%02d-%02d %02d:%02d:%02d", 1900 + local.tm_year,
                1 + local.tm_mon, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

CServiceModule::CServiceModule(ServiceOptions options, INodeChannel* nodes)
    : m_options(std::move(options)),
      m_loop(m_apartment, m_service, &m_clockWatch, nodes),
      m_timeChange(m_clockWatch),
      m_parts{m_loop, m_timeChange, nodes} {
  m_service.SetNodes(nodes);
}

CServiceModule::~CServiceModule() = default;

int CServiceModule::Main() {
  if (m_options.help) {
    std::fwrite(kServiceHelp.data(), 1, kServiceHelp.size(), stdout);
    return kExitDone;
  }
  if (m_options.version) {
    std::puts("QxSchedService " QX_VERSION);
    return kExitDone;
  }
  const CommandWord word = FindCommandWord(m_options.words);
  m_filesOnly = word != CommandWord::kNone && !m_options.destdir.empty() && m_options.root.empty() &&
                !m_options.registryOnly;
  if (!FindStateDirectory()) return kExitFailed;
  return word == CommandWord::kNone ? Start() : Register(word);
}

bool CServiceModule::FindStateDirectory() {
  std::string directory = m_options.root;
  if (directory.empty()) {
    directory = m_filesOnly ? std::string(platform::kSystemStateDirectory) : platform::DefaultStateDirectory();
  }
  if (directory.empty()) {
    Complain(u"There is no state directory: name one with --root");
    return false;
  }
  if (const ErrorCode rc = platform::AbsoluteName(directory); rc != ERROR_SUCCESS) {
    ComplainUtf8("The state directory " + directory + " can't be found, error " + std::to_string(rc));
    return false;
  }
  // The key store and the log know names as text: they would lie elsewhere, or nowhere.
  if (!platform::IsValidUtf8(directory)) {
    ComplainUtf8("The state directory " + directory + " can't be used: its name isn't valid UTF-8");
    return false;
  }
  platform::SetStateDirectory(directory);
  return true;
}

int CServiceModule::Register(CommandWord word) {
  std::string destination = m_options.destdir;
  if (!destination.empty()) {
    if (const ErrorCode rc = platform::AbsoluteName(destination); rc != ERROR_SUCCESS) {
      ComplainUtf8("The directory " + destination + " can't be found, error " + std::to_string(rc));
      return kExitFailed;
    }
  }
  const int stored = m_filesOnly ? kExitDone : RegisterInStore(word, destination);
  const int onHost = m_options.registryOnly ? kExitDone : RegisterOnThisHost(word, destination);
  return stored != kExitDone ? stored : onHost;
}

int CServiceModule::RegisterInStore(CommandWord word, const std::string& destination) {
  const std::string directory = platform::StateDirectory();
  const std::string file = RegistryFile(directory);
  if (word == CommandWord::kUnregServer && !platform::FileExists(file)) return kExitDone;  // never registered
  if (const ErrorCode rc = CreateStateFolders(); rc != ERROR_SUCCESS) {
    ComplainUtf8("The state directory " + directory + " can't be made, error " + std::to_string(rc));
    return kExitFailed;
  }
  std::string why;
  if (platform::OpenRegistryStore(file, &why) != ERROR_SUCCESS) {
    ComplainUtf8(why);
    return kExitFailed;
  }
  ErrorCode done = ERROR_SUCCESS;
  if (word == CommandWord::kUnregServer) {
    done = UnregisterServer();
  } else {
    // A unit that was configured before goes on under its account: it must not become root's by a new record.
    const bool concernsHost = ConcernsHost(destination, directory);
    done = RegisterServer(word == CommandWord::kService,
                          concernsHost ? platform::InstalledAccount(Installation(destination, {}, directory, true))
                                       : std::string());
  }
  const ErrorCode closed = platform::CloseRegistryStore();
  return done == ERROR_SUCCESS && closed == ERROR_SUCCESS ? kExitDone : kExitFailed;
}

int CServiceModule::RegisterOnThisHost(CommandWord word, const std::string& destination) {
  const std::string directory = platform::StateDirectory();
  if (!ConcernsHost(destination, directory)) return kExitDone;
  const ErrorCode rc = word == CommandWord::kUnregServer
                           ? UnregisterFromHost(destination, directory)
                           : RegisterOnHost(destination, directory, word == CommandWord::kService);
  if (rc != ERROR_SUCCESS) return kExitFailed;
  if (word == CommandWord::kService && destination.empty()) {
    const char* const user = platform::RunsAsRoot() ? "" : "--user ";
    std::printf("Start it with: systemctl %sdaemon-reload && systemctl %sstart QxSchedService\n", user, user);
  }
  return kExitDone;
}

int CServiceModule::Start() {
  const std::string directory = platform::StateDirectory();
  const auto unregistered = [&](ErrorCode code) {
    ComplainUtf8("This server isn't registered in " + directory + " (error " + std::to_string(code) +
                 "). Register it once with: QxSchedService " +
                 (m_options.root.empty() ? "" : "--root=" + m_options.root + " ") + "-RegServer");
    return static_cast<int>(code);
  };
  // Looked for first: opening would make it.
  if (!platform::FileExists(RegistryFile(directory))) {
    std::vector<std::string> names;
    if (platform::ListDirectory(directory, names) != platform::ERROR_ACCESS_DENIED) {
      return unregistered(ERROR_FILE_NOT_FOUND);
    }
    ComplainUtf8("The state directory " + directory + " can't be looked into by this account");
    return kExitFailed;
  }
  ErrorCode rc = platform::LockStateDirectory(m_stateLock);
  if (rc == platform::ERROR_LOCK_VIOLATION && !m_options.foreground) rc = AwaitPredecessor(m_stateLock);
  if (rc != ERROR_SUCCESS) {
    ComplainUtf8(rc == platform::ERROR_LOCK_VIOLATION
                     ? "Another service works on " + directory
                     : "The state directory " + directory + " can't be locked, error " + std::to_string(rc));
    return kExitFailed;
  }
  // The check of the store and the loading of the schedules read other parts of it, and can do so side by side.
  m_parts.ahead = std::make_unique<LoadAhead>(RegistryFile(directory));
  if (!OpenStore()) return kExitFailed;
  if (rc = ReadApplicationKey(); rc != ERROR_SUCCESS) return unregistered(rc);
  if (rc = CreateStateFolders(); rc != ERROR_SUCCESS) {
    ComplainUtf8("The folders of " + directory + " can't be made, error " + std::to_string(rc));
    return kExitFailed;
  }
  platform::SetGuardReport(&ReportGuard);
  if (m_runsAsService) m_runsAsService = StartDispatcher();
  if (m_runsAsService) {
    ServiceMain();
  } else {
    Run();
  }
  // The store stays open: closing it would commit what another thread has half written.
  return static_cast<int>(m_exitCode);
}

// Opens the registry store when it is whole.
bool CServiceModule::OpenStore() {
  const std::string file = RegistryFile(platform::StateDirectory());
  std::string where;
  if (const ErrorCode rc = platform::CheckRegistryStore(file, where); rc != ERROR_SUCCESS) {
    m_parts.ahead.reset();
    if (rc != platform::ERROR_REGISTRY_CORRUPT) {
      // One of a newer version, say: what it holds is good, and nobody is to be told to remove it.
      ComplainUtf8("The registry " + file + " can't be opened, error " + std::to_string(rc) +
                   (where.empty() ? "" : ": " + where));
      return false;
    }
    ComplainUtf8("The registry " + file + " is damaged: " + where);
    std::string copy;
    const ErrorCode kept = platform::KeepDamagedCopy(file, copy);
    ComplainUtf8(kept == ERROR_SUCCESS ? "A copy was kept as " + copy +
                                             ". Restore the registry from a backup, or remove it and register anew."
                                       : "It couldn't be copied, error " + std::to_string(kept));
    return false;
  }
  std::string why;
  if (platform::OpenRegistryStore(file, &why) == ERROR_SUCCESS) {
    (void)platform::MakeRegistryLogRoom();  // without it the first changes take a little longer
    ZepFoundation::ConfigureDebugTrace();
    return true;
  }
  ComplainUtf8(why);
  return false;
}

// The running-as-service flag stays set when the value "LocalService" can be read; --foreground is a service in any
// case.
ErrorCode CServiceModule::ReadApplicationKey() {
  platform::RegistryKey key;
  const ErrorCode rc = platform::OpenKey(platform::Hive::kClassesRoot, ApplicationKey(), platform::KEY_READ, key);
  if (rc != ERROR_SUCCESS) return rc;
  std::u16string name;
  m_runsAsService = m_options.foreground || platform::ReadRegistryString(key, u"LocalService", name) == ERROR_SUCCESS;
  return ERROR_SUCCESS;
}

// Whether somebody is there to say when the service shall stop.
bool CServiceModule::StartDispatcher() {
  return m_options.foreground || platform::HasServiceManager();
}

void CServiceModule::ServiceMain() {
  m_controls.emplace();
  const ErrorCode rc = m_controls->Start([this](std::uint32_t control) { HandleControl(control); });
  if (rc != ERROR_SUCCESS) {
    WriteEvent(kEventHandlerNotInstalled);
    Complain(u"The control handler can't be installed");
    m_exitCode = kExitFailed;
    return;
  }
  Report(ServiceState::kStartPending, "starting");
  m_exitCode = kExitDone;
  Run();
  SetProcessRef(true);
  Report(ServiceState::kStopped, "stopped");
  WriteEvent(kEventStopped);
}

void CServiceModule::HandleControl(std::uint32_t control) {
  switch (control) {
    case platform::kServiceControlStop: {
      const platform::MutexLock hold(m_stopLock);
      m_stopWanted = true;
      if (m_eventsReady) g_SchedulerEvents.Set(SHUTDOWN_EVENT);  // else as soon as they are made
      Report(ServiceState::kStopPending, "stopping");
      m_apartment.Quit();
      break;
    }
    case platform::kServiceControlPause:
    case platform::kServiceControlContinue:
    case platform::kServiceControlInterrogate:
    case platform::kServiceControlShutdown:
      break;  // Deliberate: a shutdown of the system is no orderly stop.
    default:
      WriteEvent(kEventBadControl);
  }
}

// Ahead of a sleep of the scheduler thread, which itself waits for no manager.
void CServiceModule::TellSleep(std::int64_t window) {
  std::string text = RunningText(window);
  if (text == m_toldSleep) return;
  m_toldSleep = text;
  m_apartment.Post([this, text = std::move(text)] {
    const platform::MutexLock hold(m_stopLock);
    if (!m_stopWanted) (void)platform::ReportServiceStatus(text);
  });
}

void CServiceModule::Run() {
  // Whoever starts the service on a terminal sees what its jobs write; a job's input is empty there too, as a session
  // of its own couldn't read that terminal.
  platform::SetJobOutputInherited(platform::IsTerminal(platform::StandardStream::kOutput) &&
                                  platform::IsTerminal(platform::StandardStream::kError));
  StartBus();
  WriteEvent(kEventStarted);
  if (m_runsAsService) {
    // The bus may have been waited for, and a stop may have come meanwhile: no state follows on that but the last.
    const platform::MutexLock hold(m_stopLock);
    if (!m_stopWanted) Report(ServiceState::kRunning, "running");
  }
  // Deliberate: the level of the log isn't known yet, so that the line is never written.
  ServiceLog(1, u"Service is starting");
  if (m_runsAsService) m_loop.SetSleepNotice([this](std::int64_t window) { TellSleep(window); });
  (void)RunThread(m_parts);  // Deliberate: whatever it met, the service goes on with what did start.
  for (platform::Thread* thread : {&m_parts.schedulerThread, &m_parts.timeChangeThread, &m_parts.socketThread}) {
    if (thread->joinable()) thread->Detach();
  }
  {
    const platform::MutexLock hold(m_stopLock);
    m_eventsReady = true;
    if (m_stopWanted) g_SchedulerEvents.Set(SHUTDOWN_EVENT);
  }
  SetProcessRef(false);
  m_apartment.Run();
  m_bus->Stop();
}

void CServiceModule::StartBus() {
  m_bus.emplace(m_apartment, m_service, m_service);
  CServiceBus::Options options;
  options.address = BusAddress();
  options.version = QX_VERSION;
  options.port = [this] { return m_parts.port; };
  if (!m_runsAsService) options.lastClientLeft = [this] { m_apartment.Quit(); };
  // Only while it starts: whoever read the program's errors may be gone later. The log has each loss.
  options.lost = [this](ErrorCode code) {
    if (m_started) return;
    ComplainUtf8("No connection to the bus, error " + std::to_string(code) + "; jobs run without it");
  };
  (void)m_bus->Start(std::move(options));  // a failure was told, and it is tried again
  m_started = true;
}

platform::BusAddress CServiceModule::BusAddress() const {
  if (m_options.busAddress == "session") return platform::BusAddress::Session();
  if (m_options.busAddress == "system") return platform::BusAddress::System();
  if (!m_options.busAddress.empty()) return platform::BusAddress::Explicit(m_options.busAddress);
  return platform::RunsAsRoot() ? platform::BusAddress::System() : platform::BusAddress::Session();
}

void CServiceModule::Report(ServiceState state, std::string_view text) {
  (void)platform::ReportServiceState(state, text);  // a manager that can't be told finds out by itself
}

void CServiceModule::SetProcessRef(bool reset) {
  platform::RegistryKey key;
  ErrorCode rc = platform::OpenKey(platform::Hive::kLocalMachine, kProviderKey, platform::KEY_ALL_ACCESS, key);
  if (rc != ERROR_SUCCESS) {
    ServiceLog(2, u"CServiceModule::SetProcessRef , RegOpenKeyEx failed hr = %ul", rc);
    return;
  }
  platform::NamedBuffer<std::uint32_t> process(1, "SetProcessRef");
  if (!process) {
    ServiceLog(2, u"CServiceModule::SetProcessRef pBuff = NULL");
    return;
  }
  process[0] = reset ? 0 : platform::CurrentProcessId();
  rc = platform::SetDword(key, u"ProcId", process[0]);
  const ErrorCode closed = key.Close();
  if (rc == ERROR_SUCCESS) rc = closed;
  ServiceLog(2, reset ? u"CServiceModule::SetProcessRef , PID reseted" : u"CServiceModule::SetProcessRef , PID set");
  ServiceLog(2, u"CServiceModule::SetProcessRef , res = %ul", rc);
}

}  // namespace qx
