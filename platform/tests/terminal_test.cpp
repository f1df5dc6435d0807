#include "platform/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <string_view>

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

TEST(Terminal, ATextTakesTheColumnsOfItsCharacters) {
  const struct {
    std::string_view text;
    std::size_t room, bytes, columns;
  } kCases[] = {
      {"", 0, 0, 0},
      {"", 5, 0, 0},
      {"nightly", 80, 7, 7},
      {"nightly", 7, 7, 7},
      {"nightly", 4, 4, 4},
      {"nächtlich", 80, 10, 9},
      {"nächtlich", 2, 3, 2},
      {"夜間保存", 80, 12, 8},
      {"夜間保存", 7, 9, 6},   // the half of a wide character has no place
      {"夜間保存", 1, 0, 0},
      {"a夜", 2, 1, 1},
      {"ﾊﾞｯｸ", 80, 12, 4},     // half-width letters
      {"e\u0301te\u0301", 80, 7, 3},
      {"e\u0301te\u0301", 1, 3, 1},  // a mark goes with its letter
      {"\U0001F4BE a", 80, 6, 4},
      {"\xFFx", 80, 2, 2},
      {"\xE5\xA4", 80, 2, 2},
  };
  for (const auto& c : kCases) {
    const platform::TextFit fit = platform::FitText(c.text, c.room);
    EXPECT_EQ(fit.bytes, c.bytes) << c.text << " in " << c.room;
    EXPECT_EQ(fit.columns, c.columns) << c.text << " in " << c.room;
  }
  EXPECT_EQ(platform::FitText("夜間").columns, 4u);
}

}  // namespace
