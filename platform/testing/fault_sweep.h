// platform/testing/fault_sweep.h: for tests: every platform call of an operation fails, one after the other, once and
// from then on.
//
// The operation runs untouched to see its calls, then once for each of them with each code that such a call may well
// fail with, in both modes. Each time a judge looks at what it left. The numbers are printed as a row of a table,
// "swept | name | calls | faults |", and recorded as the test's properties.
// Threads: one sweep at a time, on the test's thread.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/testing/fault.h"

namespace platform {

struct SweptFault {
  int call = 0;  // from 1
  Operation operation = Operation::kCount;
  std::string detail;
  ErrorCode code = ERROR_SUCCESS;
  FaultMode mode = kOnce;
};
inline std::ostream& operator<<(std::ostream& out, const SweptFault& fault) {
  return out << "call " << fault.call << ", " << OperationName(fault.operation) << "(" << fault.detail
             << ") fails with " << fault.code << (fault.mode == kOnce ? " once" : " from then on");
}

// The codes that a call may well fail with; none for one that can't.
inline std::vector<ErrorCode> FittingCodes(Operation operation) {
  using enum Operation;
  switch (operation) {
    case kAllocate:
    case kArrayCreate:
    case kArrayAccessData:
    case kGetRecordInfo:
    case kCreateEvent:
    case kCreateThread:
    case kXmlCreate:
      return {ERROR_NOT_ENOUGH_MEMORY};
    case kRegSetValue:
    case kRegCreateKey:
    case kRegDeleteKey:
    case kRegDeleteValue:
    case kRegCloseKey:
      return {ERROR_DISK_FULL, ERROR_REGISTRY_IO_FAILED};
    case kRegOpenKey:
    case kRegQueryInfoKey:
    case kRegQueryValue:
    case kRegEnumKey:
    case kRegEnumValue:
      return {ERROR_ACCESS_DENIED, ERROR_REGISTRY_CORRUPT};
    case kWriteProfileString:
    case kCommitProfiles:
    case kWriteFile:
    case kSyncFile:
      return {ERROR_DISK_FULL, ERROR_IO_DEVICE};
    case kCreateFile:
      return {ERROR_TOO_MANY_OPEN_FILES, ERROR_ACCESS_DENIED};
    case kCreateProcess:
      return {ERROR_FILE_NOT_FOUND, ERROR_NO_PROC_SLOTS};
    case kConvertText:
      return {};  // only a strict conversion asks, and nobody wants one who didn't have a text of his own
    default:
      return {ERROR_ACCESS_DENIED};
  }
}

inline int OpenDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

struct FaultSweep {
  std::string name;
  std::function<void()> prepare;  // ahead of each run, with no fault in force
  std::function<void()> operation;
  // Behind each run, with no fault in force; null behind the untouched one.
  std::function<void(const SweptFault* fault)> judge;
  std::function<std::vector<ErrorCode>(Operation)> codes = &FittingCodes;
  // Which calls are the operation's own, where others are made meanwhile; all of them when it is empty. It is asked on
  // the calling thread.
  std::function<bool(Operation operation)> isOwn = {};
  bool callsNothing = false;  // there is nothing in it that could fail
  // What the own calls behind the fault are answered, where it is the only one; success without it.
  std::function<ErrorCode(const SweptFault& fault, Operation operation)> afterwards = {};
  // What else there is to say about a run that was judged bad.
  std::function<std::string()> explain = {};
  // Whether the nth call is the same one in every run. Where other threads take part it may not be.
  bool isSteady = true;
  bool countsDescriptors = true;
};

struct SweepNumbers {
  int calls = 0;
  int faults = 0;
  std::set<Operation> met;
};

namespace detail {

// Ends the program, naming the fault, when a run hangs.
class SweepWatchdog {
 public:
  explicit SweepWatchdog(const std::string& fault) {
    std::snprintf(Text(), kSize, "the sweep hangs: %s\n", fault.c_str());
    ::signal(SIGALRM, [](int) {
      const std::string_view text(Text());
      (void)!::write(STDERR_FILENO, text.data(), text.size());
      ::abort();
    });
    ::alarm(120);
  }
  SweepWatchdog(const SweepWatchdog&) = delete;
  SweepWatchdog& operator=(const SweepWatchdog&) = delete;
  ~SweepWatchdog() {
    ::alarm(0);
    ::signal(SIGALRM, SIG_DFL);
  }

 private:
  static constexpr std::size_t kSize = 512;
  static char* Text() {
    static char text[kSize];
    return text;
  }
};

}  // namespace detail

// Ends at the first fault that the judge, or the count of descriptors, is not content with.
inline SweepNumbers RunSweep(const FaultSweep& sweep) {
  SweepNumbers numbers;
  const auto failed = [] { return ::testing::Test::HasFailure(); };
  const auto isOwn = [&](Operation operation) { return !sweep.isOwn || sweep.isOwn(operation); };
  const auto run = [&](const std::string& what, const FaultPlan::Answer& answer) {
    if (sweep.prepare) sweep.prepare();
    if (failed()) return 0;
    const detail::SweepWatchdog watchdog(what);
    FaultPlan plan = FaultPlan::Ask(answer);
    sweep.operation();
    plan.Remove();
    return plan.hits();
  };

  // What is done once in a process is done behind the first run.
  (void)run("warm up", [](int, Operation, std::string_view) { return ErrorCode{ERROR_SUCCESS}; });
  std::vector<SweptFault> calls;
  (void)run("untouched", [&](int, Operation operation, std::string_view about) {
    if (isOwn(operation)) {
      calls.push_back({static_cast<int>(calls.size()) + 1, operation, std::string(about)});
    }
    return ErrorCode{ERROR_SUCCESS};
  });
  if (!failed()) sweep.judge(nullptr);
  const int descriptors = OpenDescriptors();
  numbers.calls = static_cast<int>(calls.size());
  if (failed()) {
    ADD_FAILURE() << sweep.name << ", untouched" << (sweep.explain ? "\n" + sweep.explain() : "");
    return numbers;
  }
  EXPECT_EQ(calls.empty(), sweep.callsNothing) << sweep.name;

  for (const FaultMode mode : {kOnce, kFromThenOn}) {
    for (const SweptFault& call : calls) {
      for (const ErrorCode code : sweep.codes(call.operation)) {
        SweptFault fault = call;
        fault.code = code;
        fault.mode = mode;
        std::ostringstream text;
        text << sweep.name << ": " << fault;
        int number = 0;
        const int hits = run(text.str(), [&](int, Operation operation, std::string_view) {
          if (!isOwn(operation)) return ErrorCode{ERROR_SUCCESS};
          ++number;
          if (number == fault.call && (sweep.isSteady || operation == fault.operation)) return fault.code;
          if (number <= fault.call) return ErrorCode{ERROR_SUCCESS};
          if (mode == kOnce) return sweep.afterwards ? sweep.afterwards(fault, operation) : ErrorCode{ERROR_SUCCESS};
          const std::vector<ErrorCode> codes = sweep.codes(operation);
          return codes.empty() ? ErrorCode{ERROR_SUCCESS} : codes.front();
        });
        if (sweep.isSteady) {
          EXPECT_GE(hits, 1) << "the call wasn't made";
        }
        if (!failed()) sweep.judge(&fault);
        if (sweep.countsDescriptors) {
          EXPECT_LE(OpenDescriptors(), descriptors) << "a descriptor is left open";
        }
        if (failed()) {
          ADD_FAILURE() << text.str() << (sweep.explain ? "\n" + sweep.explain() : "");
          return numbers;
        }
        numbers.faults += hits > 0;
        numbers.met.insert(fault.operation);
      }
    }
  }
  std::cout << "swept | " << sweep.name << " | " << numbers.calls << " | " << numbers.faults << " |\n";
  ::testing::Test::RecordProperty("calls", numbers.calls);
  ::testing::Test::RecordProperty("faults", numbers.faults);
  return numbers;
}

}  // namespace platform
