// platform/testing/fault.h: for tests: the nth call of an operation fails with a code, once or from then on.
//
// At most one plan is installed at a time; it counts calls from its installation. Threads: install and remove on the
// test's thread; calls of any thread are counted.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/fault_point.h"

namespace platform {

enum class FaultMode { kOnce, kFromThenOn };
inline constexpr FaultMode kOnce = FaultMode::kOnce;
inline constexpr FaultMode kFromThenOn = FaultMode::kFromThenOn;

// Installed for its lifetime, or until Remove().
class FaultPlan {
 public:
  // Fails call number n (from 1) of `operation`; with a detail only calls on exactly that detail are counted.
  [[nodiscard]] static FaultPlan FailCall(Operation operation, int n, ErrorCode code, FaultMode mode = kOnce,
                                          std::string_view detail = {});
  // Fails call number n (from 1) of any operation.
  [[nodiscard]] static FaultPlan FailAnyCall(int n, ErrorCode code, FaultMode mode = kOnce);
  // Asks `answer` at every call, with its number (from 1), and fails the call with what it returns unless that is 0.
  // It is asked on the calling thread, one call at a time, and must make no platform call itself.
  using Answer = std::function<ErrorCode(int call, Operation operation, std::string_view detail)>;
  [[nodiscard]] static FaultPlan Ask(Answer answer);
  // Fails nothing and counts every call.
  [[nodiscard]] static FaultPlan CountOnly();

  FaultPlan(FaultPlan&& other) noexcept;
  FaultPlan& operator=(FaultPlan&&) = delete;
  FaultPlan(const FaultPlan&) = delete;
  FaultPlan& operator=(const FaultPlan&) = delete;
  ~FaultPlan();

  // Takes the plan out; hits() and calls() keep their last values.
  void Remove();
  // How many calls failed by this plan.
  [[nodiscard]] int hits() const;
  // How many calls were counted.
  [[nodiscard]] int calls() const;

 private:
  FaultPlan();
  bool m_installed;
  int m_hits = 0;
  int m_calls = 0;
};

}  // namespace platform
