#include "platform/standard_streams.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <initializer_list>

namespace platform {

void FillStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) >= 0) continue;
    // Gets the lowest free number, which is this one.
    (void)!::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

void LetWritesFail() {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  for (const int number : {SIGPIPE, SIGXFSZ}) (void)::sigaction(number, &ignore, nullptr);
}

}  // namespace platform
