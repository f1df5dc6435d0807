// The job of the launch figures: writes the moment of its start, in nanoseconds since 1970, into a pipe.
//
// usage: qx_stamp [WORD...] PIPE
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (argc < 2) return 2;
  char line[32];
  const int length = std::snprintf(line, sizeof line, "%lld\n", 1'000'000'000LL * now.tv_sec + now.tv_nsec);
  const int pipe = open(argv[argc - 1], O_WRONLY | O_CLOEXEC);
  return pipe >= 0 && write(pipe, line, static_cast<std::size_t>(length)) == length ? 0 : 1;
}
