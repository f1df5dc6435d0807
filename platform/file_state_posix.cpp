#include "platform/file_state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "platform/fault_point.h"

namespace platform {
namespace {

std::atomic<std::uint64_t> g_changes{0};

FileState StateOf(const struct stat& info) {
  return {info.st_dev, info.st_ino, info.st_size, detail::NanosecondsOf(info.st_mtim),
          detail::NanosecondsOf(info.st_ctim)};
}

}  // namespace

bool ReadSmallFile(const std::string& name, std::string& bytes, FileState& state) {
  if (FaultAt(Operation::kReadFile, name) != ERROR_SUCCESS) return false;
  const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat info {};
  bool good = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= kSmallFileBytes;
  if (good) {
    bytes.resize(static_cast<std::size_t>(info.st_size) + 1);  // one more tells the end
    good = ::read(fd, bytes.data(), bytes.size()) == info.st_size;
    bytes.pop_back();
    state = StateOf(info);
  }
  ::close(fd);
  return good;
}

bool IsFileInState(const std::string& name, const FileState& state) {
  struct stat info {};
  return ::stat(name.c_str(), &info) == 0 && StateOf(info) == state;
}

std::uint64_t FileChanges() { return g_changes.load(); }

void detail::CountFileChange() { ++g_changes; }

}  // namespace platform
