// platform/testing/kill_switch.h: for tests: a program of ours ends by SIGKILL at its nth platform call.
//
// A test makes a switch and starts the program with the variable QX_KILL_AT_CALL naming the switch's file. From Arm()
// on the program counts its platform calls, those of fault_point.h, on all threads, and kills itself in front of the
// nth, so that a kill falls between any two of them. Test and program share the file's one page, so the test may arm it
// at the very moment that it wants counted, also more than once. Only programs built with QX_FAULT_SEAM know the
// variable. Threads: a switch from one thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace platform {

inline constexpr char kKillVariable[] = "QX_KILL_AT_CALL";

// What lies in the shared file.
struct KillPage {
  std::atomic<std::uint32_t> armed;
  std::atomic<std::uint32_t> killAt;  // 0 kills never
  std::atomic<std::uint32_t> calls;
  std::atomic<std::uint32_t> last;  // the operation of the last counted call
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

class KillSwitch {
 public:
  // Makes the file, or empties it. IsReady() is false when that failed.
  explicit KillSwitch(const std::string& file);
  KillSwitch(const KillSwitch&) = delete;
  KillSwitch& operator=(const KillSwitch&) = delete;
  ~KillSwitch();

  [[nodiscard]] bool IsReady() const { return m_page != nullptr; }
  // The assignment that the program gets.
  [[nodiscard]] std::string Variable() const { return std::string(kKillVariable) + "=" + m_file; }
  // Counts anew; the call with this number (from 1) isn't made any more. 0 only counts.
  void Arm(std::uint32_t killAt);
  void Disarm();
  // Calls counted since Arm(), the one that killed included.
  [[nodiscard]] std::uint32_t Calls() const;
  // The operation of the last of them, for messages.
  [[nodiscard]] std::string LastOperation() const;

 private:
  std::string m_file;
  KillPage* m_page = nullptr;
};

namespace detail {
// Called for each platform call of a program that was started with the variable.
void CountForKillSwitch(std::uint16_t operation);
}  // namespace detail

}  // namespace platform
