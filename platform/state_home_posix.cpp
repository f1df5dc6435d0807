#include "platform/state_home.h"

#include <cstdlib>

#include "platform/host.h"

namespace platform {
namespace {

// The value of a variable that names a directory; empty for none.
std::string DirectoryVariable(const char* name) {
  const char* value = std::getenv(name);
  std::string directory = value ? value : "";
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  return directory;
}

}  // namespace

std::string UserStateHome() {
  if (std::string state = DirectoryVariable("XDG_STATE_HOME"); state.starts_with('/')) return state;
  if (const std::string home = DirectoryVariable("HOME"); !home.empty()) return home + "/.local/state";
  return "";
}

std::string DefaultStateDirectory() {
  if (std::string root = DirectoryVariable("QXSVC_ROOT"); !root.empty()) return root;
  return HostStateDirectory();
}

std::string HostStateDirectory() {
  if (RunsAsRoot()) return std::string(kSystemStateDirectory);
  const std::string home = UserStateHome();
  return home.empty() ? "" : home + "/qxsvc";
}

}  // namespace platform
