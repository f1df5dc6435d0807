#include "platform/state_home.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace {

// A variable for a scope; nothing: unset.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : m_name(name) {
    if (const char* before = std::getenv(name)) m_before = before;
    Set(value);
  }
  ~ScopedVariable() { Set(m_before ? m_before->c_str() : nullptr); }

 private:
  void Set(const char* value) {
    if (value) {
      ::setenv(m_name, value, 1);
    } else {
      ::unsetenv(m_name);
    }
  }
  const char* m_name;
  std::optional<std::string> m_before;
};

TEST(DefaultStateDirectory, IsTheOneOfTheVariableWithoutASeparatorAtItsEnd) {
  const ScopedVariable root("QXSVC_ROOT", "/srv/state//");
  EXPECT_EQ(platform::DefaultStateDirectory(), "/srv/state");
}

TEST(DefaultStateDirectory, DependsOnTheAccountOtherwise) {
  const ScopedVariable root("QXSVC_ROOT", "");
  const ScopedVariable home("HOME", "/home/somebody");
  const bool administrator = ::geteuid() == 0;
  {
    const ScopedVariable state("XDG_STATE_HOME", "/home/somebody/state/");
    EXPECT_EQ(platform::DefaultStateDirectory(), administrator ? "/var/lib/qxsvc" : "/home/somebody/state/qxsvc");
  }
  const ScopedVariable state("XDG_STATE_HOME", nullptr);
  EXPECT_EQ(platform::DefaultStateDirectory(), administrator ? "/var/lib/qxsvc" : "/home/somebody/.local/state/qxsvc");
}

TEST(UserStateHome, TakesNoRelativeNameWhichWouldDependOnTheDirectoryOfTheCaller) {
  const ScopedVariable home("HOME", "/home/somebody");
  for (const char* name : {"state", "./state", "../state", "~/state"}) {
    const ScopedVariable state("XDG_STATE_HOME", name);
    EXPECT_EQ(platform::UserStateHome(), "/home/somebody/.local/state") << name;
  }
  const ScopedVariable state("XDG_STATE_HOME", "/home/somebody/state");
  EXPECT_EQ(platform::UserStateHome(), "/home/somebody/state");
}

}  // namespace
