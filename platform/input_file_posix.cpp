#include "platform/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/fault_point.h"
#include "platform/file.h"

namespace platform {
namespace {

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
  struct stat info {};
  const bool there = ::stat(name.c_str(), &info) == 0;
  if (there && S_ISDIR(info.st_mode)) return ERROR_DIRECTORY;
  const bool isStream = there && (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode));
  std::string bytes;
  const ErrorCode rc = isStream ? ReadStream(name, most, bytes) : ReadFile(name, most, bytes);
  if (rc == ERROR_SUCCESS) contents = std::move(bytes);
  return rc;
}

}  // namespace platform
