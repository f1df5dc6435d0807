// foundation/include/zfcdbg.h: the debugstream, the trace of the schedule rules library and its persistence.
//
// Writes nothing unless the registry configures it, under "HKLM\Software\brelmont\debugstream\debugstream":
//   "logFilePath"        string, empty: path of the trace file; without one no file is ever opened
//   "logFileFilterFlag"  double word, 0: bit 0 the short header, bit level + 1 enables a level
//   "LogFileSize"        double word, 0: size in KiB from which the file is set aside; at 0 after every record
// A record begins at DebugTrace() and ends at the marker "@@@", written by itself: a text that ends in the marker is
// dropped whole.
// Threads: any. Each thread formats on a stream of its own over one shared buffer: headers of two threads follow one
// another, all other parts of records that they write at the same moment may alternate.
#pragma once

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string_view>

#include "foundation/include/zfcexport.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

inline constexpr std::uint16_t kTraceError = 0;
inline constexpr std::uint16_t kTraceWarning = 1;
inline constexpr std::uint16_t kTraceInform = 2;
inline constexpr std::uint16_t kTraceDebug = 3;
inline constexpr std::uint32_t kTraceArea = 4;  // the only area; has no effect

namespace detail {
extern std::atomic<std::uint32_t> g_traceFlags;  // m_filterFlags of the configured stream, 0 before
}

// Whether a trace statement of this level writes anything. One relaxed load.
[[nodiscard]] inline bool DebugTraceEnabled(std::uint16_t level) {
  return level < 31 && (detail::g_traceFlags.load(std::memory_order_relaxed) >> (level + 1) & 1u) != 0;
}

// Reads the configuration; the first call counts. A program calls it once its registry store is open; a direct call of
// DebugTrace() does it too, a QX_TRACE statement doesn't.
void ConfigureDebugTrace();

// Begins a record: writes its header to the calling thread's stream, or puts the stream into a failed state when the
// level isn't enabled, so that the whole statement does nothing.
//   area   kTraceArea
//   file   source file name; null or a line of 0 leaves both out
//   returns  the thread's stream, valid to the end of the thread
std::ostream& DebugTrace(std::uint32_t area, std::uint16_t level, const char* file, std::uint32_t line);

// The place of a statement, for a helper that traces in its caller's: as a default argument, Current() is where the
// call stands.
struct TracePlace {
  const char* file;
  std::uint32_t line;

  static constexpr TracePlace Current(const char* file = __builtin_FILE(), std::uint32_t line = __builtin_LINE()) {
    return {file, line};
  }
};

// What takes the records in place of the file while it is installed; every level is enabled then.
class DebugTraceSink {
 public:
  virtual ~DebugTraceSink() = default;
  //   text  the statement without header, "SS ", final newline and marker
  virtual void Write(std::uint16_t level, std::string_view text) = 0;
};
// Installs a sink for the whole process, null for the file; returns the one before. The caller keeps ownership and
// takes the sink out before it goes. Write() is called on the thread that traces, at a statement's end. For tests.
DebugTraceSink* SetDebugTraceSink(DebugTraceSink* sink);
// For tests: back to the state before ConfigureDebugTrace(); what is pending is dropped.
void ResetDebugTrace();

}  // namespace ZepFoundation

// One trace statement. `expression` is the message's parts with << between them; evaluated only when `level` is
// enabled.
#define QX_TRACE(level, expression) QX_TRACE_AT(level, __FILE__, __LINE__, expression)

// The same with the file and line of a TracePlace.
#define QX_TRACE_AT(level, file, line, expression)                                             \
  do {                                                                                         \
    if (::ZepFoundation::DebugTraceEnabled(level))                                             \
      ::ZepFoundation::DebugTrace(::ZepFoundation::kTraceArea, (level), (file), (line))        \
          << "SS " << expression << '\n' << std::flush << "@@@";                               \
  } while (false)
