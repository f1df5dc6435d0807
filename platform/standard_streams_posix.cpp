#include "platform/standard_streams.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace platform {

void FillStandardStreams() {
  // The lowest free number is given each time: one behind the three says that none of them is free.
  int opened = 0;
  while (opened >= 0 && opened <= STDERR_FILENO) opened = ::open("/dev/null", O_RDWR);
  if (opened > STDERR_FILENO) ::close(opened);
}

void LetWritesFail() {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  for (const int number : {SIGPIPE, SIGXFSZ}) (void)::sigaction(number, &ignore, nullptr);
}

}  // namespace platform
