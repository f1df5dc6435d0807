// benchmarks/bench_service.h: a registered service of the bench's own on a private bus, and a state directory filled
// with schedules for it.
//
// Failures throw std::runtime_error: a figure without its fixture is none.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "client/scheduler_client.h"
#include "interface/records.h"
#include "platform/testing/private_bus.h"

namespace qx::bench {

inline constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

[[nodiscard]] std::int64_t WallNanoseconds();

// Starts words[0] by its path, in a session of its own where asked for: the kernel may give each session an equal part of
// the processors.
enum class Session { kSame, kNew };
pid_t Spawn(std::vector<std::string> words, Session session = Session::kSame);
[[nodiscard]] std::string ProgramBeside(const char* name);

// A schedule that runs once a day at the time of day of `second`, from that day on; its file lies in `directory`.
[[nodiscard]] SCHEDULE_OBJECT DailyAt(std::int64_t second, const std::string& directory, const std::string& command,
                                      const std::string& parameters = "");

// A directory of its own, a bus and a registered service with its client.
class Service {
 public:
  Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service();

  [[nodiscard]] const std::string& Directory() const { return m_directory; }
  [[nodiscard]] std::string Root() const { return m_directory + "/root"; }
  [[nodiscard]] std::string BusAddress() const { return m_bus.Address(); }
  [[nodiscard]] pid_t Process() const { return m_process; }
  [[nodiscard]] bool IsRunning() const { return m_process >= 0; }
  SchedulerClient& Client() { return m_client; }

  // Starts the program and returns when it has answered its first call: the milliseconds between.
  double Start();
  void Stop();

 private:
  std::string m_directory;
  platform::PrivateBus m_bus;
  SchedulerClient m_client;
  pid_t m_process = -1;
};

// Puts schedules like `schedule` into the state directory of a stopped service, each as the service itself would: a
// first one is created through it, the others are copies of its key and file under random IDs.
//   returns  the files, in the order of the IDs, which is that of their keys
std::vector<std::string> Fill(Service& service, int count, const SCHEDULE_OBJECT& schedule);

// Where jobs write the moment of their start, and this program reads it.
class StampPipe {
 public:
  explicit StampPipe(std::string path);
  StampPipe(const StampPipe&) = delete;
  StampPipe& operator=(const StampPipe&) = delete;
  ~StampPipe();
  [[nodiscard]] const std::string& Path() const { return m_path; }
  // To wait for a stamp with a limit.
  [[nodiscard]] int Descriptor() const { return m_descriptor; }
  // Waits for `count` stamps: the latest of them.
  [[nodiscard]] std::int64_t ReadLast(std::size_t count) const;
  // Waits for one stamp, the oldest that wasn't read.
  [[nodiscard]] std::int64_t ReadNext() const;

 private:
  std::string m_path;
  int m_descriptor;
};

}  // namespace qx::bench
