#include "service/run_command.h"

#include "foundation/include/zfclog.h"
#include "platform/process.h"
#include "platform/text.h"

using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

namespace qx {
namespace {

Status Failed(ErrorCode code, const char16_t* text) {
  const Status status = platform::StatusFromErrorCode(code);
  ServiceLog(1, text, status);
  return status;
}

// The steps between the entry and the exit line; what they open is closed on every way out.
Status RunAndWait(std::string_view command, std::u16string_view shown, std::uint32_t* exitCode) {
  // Deliberate: the pipe is made for its ends alone, no child gets one and nobody reads.
  platform::AnonymousPipe pipe;
  if (const ErrorCode code = pipe.Create(); code != ERROR_SUCCESS) {
    return Failed(code, u"SchedulerService RunCommand, CreatePipe failed for stderr_read and stderr_write. 0x%x");
  }
  if (const ErrorCode code = pipe.ClearInheritOfReadEnd(); code != ERROR_SUCCESS) {
    return Failed(code, u"SchedulerService RunCommand, SetHandleInformation failed for stderr_read. 0x%x");
  }
  platform::ChildProcess child;
  if (const ErrorCode code = child.Start(command); code != ERROR_SUCCESS) {
    const Status status = platform::StatusFromErrorCode(code);
    ServiceLog(1, u"SchedulerService RunCommand, CreateProcessA failed. Command=%s, 0x%x", shown, status);
    return status;
  }
  if (const ErrorCode code = child.Wait(); code != ERROR_SUCCESS) {
    return Failed(code, u"SchedulerService RunCommand, WaitForSingleObject failed. 0x%x");
  }
  if (exitCode == nullptr) return kStatusOk;
  if (const ErrorCode code = child.ExitCode(*exitCode); code != ERROR_SUCCESS) {
    return Failed(code, u"SchedulerService RunCommand, GetExitCodeProcess failed. 0x%x");
  }
  return kStatusOk;
}

}  // namespace

Status RunCommand(std::string_view command, std::uint32_t* exitCode) {
  const std::u16string shown = ForLog(platform::WideFromSystem(command));
  ServiceLog(1, u"SchedulerService RunCommand, Enter %s", shown);
  const Status status = RunAndWait(command, shown, exitCode);
  ServiceLog(1, u"SchedulerService RunCommand, Exit 0x%x", status);
  return status;
}

}  // namespace qx
