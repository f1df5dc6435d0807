// foundation/include/zfcreport.h: reports of assertions and exceptions, call stacks, and the system's error texts.
//
// Text on the streams is in the system code page. Addresses are written in at least 8 hexadecimal digits. Function
// names are those that the program and its libraries export, demangled; source lines aren't known.
// Threads: any; not for signal handlers. Nothing here stops the process.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <sstream>

#include "foundation/include/zfcexport.h"
#include "foundation/include/zfcstring.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

// A report while it is written: a stream with what it is about.
class CErrorReport : public std::ostringstream {
 public:
  // Writes "Report file at " and the report file's name as the first line, when one is set.
  CErrorReport(const wcstring& title, const wcstring& message, const wcstring& source);

  [[nodiscard]] const wcstring& Title() const { return m_title; }
  [[nodiscard]] const wcstring& Message() const { return m_message; }
  [[nodiscard]] const wcstring& Source() const { return m_source; }

  // Gives what was written to the debugger output (platform/debug_output.h) and appends it to the report file, when one
  // is set.
  //   returns  false when the file couldn't be written
  bool Deliver() const;

  // The report file of the process, a client's text of a path; empty, as in a new process, for none.
  static void SetReportFileName(const wcstring& name);
  [[nodiscard]] static wcstring ReportFileName();

 private:
  wcstring m_title;
  wcstring m_message;
  wcstring m_source;
};

// Delivers a report with the heading "KORVANE ZepFCL Classes Assertion", the message, the place and the calling
// thread's stack; with an error code also its text.
//   file, message  null counts as empty
void ZFCDBG_Assert(const char* file, int line, const char16_t* message);
void ZFCDBG_Assert(const char* file, int line, const char16_t* message, std::uint32_t error);

// Writes the text and the message for a system code, and a line end. A code that the system has no message for is
// looked up in the message libraries that the string values of "Client Exec\ErrorStr" below the product's system key
// name: each exports `extern "C" const char16_t* ZepMessageText(std::uint32_t code)`, which gives a NUL-terminated text
// that lives as long as the library is loaded, or null. Where none has it, "Could not format message:" and the code in
// decimal stand in its place.
// Uses CConfigInfo's enumeration by steps.
//   text  null counts as empty
void PrintSystemError(const char16_t* text, unsigned int code, std::ostream& stream);

// The published records of an exception (winnt.h), as far as they are read here.
struct EXCEPTION_RECORD {
  std::uint32_t ExceptionCode = 0;
  std::uint32_t ExceptionFlags = 0;
  EXCEPTION_RECORD* ExceptionRecord = nullptr;
  void* ExceptionAddress = nullptr;
};
struct EXCEPTION_POINTERS {
  EXCEPTION_RECORD* ExceptionRecord = nullptr;
  void* ContextRecord = nullptr;  // not read: the stack is that of the calling thread
};

class CStackWalk {  // the calls that led to a place
 public:
  // Writes a rule line, the exception's code and name (of a code that isn't a standard status, the system's text for
  // it), the fault address with section, offset and module, the calling thread's stack and an empty line.
  //   exception  null, or without a record: nothing is written
  static void GenerateExceptionReport(EXCEPTION_POINTERS* exception, std::ostream& stream);

  // Writes the calling thread's stack, innermost first, a line for each frame: address, frame, and the function with
  // the offset in it, or "Could not find symbol" with section, offset and module. Where the program's symbols can't be
  // opened the debugger output is told so, and section, offset and module stand in each line, under a heading.
  static void PrintStack(std::ostream& stream);

  // Where debug symbols are searched: the program's directory with ";." behind it, then the values of the environment
  // variables "_NT_SYMBOL_PATH", "_NT_ALTERNATE_SYMBOL_PATH" and "SYSTEMROOT", each when set, with ";" between them.
  [[nodiscard]] static wcstring SymbolPath();

  CStackWalk() = delete;
};

}  // namespace ZEP_FOUNDATION_API
