#include "platform/standard_streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>
#include <string>

#include "platform/file.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

bool IsNullDevice(int descriptor) {
  struct stat own {}, device {};
  return ::fstat(descriptor, &own) == 0 && ::stat("/dev/null", &device) == 0 && own.st_rdev == device.st_rdev &&
         S_ISCHR(own.st_mode);
}

// Closes descriptors of this process, fills them in and ends: by 0 when exactly these are the null device and fail as
// before, and the next file doesn't take the number of a standard stream.
[[noreturn]] void FillClosed(std::initializer_list<int> closed) {
  bool wanted[3] = {};
  for (int descriptor = 0; descriptor < 3; ++descriptor) wanted[descriptor] = IsNullDevice(descriptor);
  for (const int descriptor : closed) {
    ::close(descriptor);
    wanted[descriptor] = true;
  }
  FillStandardStreams();
  for (int descriptor = 0; descriptor < 3; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != 0) ::_exit(10 + descriptor);  // open, and children get it
    if (IsNullDevice(descriptor) != wanted[descriptor]) ::_exit(20 + descriptor);
  }
  char byte = 0;
  for (const int descriptor : closed) {
    const ssize_t count = descriptor == 0 ? ::read(0, &byte, 1) : ::write(descriptor, &byte, 1);
    if (count != -1 || errno != EBADF) ::_exit(40 + descriptor);
  }
  const int next = ::open("/", O_RDONLY);
  ::close(next);
  FillStandardStreams();  // nothing to do, and nothing left open
  ::_exit(next > 2 && ::open("/", O_RDONLY) == next ? 0 : 30);
}

TEST(StandardStreams, ClosedOnesAreTheNullDeviceAndOpenOnesStay) {
  for (const std::initializer_list<int>& closed :
       std::initializer_list<std::initializer_list<int>>{{}, {0}, {1}, {2}, {0, 2}, {0, 1, 2}}) {
    EXPECT_EXIT(FillClosed(closed), testing::ExitedWithCode(0), "");
  }
}

[[noreturn]] void WriteToNobody(bool fails) {
  (void)::signal(SIGPIPE, SIG_DFL);
  if (fails) LetWritesFail();
  int ends[2];
  if (::pipe(ends) != 0) ::_exit(1);
  ::close(ends[0]);
  ::_exit(::write(ends[1], "x", 1) == -1 && errno == EPIPE ? 0 : 2);
}

TEST(StandardStreams, AReaderThatHasGoneEndsNoProcess) {
  EXPECT_EXIT(WriteToNobody(false), testing::KilledBySignal(SIGPIPE), "");
  EXPECT_EXIT(WriteToNobody(true), testing::ExitedWithCode(0), "");
}

[[noreturn]] void WriteTooMuch(const std::string& name, bool fails) {
  (void)::signal(SIGXFSZ, SIG_DFL);
  if (fails) LetWritesFail();
  const rlimit limit = {10, 10};
  File file;
  if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) ::_exit(1);
  if (file.Open(name, File::Access::kWrite, File::Disposition::kCreateAlways) != ERROR_SUCCESS) ::_exit(2);
  if (file.WriteAll("0123456789") != ERROR_SUCCESS) ::_exit(3);
  ::_exit(file.WriteAll("x") == ERROR_DISK_FULL ? 0 : 4);
}

TEST(StandardStreams, AFileThatMayNotGrowEndsNoProcess) {
  const TemporaryFolder folder("qx-streams");
  const std::string name = folder.Path() + "/file";
  EXPECT_EXIT(WriteTooMuch(name, false), testing::KilledBySignal(SIGXFSZ), "");
  EXPECT_EXIT(WriteTooMuch(name, true), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace platform
