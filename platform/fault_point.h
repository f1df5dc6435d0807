// platform/fault_point.h: the seam through which tests make platform calls fail.
//
// Every platform call that can fail asks FaultAt() first and returns its answer when it isn't 0, before it touches
// anything. Without an installed plan, and in builds without QX_FAULT_SEAM, the question costs nothing.
// Threads: any.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// The operations that can be told to fail, one a platform call. The order has no meaning.
#define QX_PLATFORM_OPERATIONS(X)                                                                            \
  X(RegOpenKey) X(RegCreateKey) X(RegQueryInfoKey) X(RegQueryValue) X(RegSetValue) X(RegDeleteKey)           \
  X(RegDeleteValue) X(RegEnumKey) X(RegEnumValue) X(RegSaveKey) X(RegCloseKey) X(RegOpenStore)               \
  X(GetProfileInt) X(GetProfileString) X(GetProfileSection) X(WriteProfileString) X(CommitProfiles)          \
  X(CreateFile) X(ReadFile) X(WriteFile) X(SyncFile) X(RenameFile) X(DeleteFile) X(LockFile) X(GetFileSize)  \
  X(SetFilePointer) X(CreateDirectory) X(FileExists) X(DirectoryExists)                                      \
  X(Allocate) X(CreateGuid)                                                                                  \
  X(CreateProcess) X(CreatePipe) X(SetHandleInformation) X(WaitForProcess) X(GetExitCodeProcess)             \
  X(CreateEvent) X(WaitForEvents) X(CreateThread)                                                            \
  X(RegisterClockWatch) X(CreateClockWatch) X(ReadClockWatch)                                                \
  X(ArrayCreate) X(ArrayAccessData) X(ArrayUnaccessData) X(ArrayDestroy) X(GetRecordInfo)                    \
  X(LoadLibrary) X(GetProcAddress)                                                                           \
  X(BusConnect) X(BusRequestName) X(BusCreateInstance) X(BusSend)                                            \
  X(SocketStartup) X(OpenServiceManager) X(OpenService) X(QueryServiceConfig) X(ChangeServiceConfig)         \
  X(CreateService) X(DeleteService)                                                                          \
  X(RegisterServiceHandler) X(ConvertText)                                                                   \
  X(CryptAcquireContext) X(CryptGenKey) X(CryptExportKey) X(CryptImportKey) X(CryptEncrypt) X(CryptDecrypt)  \
  X(CryptDestroyKey)                                                                                         \
  X(CoInitialize) X(XmlCreate) X(XmlLoad) X(XmlFind) X(XmlText)                                              \
  X(SocketCreate) X(SocketOption) X(SocketBind) X(SocketListen) X(SocketAccept) X(SocketConnect)             \
  X(SocketReceive) X(SocketSend) X(SocketSelect) X(SocketSelectAny) X(SocketEvents) X(ResolveAddress)        \
  X(OpenProcessToken) X(GetTokenInformation) X(AcquireCredentials) X(GetUserName)                            \
  X(InitializeSecurityContext) X(AcceptSecurityContext) X(CompleteAuthToken) X(ImpersonateContext)           \
  X(AllocateSid) X(CheckTokenMembership)

enum class Operation : std::uint16_t {
#define QX_PLATFORM_OPERATION_ENUM(name) k##name,
  QX_PLATFORM_OPERATIONS(QX_PLATFORM_OPERATION_ENUM)
#undef QX_PLATFORM_OPERATION_ENUM
  kCount
};

// The operation's name without the k, for messages.
[[nodiscard]] std::string_view OperationName(Operation operation);

namespace detail {
extern std::atomic<bool> g_faultSeamArmed;
[[nodiscard]] ErrorCode AskFaultPlan(Operation operation, std::string_view detail);
}  // namespace detail

// What the call is to fail with, 0 for "go on".
//   detail  what the call works on (an allocation's name, a value's name, the milliseconds of a wait for any of several
//           sockets); only compared with a plan's own detail
[[nodiscard]] inline ErrorCode FaultAt([[maybe_unused]] Operation operation,
                                       [[maybe_unused]] std::string_view detail = {}) {
#ifdef QX_FAULT_SEAM
  if (detail::g_faultSeamArmed.load(std::memory_order_relaxed)) return detail::AskFaultPlan(operation, detail);
#endif
  return ERROR_SUCCESS;
}

}  // namespace platform
