#include "service/run_thread.h"

#include <utility>

#include "foundation/include/zfclog.h"
#include "platform/fault_point.h"
#include "platform/registry.h"
#include "service/populate.h"
#include "service/schedule_store.h"
#include "service/scheduler_events.h"

using platform::ErrorCode;
using platform::ERROR_SUCCESS;
using ZepFoundation::ServiceLog;

namespace qx {
namespace {

constexpr const char16_t* kNoReplication =
    u"LoadSecurityLibrary: Can not replicate registry on far nodes in the cluster";

bool LoadSecurityLibrary(INodeChannel* nodes) {
  ErrorCode code = platform::ERROR_MOD_NOT_FOUND;  // where there is no channel, there is no library either
  const INodeChannel::Security security =
      nodes != nullptr ? nodes->LoadSecurityLibrary(code) : INodeChannel::Security::kNoLibrary;
  if (security == INodeChannel::Security::kLoaded) return true;
  if (security == INodeChannel::Security::kNoLibrary) {
    ServiceLog(0, u"LoadSecurityLibrary: LoadLibrary() returned NULL with error : %d", code);
  } else {
    ServiceLog(0, u"LoadSecurityLibrary: GetProcAddress() returned NULL with error : %d", code);
  }
  ServiceLog(0, kNoReplication);
  return false;
}

// A host's sockets need no start; only a channel may have something to do.
ErrorCode StartSockets(INodeChannel* nodes) {
  if (const ErrorCode fault = platform::FaultAt(platform::Operation::kSocketStartup); fault != ERROR_SUCCESS) {
    return fault;
  }
  return nodes != nullptr ? nodes->StartSockets() : ERROR_SUCCESS;
}

void StartSocketThread(RunThreadParts& parts) {
  if (!parts.securityLoaded) {
    ServiceLog(0, u"RunThread: SocketThread has not been created, as secure communcation would not be possible");
    return;
  }
  const ErrorCode code = platform::Thread::Start(
      "SocketThread", [nodes = parts.nodes, port = parts.port] { nodes->Serve(port); }, parts.socketThread);
  // Deliberate: in the words of the other thread.
  if (code != ERROR_SUCCESS) ServiceLog(0, u"RunThread: CreateThread(TimeChangeThread) failed with error :%d", code);
}

void StartWorkers(RunThreadParts& parts) {
  ErrorCode code = platform::Thread::Start(
      "ThreadProcedure", [loop = &parts.loop] { (void)ThreadProcedure(*loop); }, parts.schedulerThread);
  if (code != ERROR_SUCCESS) ServiceLog(0, u"RunThread: CreateThread(ThreadProcedure) failed with error :%d", code);
  code = platform::Thread::Start(
      "TimeChangeThread", [thread = &parts.timeChange] { thread->Run(); }, parts.timeChangeThread);
  if (code != ERROR_SUCCESS) ServiceLog(0, u"RunThread: CreateThread(TimeChangeThread) failed with error :%d", code);
}

}  // namespace

std::uint16_t ReadPort() {
  platform::RegistryKey key;
  std::uint32_t port = 0;
  if (platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_READ, key) != ERROR_SUCCESS ||
      platform::ReadRegistryDword(key, u"DefaultPort", port) != ERROR_SUCCESS) {
    return kDefaultPort;
  }
  return static_cast<std::uint16_t>(port);
}

Status RunThread(RunThreadParts& parts) {
  const ErrorCode events = g_SchedulerEvents.Create(kSchedulerEventCount);
  (void)ZepFoundation::InitServiceLog();
  // Said only now, as there is no log before.
  if (events != ERROR_SUCCESS) ServiceLog(0, u"RunThread: the events couldn't be made, error :%d", events);
  parts.securityLoaded = LoadSecurityLibrary(parts.nodes);
  parts.port = ReadPort();
  ServiceLog(3, u"Port Value set is: %u", parts.port);
  if (parts.nodes != nullptr) parts.nodes->SetPort(parts.port);
  const std::int32_t bias = platform::GetTimeZoneInformation().bias;
  parts.timeChange.SaveBias(bias);
  AnnounceTimeZone(3, u"Intial TimeZone = %S", bias);
  const Status populated = PopulateJobList(std::move(parts.ahead));
  StartWorkers(parts);
  if (const ErrorCode code = StartSockets(parts.nodes); code != ERROR_SUCCESS) {
    ServiceLog(1, u"WSAStartup failed with error %d\n", code);
    return populated;
  }
  ServiceLog(5, u"successful WSAStartup");
  StartSocketThread(parts);
  return populated;
}

}  // namespace qx
