// The job of the soak: appends one line to a file: the schedule's ID, the tag, and the moment of its start in
// microseconds since 1970.
//
// usage: soak_job {ID} [WORD...] FILE TAG [Post=SCRIPT]
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (argc > 1 && std::strncmp(argv[argc - 1], "Post=", 5) == 0) --argc;
  if (argc < 4) return 2;
  char line[256];
  const int length = std::snprintf(line, sizeof line, "%.64s %.64s %lld\n", argv[1], argv[argc - 1],
                                   1'000'000LL * now.tv_sec + now.tv_nsec / 1000);
  const int file = open(argv[argc - 2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  return file >= 0 && write(file, line, static_cast<std::size_t>(length)) == length ? 0 : 1;
}
