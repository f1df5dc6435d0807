#include "platform/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(Terminal, IsToldFromAFile) {
  const int before = ::dup(STDIN_FILENO);
  const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::dup2(null, STDIN_FILENO), STDIN_FILENO);
  EXPECT_FALSE(platform::IsTerminal(platform::StandardStream::kInput));
  const int controller = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(controller, 0);
  ASSERT_EQ(::dup2(controller, STDIN_FILENO), STDIN_FILENO);
  EXPECT_TRUE(platform::IsTerminal(platform::StandardStream::kInput));
  ::dup2(before, STDIN_FILENO);
  ::close(controller);
  ::close(null);
  ::close(before);
}

}  // namespace
