#include "platform/sqlite_file.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>

namespace platform::sqlite {
namespace {

constexpr off_t kLogHeaderSize = 32;  // bytes of a log ahead of its first page ("WAL Format" of SQLite)

// -1 where there is no such file.
off_t SizeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

}  // namespace

bool HasLostItsBeginning(const std::string& path) {
  char real[PATH_MAX];
  // The log stands beside the file that a link leads to.
  return SizeOf(path) == 0 && ::realpath(path.c_str(), real) != nullptr &&
         SizeOf(std::string(real) + "-wal") > kLogHeaderSize;
}

std::string PlainPath(const std::string& path) {
  return path.empty() || path.front() == '/' ? path : "./" + path;
}

}  // namespace platform::sqlite
