#include "platform/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace platform {
namespace {

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

}  // namespace platform
