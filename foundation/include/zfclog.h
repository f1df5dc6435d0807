// foundation/include/zfclog.h: the service log, a plain text file of dated lines.
//
// Written by all code of the service proper; the schedule rules library writes the trace of zfcdbg.h instead. A line
// reads "Thu Jan  1 00:00:00 1970 (PID:   42, TID:   43): text" and ends in "\r\n". Three files of 1 MiB form a ring.
// No handle is open between calls: the file is opened, locked by one byte, written and closed for every line.
// Threads: every function may be called from any thread. The byte lock alone orders the writers, also those of other
// processes; rotation runs unlocked, and two threads may rotate one behind the other.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "foundation/include/zfcexport.h"
#include "foundation/include/zfclogformat.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

inline constexpr std::size_t kServiceLogPathSize = 260;           // bytes of the path, its final NUL included
inline constexpr std::int64_t kServiceLogRotationSize = 1048576;  // bytes; from here on the next file is taken
inline constexpr std::uint32_t kServiceLogFileCount = 3;          // SchedService0.log to SchedService2.log
inline constexpr std::size_t kServiceLogTextSize = 1024;          // units of the first expansion, bytes of the second
inline constexpr std::uint32_t kServiceLogDefaultLevel = 3;       // without a value "TraceLevel"
inline constexpr std::size_t kForLogBytes = 300;                  // greatest size of ForLog()'s result, in bytes

// The greatest level written; 0 before InitServiceLog() succeeded.
extern std::atomic<std::uint32_t> ServiceLogLevel;
// Number of the current file, 0 to 2.
extern std::atomic<std::uint32_t> ServiceLogIndex;
// Copies of the current file's path and of the line part written last.
[[nodiscard]] std::string ServiceLogPath();
[[nodiscard]] std::string ServiceLogLine();

// Takes the log's directory and level from the registry: "INSTALLDIR" (which ends in a backslash) and "TraceLevel".
//   returns  1; 0 when the install key can't be opened or the path takes kServiceLogPathSize bytes or more: the level
//            stays 0 and the path empty
int InitServiceLog();

// Writes one line if `level` is at most ServiceLogLevel. Never fails visibly, except that a file which can't be opened
// puts "Could not create the log file.\n" on standard output.
// The text is expanded twice: what looks like a conversion after the first time is expanded over the same arguments
// again. Text from a client, a peer or a file therefore goes through ForLog(). A first expansion of more than 1023
// units or bytes is dropped; a second one of more than 1024 bytes leaves the line's header in the file and the byte
// locked until the process ends.
//   format  wide text, %s for wide and %S for narrow arguments (zfclogformat.h)
void ServiceLogArguments(std::uint32_t level, const char16_t* format, std::span<const LogArgument> arguments);

template <class... A>
void ServiceLog(std::uint32_t level, const char16_t* format, const A&... args) {
  if constexpr (sizeof...(A) == 0) {
    ServiceLogArguments(level, format, {});
  } else {
    const LogArgument list[] = {LogArgument(args)...};
    ServiceLogArguments(level, format, list);
  }
}

// Makes text from outside fit for an argument of ServiceLog(): a control character becomes a blank, "%" and what the
// system code page writes as "%" is doubled, the end cut to kForLogBytes in that page; neither a doubled "%" nor a
// surrogate pair is cut apart.
[[nodiscard]] std::u16string ForLog(std::u16string_view text);

// What takes the lines in place of the file while it is installed.
class ServiceLogWriter {
 public:
  virtual ~ServiceLogWriter() = default;
  // A call of ServiceLog() of any level, filtered or not.
  //   text  after both expansions, in the system code page, without header and line end; empty where the file would
  //         get a header alone
  // Called on the thread that logs; may not log itself.
  virtual void Write(std::uint32_t level, std::string_view text) = 0;
};
// Installs a writer for the whole process, null for the file; returns the one before. The caller keeps ownership and
// takes the writer out before it goes. Programs other than the service and tests install NullServiceLogWriter().
ServiceLogWriter* SetServiceLogWriter(ServiceLogWriter* writer);
// A writer that drops every line; lives to the end of the process.
[[nodiscard]] ServiceLogWriter* NullServiceLogWriter();

// For tests: back to the state before InitServiceLog(); closes what calls left open, byte locks included.
void ResetServiceLog();

}  // namespace ZepFoundation
