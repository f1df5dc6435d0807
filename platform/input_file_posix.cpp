#include "platform/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/fault_point.h"
#include "platform/file.h"

namespace platform {
namespace {

// Nothing for a name that leads nowhere.
std::optional<mode_t> ModeOf(const std::string& name) {
  struct stat info {};
  if (::stat(name.c_str(), &info) != 0) return std::nullopt;
  return info.st_mode;
}

bool IsStreamMode(std::optional<mode_t> mode) { return mode && (S_ISFIFO(*mode) || S_ISCHR(*mode)); }

ErrorCode ReadFile(const std::string& name, std::size_t most, std::string& bytes) {
  File file;
  ErrorCode rc = file.Open(name, File::Access::kRead, File::Disposition::kOpenExisting);
  std::string buffer(rc == ERROR_SUCCESS ? most : 0, '\0');
  std::size_t count = 0;
  if (rc == ERROR_SUCCESS) rc = file.Read(buffer, count);
  buffer.resize(count);
  bytes = std::move(buffer);
  return rc;
}

// What has no size beforehand. Opened once: a writer that finds its reader gone is killed by a signal.
ErrorCode ReadStream(const std::string& name, std::size_t most, std::string& bytes) {
  if (const ErrorCode rc = FaultAt(Operation::kCreateFile, name); rc != ERROR_SUCCESS) return rc;
  const int opened = ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (opened < 0) return ErrorCodeFromErrno(errno);
  ErrorCode rc = FaultAt(Operation::kReadFile);
  std::array<char, 4096> chunk;
  while (rc == ERROR_SUCCESS && bytes.size() < most) {
    const ssize_t got = ::read(opened, chunk.data(), std::min(chunk.size(), most - bytes.size()));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) rc = ErrorCodeFromErrno(errno);
    if (got <= 0) break;
    bytes.append(chunk.data(), static_cast<std::size_t>(got));
  }
  ::close(opened);
  return rc;
}

}  // namespace

ErrorCode ReadInput(const std::string& name, std::size_t most, std::string& contents) {
  const std::optional<mode_t> mode = ModeOf(name);
  if (mode && S_ISDIR(*mode)) return ERROR_DIRECTORY;
  std::string bytes;
  const ErrorCode rc = IsStreamMode(mode) ? ReadStream(name, most, bytes) : ReadFile(name, most, bytes);
  if (rc == ERROR_SUCCESS) contents = std::move(bytes);
  return rc;
}

bool IsStream(const std::string& name) { return IsStreamMode(ModeOf(name)); }

}  // namespace platform
