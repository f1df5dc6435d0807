#include "platform/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace platform {
namespace {

// The value of a variable that names a directory; empty for none.
std::string DirectoryVariable(const char* name) {
  const char* value = std::getenv(name);
  std::string directory = value ? value : "";
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  return directory;
}

int DescriptorOf(StandardStream stream) {
  switch (stream) {
    case StandardStream::kInput:
      return STDIN_FILENO;
    case StandardStream::kOutput:
      return STDOUT_FILENO;
    case StandardStream::kError:
      return STDERR_FILENO;
  }
  return -1;
}

}  // namespace

bool IsTerminal(StandardStream stream) { return ::isatty(DescriptorOf(stream)) == 1; }

std::size_t TerminalColumns(StandardStream stream) {
  winsize size = {};
  return IsTerminal(stream) && ::ioctl(DescriptorOf(stream), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

bool IsRootUser() { return ::geteuid() == 0; }

std::string UserStateHome() {
  if (std::string state = DirectoryVariable("XDG_STATE_HOME"); !state.empty()) return state;
  if (const std::string home = DirectoryVariable("HOME"); !home.empty()) return home + "/.local/state";
  return "";
}

std::string DefaultStateDirectory() {
  if (std::string root = DirectoryVariable("QXSVC_ROOT"); !root.empty()) return root;
  return HostStateDirectory();
}

std::string HostStateDirectory() {
  if (IsRootUser()) return std::string(kSystemStateDirectory);
  const std::string home = UserStateHome();
  return home.empty() ? "" : home + "/qxsvc";
}

}  // namespace platform
