#include "platform/host.h"

#include <limits.h>
#include <poll.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/fault_point.h"
#include "platform/text.h"

namespace platform {
namespace {

struct ErrorText {
  ErrorCode code;
  std::u16string_view text;
};
// The sentences of the published list of system errors; ascending.
constexpr ErrorText kErrorTexts[] = {
    {ERROR_SUCCESS, u"The operation completed successfully."},
    {ERROR_INVALID_FUNCTION, u"Incorrect function."},
    {ERROR_FILE_NOT_FOUND, u"The system cannot find the file specified."},
    {ERROR_PATH_NOT_FOUND, u"The system cannot find the path specified."},
    {ERROR_TOO_MANY_OPEN_FILES, u"The system cannot open the file."},
    {ERROR_ACCESS_DENIED, u"Access is denied."},
    {ERROR_INVALID_HANDLE, u"The handle is invalid."},
    {ERROR_NOT_ENOUGH_MEMORY, u"Not enough storage is available to process this command."},
    {ERROR_INVALID_DATA, u"The data is invalid."},
    {ERROR_OUTOFMEMORY, u"Not enough storage is available to complete this operation."},
    {ERROR_WRITE_PROTECT, u"The media is write protected."},
    {ERROR_SHARING_VIOLATION, u"The process cannot access the file because it is being used by another process."},
    {ERROR_LOCK_VIOLATION,
     u"The process cannot access the file because another process has locked a portion of the file."},
    {ERROR_HANDLE_EOF, u"Reached the end of the file."},
    {ERROR_NOT_SUPPORTED, u"The request is not supported."},
    {ERROR_FILE_EXISTS, u"The file exists."},
    {ERROR_INVALID_PARAMETER, u"The parameter is incorrect."},
    {ERROR_NO_PROC_SLOTS, u"The system cannot start another process at this time."},
    {ERROR_DISK_FULL, u"There is not enough space on the disk."},
    {ERROR_INSUFFICIENT_BUFFER, u"The data area passed to a system call is too small."},
    {ERROR_INVALID_NAME, u"The filename, directory name, or volume label syntax is incorrect."},
    {ERROR_MOD_NOT_FOUND, u"The specified module could not be found."},
    {ERROR_PROC_NOT_FOUND, u"The specified procedure could not be found."},
    {ERROR_DIR_NOT_EMPTY, u"The directory is not empty."},
    {ERROR_BAD_PATHNAME, u"The specified path is invalid."},
    {ERROR_BUSY, u"The requested resource is in use."},
    {ERROR_ALREADY_EXISTS, u"Cannot create a file when that file already exists."},
    {ERROR_BAD_EXE_FORMAT, u"The file is not a valid program for this system."},
    {ERROR_FILENAME_EXCED_RANGE, u"The filename or extension is too long."},
    {ERROR_MORE_DATA, u"More data is available."},
    {ERROR_NO_MORE_ITEMS, u"No more data is available."},
    {ERROR_DIRECTORY, u"The directory name is invalid."},
    {ERROR_INVALID_FLAGS, u"Invalid flags."},
    {ERROR_NO_TOKEN, u"An attempt was made to reference a token that does not exist."},
    {ERROR_BADDB, u"The configuration registry database is corrupt."},
    {ERROR_REGISTRY_CORRUPT, u"The registry is corrupted."},
    {ERROR_REGISTRY_IO_FAILED, u"An I/O operation initiated by the registry failed unrecoverably."},
    {ERROR_KEY_DELETED, u"Illegal operation attempted on a registry key that has been marked for deletion."},
    {ERROR_KEY_HAS_CHILDREN, u"Cannot create a symbolic link in a registry key that already has subkeys or values."},
    {ERROR_NO_UNICODE_TRANSLATION, u"No mapping for the Unicode character exists in the target multi-byte code page."},
    {ERROR_FILE_TOO_LARGE, u"The file size exceeds the limit allowed and cannot be saved."},
    {ERROR_IO_DEVICE, u"The request could not be performed because of an I/O device error."},
    {ERROR_CONNECTION_REFUSED, u"The remote computer refused the network connection."},
    {ERROR_CONNECTION_ABORTED, u"The network connection was aborted by the local system."},
    {ERROR_TIMEOUT, u"This operation returned because the timeout period expired."},
    {ERROR_NOT_CONNECTED, u"This network connection does not exist."},
    {ERROR_REQUEST_REFUSED, u"The operator or administrator has refused the request."},
};

// Where the lookup of the account needs a buffer and the host names no size.
constexpr std::size_t kAccountBuffer = 1024;
constexpr std::size_t kAccountBufferLimit = 1 << 20;

}  // namespace

std::uint32_t SystemVersion() {
  return 5;
}

ErrorCode UserName(std::u16string& out) {
  if (const ErrorCode rc = FaultAt(Operation::kGetUserName); rc != ERROR_SUCCESS) return rc;
  for (std::vector<char> buffer(kAccountBuffer);; buffer.resize(buffer.size() * 2)) {
    passwd entry{};
    passwd* found = nullptr;
    const int error = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < kAccountBufferLimit) continue;
    if (error != 0) return ErrorCodeFromErrno(error);
    if (found == nullptr) return ERROR_FILE_NOT_FOUND;
    out = WideFromUtf8(found->pw_name);
    return ERROR_SUCCESS;
  }
}

bool RunsAsRoot() { return geteuid() == 0; }

ErrorCode MachineName(std::u16string& out) {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name) != 0) return ErrorCodeFromErrno(errno);
  name[HOST_NAME_MAX] = '\0';
  const std::string_view whole(name);
  out = WideFromUtf8(whole.substr(0, whole.find('.')));
  return ERROR_SUCCESS;
}

ErrorCode ProgramFilePath(std::u16string& out) {
  if (const ErrorCode rc = FaultAt(Operation::kReadFile, "/proc/self/exe"); rc != ERROR_SUCCESS) return rc;
  std::string path(256, '\0');
  for (;; path.resize(path.size() * 2)) {
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length < 0) return ErrorCodeFromErrno(errno);
    if (static_cast<std::size_t>(length) == path.size()) continue;  // may be cut
    path.resize(static_cast<std::size_t>(length));
    break;
  }
  // The kernel's mark of a file that was replaced under the running program.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted) && access(path.c_str(), F_OK) != 0) path.resize(path.size() - kDeleted.size());
  out = WideFromUtf8(path);
  return ERROR_SUCCESS;
}

std::optional<std::u16string> EnvironmentVariable(std::u16string_view name) {
  const std::string narrow = Utf8FromWide(name);
  if (narrow.empty() || narrow.find('\0') != std::string::npos || narrow.find('=') != std::string::npos) {
    return std::nullopt;
  }
  const char* value = std::getenv(narrow.c_str());
  if (value == nullptr) return std::nullopt;
  return WideFromUtf8(value);
}

void DebuggerOutput([[maybe_unused]] std::u16string_view text) {
#ifdef QX_FAULT_SEAM  // on in development builds, off in those that are delivered
  static const bool kWanted = std::getenv("QX_DEBUG_OUTPUT") != nullptr;
  if (!kWanted) return;
  const std::string narrow = Utf8FromWide(text);
  (void)std::fwrite(narrow.data(), 1, narrow.size(), stderr);
#endif
}

void TellOnStandardOutput(const std::string& text) {
  pollfd output = {STDOUT_FILENO, POLLOUT, 0};
  if (::poll(&output, 1, 0) <= 0) return;
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

std::u16string SystemErrorText(ErrorCode code) {
  for (const ErrorText& row : kErrorTexts) {
    if (row.code == code) return std::u16string(row.text);
  }
  return {};
}

}  // namespace platform
