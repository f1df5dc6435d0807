// The copy of a damaged store's files (registry.h).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/descriptor.h"
#include "platform/fault_point.h"
#include "platform/registry.h"
#include "platform/registry_call.h"

namespace platform {
namespace {

using registry::Bytes;
using registry::g_lock;
using registry::g_store;

constexpr std::uint32_t kMaxDamagedCopies = 1000;  // that may stand side by side
constexpr std::size_t kCopyBufferSize = 65536;

//   error  why none is open, by errno; 0 otherwise
Descriptor OpenOnce(const std::string& path, int flags, int& error) {
  Descriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0600));
  error = file.IsOpen() ? 0 : errno;
  return file;
}

// Up to `size` bytes, fewer only at the end of the file; -1 on failure.
ssize_t ReadBlock(int fd, unsigned char* buffer, std::size_t size) {
  std::size_t got = 0;
  while (got < size) {
    const ssize_t n = ::read(fd, buffer + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

// A file that isn't there equals one that isn't there.
bool AreEqualFiles(const std::string& left, const std::string& right) {
  int errorA = 0;
  int errorB = 0;
  const Descriptor a = OpenOnce(left, O_RDONLY, errorA);
  const Descriptor b = OpenOnce(right, O_RDONLY, errorB);
  if (!a.IsOpen() || !b.IsOpen()) return errorA == ENOENT && errorB == ENOENT;
  Bytes bytesA(kCopyBufferSize);
  Bytes bytesB(kCopyBufferSize);
  for (;;) {
    const ssize_t gotA = ReadBlock(a.Get(), bytesA.data(), bytesA.size());
    const ssize_t gotB = ReadBlock(b.Get(), bytesB.data(), bytesB.size());
    if (gotA < 0 || gotA != gotB) return false;
    if (gotA == 0) return true;
    if (!std::equal(bytesA.begin(), bytesA.begin() + gotA, bytesB.begin())) return false;
  }
}

ErrorCode CopyFileTo(const std::string& from, const std::string& to) {
  if (const ErrorCode code = FaultAt(Operation::kCreateFile, to); code != ERROR_SUCCESS) return code;
  int error = 0;
  const Descriptor in = OpenOnce(from, O_RDONLY, error);
  if (!in.IsOpen()) return ErrorCodeFromErrno(error);
  const Descriptor out = OpenOnce(to, O_WRONLY | O_CREAT | O_EXCL, error);
  if (!out.IsOpen()) return ErrorCodeFromErrno(error);
  Bytes bytes(kCopyBufferSize);
  const auto drop = [&](ErrorCode code) {
    ::unlink(to.c_str());
    return code;
  };
  const auto fail = [&] { return drop(ErrorCodeFromErrno(errno)); };
  for (const Operation operation : {Operation::kReadFile, Operation::kWriteFile, Operation::kSyncFile}) {
    if (const ErrorCode code = FaultAt(operation, to); code != ERROR_SUCCESS) return drop(code);
  }
  for (;;) {
    const ssize_t got = ReadBlock(in.Get(), bytes.data(), bytes.size());
    if (got < 0) return fail();
    if (got == 0) break;
    for (ssize_t done = 0; done < got;) {
      const ssize_t n = ::write(out.Get(), bytes.data() + done, static_cast<std::size_t>(got - done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return fail();
      done += n;
    }
  }
  return ::fsync(out.Get()) != 0 ? fail() : ERROR_SUCCESS;
}

}  // namespace

ErrorCode KeepDamagedCopy(const std::string& nativePath, std::string& copyPath) {
  // Closing any descriptor of the file would drop the open connection's locks on it.
  const MutexLock guard(g_lock);
  if (g_store) return ERROR_BUSY;
  const std::string logPath = nativePath + "-wal";
  for (std::uint32_t number = 1; number <= kMaxDamagedCopies; ++number) {
    const std::string name = nativePath + ".damaged" + (number == 1 ? "" : "." + std::to_string(number));
    struct stat status {};
    if (::lstat(name.c_str(), &status) == 0) {
      if (!AreEqualFiles(nativePath, name) || !AreEqualFiles(logPath, name + "-wal")) continue;
      copyPath = name;
      return ERROR_SUCCESS;
    }
    if (const ErrorCode code = CopyFileTo(nativePath, name); code != ERROR_SUCCESS) return code;
    const ErrorCode code =
        ::stat(logPath.c_str(), &status) == 0 ? CopyFileTo(logPath, name + "-wal") : ErrorCode{ERROR_SUCCESS};
    if (code != ERROR_SUCCESS) {
      ::unlink(name.c_str());
      return code;
    }
    copyPath = name;
    return ERROR_SUCCESS;
  }
  return ERROR_ALREADY_EXISTS;
}

}  // namespace platform
