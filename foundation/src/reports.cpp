// foundation/src/reports.cpp
#include "foundation/include/zfcreport.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "foundation/include/zfcabsolutepath.h"
#include "foundation/include/zfcconfig.h"
#include "foundation/include/zfcsync.h"
#include "platform/debug_output.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/library.h"
#include "platform/stack_trace.h"
#include "platform/text.h"
#include "platform/thread_annotations.h"

namespace ZepFoundation {
namespace {

using platform::ERROR_SUCCESS;

constexpr char16_t kAssertionTitle[] = u"KORVANE ZepFCL Classes Assertion";
constexpr char16_t kMessageLibraries[] = u"Client Exec\\ErrorStr";
constexpr char kMessageEntry[] = "ZepMessageText";
constexpr const char16_t* kSymbolVariables[] = {u"_NT_SYMBOL_PATH", u"_NT_ALTERNATE_SYMBOL_PATH", u"SYSTEMROOT"};

struct StatusName {
  std::uint32_t code;  // as published (ntstatus.h)
  const char* name;
};
constexpr StatusName kStatusNames[] = {
    {0xC0000005, "ACCESS_VIOLATION"},   {0x80000002, "DATATYPE_MISALIGNMENT"}, {0x80000003, "BREAKPOINT"},
    {0x80000004, "SINGLE_STEP"},        {0xC000008C, "ARRAY_BOUNDS_EXCEEDED"}, {0xC000008D, "FLT_DENORMAL_OPERAND"},
    {0xC000008E, "FLT_DIVIDE_BY_ZERO"}, {0xC000008F, "FLT_INEXACT_RESULT"},    {0xC0000090, "FLT_INVALID_OPERATION"},
    {0xC0000091, "FLT_OVERFLOW"},       {0xC0000092, "FLT_STACK_CHECK"},       {0xC0000093, "FLT_UNDERFLOW"},
    {0xC0000094, "INT_DIVIDE_BY_ZERO"}, {0xC0000095, "INT_OVERFLOW"},          {0xC0000096, "PRIV_INSTRUCTION"},
    {0xC0000006, "IN_PAGE_ERROR"},      {0xC000001D, "ILLEGAL_INSTRUCTION"},   {0xC0000025, "NONCONTINUABLE_EXCEPTION"},
    {0xC00000FD, "STACK_OVERFLOW"},     {0xC0000026, "INVALID_DISPOSITION"},   {0x80000001, "GUARD_PAGE"},
    {0xC0000008, "INVALID_HANDLE"},
};

template <class... Numbers>
std::string Format(const char* format, Numbers... numbers) {
  char text[96];
  (void)std::snprintf(text, sizeof text, format, numbers...);
  return text;
}

std::string StatusText(std::uint32_t code) {
  const auto* row = std::find_if(std::begin(kStatusNames), std::end(kStatusNames),
                                 [&](const StatusName& status) { return status.code == code; });
  if (row != std::end(kStatusNames)) return row->name;
  return platform::SystemFromWide(platform::SystemErrorText(code));
}

std::string Place(std::uintptr_t address, const char* format) {
  const platform::CodePlace place = platform::PlaceOf(address);
  return Format(format, place.section, place.offset) + ' ' + place.module + '\n';
}

struct ReportFile {
  CZepOSCriticalSection lock;
  wcstring name QX_GUARDED_BY(lock);
};
ReportFile& TheReportFile() {
  static auto* const file = new ReportFile;
  return *file;
}

// The libraries that the registry lists for error texts, by name.
std::vector<wcstring> MessageLibraries() {
  CConfigInfo& config = CConfigInfo::Instance();
  const CPath base(kMessageLibraries);
  std::vector<wcstring> names;
  wcstring name;
  CConfigInfo::ValueType type = CConfigInfo::kNone;
  for (unsigned char more = config.StepSystemValue(base, name, type); more != 0;
       more = config.StepSystemValue(name, type)) {
    if (type == CConfigInfo::kString) names.push_back(name);
  }
  std::vector<wcstring> libraries;
  for (const wcstring& value : names) {
    CPath path = base;
    path += CPathElement(value);
    wcstring library;
    if (config.GetSystemValue(path, library) != 0) libraries.push_back(library);
  }
  return libraries;
}

std::optional<wcstring> MessageOf(const wcstring& path, std::uint32_t code) {
  platform::Library library;
  const char16_t* (*entry)(std::uint32_t) = nullptr;
  if (platform::Library::Load(path.view(), library) != ERROR_SUCCESS ||
      library.FindFunction(kMessageEntry, entry) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  const char16_t* const text = entry(code);
  return text == nullptr ? std::nullopt : std::optional<wcstring>(text);
}

std::optional<wcstring> SystemMessage(std::uint32_t code) {
  const std::u16string text = platform::SystemErrorText(code);
  if (!text.empty()) return wcstring(text);
  for (const wcstring& library : MessageLibraries()) {
    if (std::optional<wcstring> message = MessageOf(library, code)) return message;
  }
  return std::nullopt;
}

void Assert(const char* file, int line, const char16_t* message, const std::uint32_t* error) {
  const char* const source = file != nullptr ? file : "";
  CErrorReport report(kAssertionTitle, message, wcstring(cstring(source)));
  report.Title().Print(report);
  report << '\n';
  report.Message().Print(report);
  report << '\n' << source << ": line " << std::dec << line << '\n';
  if (error != nullptr) PrintSystemError(u"", *error, report);
  CStackWalk::PrintStack(report);
  (void)report.Deliver();  // a report that can't be kept stops nothing
}

}  // namespace

// --- CErrorReport ---

CErrorReport::CErrorReport(const wcstring& title, const wcstring& message, const wcstring& source)
    : m_title(title), m_message(message), m_source(source) {
  const wcstring file = ReportFileName();
  if (file.empty()) return;
  *this << "Report file at ";
  file.Print(*this);
  *this << '\n' << std::flush;
}

bool CErrorReport::Deliver() const {
  const std::string text = str();
  platform::DebugOutput(text);
  ReportFile& report = TheReportFile();
  const CZepGateKeeper hold(report.lock);  // also keeps reports of several threads apart in the file
  if (report.name.empty()) return true;
  platform::File file;
  return file.Open(platform::NativePath(report.name.view()), platform::File::Access::kWrite,
                   platform::File::Disposition::kOpenAlways) == ERROR_SUCCESS &&
         file.SeekToEnd() == ERROR_SUCCESS && file.WriteAll(text) == ERROR_SUCCESS;
}

void CErrorReport::SetReportFileName(const wcstring& name) {
  ReportFile& report = TheReportFile();
  const CZepGateKeeper hold(report.lock);
  report.name = name;
}

wcstring CErrorReport::ReportFileName() {
  ReportFile& report = TheReportFile();
  const CZepGateKeeper hold(report.lock);
  return report.name;
}

// --- assertions and error texts ---

void ZFCDBG_Assert(const char* file, int line, const char16_t* message) {
  Assert(file, line, message, nullptr);
}

void ZFCDBG_Assert(const char* file, int line, const char16_t* message, std::uint32_t error) {
  Assert(file, line, message, &error);
}

void PrintSystemError(const char16_t* text, unsigned int code, std::ostream& stream) {
  wcstring(text).Print(stream);
  if (const std::optional<wcstring> message = SystemMessage(code)) {
    message->Print(stream);
  } else {
    stream << "Could not format message: " << std::to_string(code);
  }
  stream << '\n';
}

// --- CStackWalk ---

void CStackWalk::GenerateExceptionReport(EXCEPTION_POINTERS* exception, std::ostream& stream) {
  if (exception == nullptr || exception->ExceptionRecord == nullptr) return;
  const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
  const auto address = reinterpret_cast<std::uintptr_t>(record.ExceptionAddress);
  stream << "//=====================================================\n"
         << Format("Exception code: %08" PRIX32 " ", record.ExceptionCode) << StatusText(record.ExceptionCode) << '\n'
         << Format("Fault address:  %08" PRIXPTR " ", address) << Place(address, "%02" PRIX32 ":%08" PRIXPTR);
  PrintStack(stream);
  stream << '\n';
}

void CStackWalk::PrintStack(std::ostream& stream) {
  platform::Library symbols;
  const bool hasSymbols = platform::Library::OpenProgram(symbols) == ERROR_SUCCESS;
  if (!hasSymbols) {
    platform::DebugOutput("IMAGEHLP.DLL or its exported procs not found");
    stream << "Address   Frame     Logical addr  Module\n";
  }
  for (const platform::StackFrame& frame : platform::CaptureStack()) {
    stream << Format("%08" PRIXPTR "  %08" PRIXPTR "  ", frame.address, frame.frame);
    platform::CodeSymbol symbol;
    if (hasSymbols && platform::SymbolOf(frame.address, symbol) == ERROR_SUCCESS) {
      stream << symbol.name << Format("+%" PRIXPTR "\n", symbol.offset);
      continue;
    }
    if (hasSymbols) stream << "Could not find symbol ";
    stream << Place(frame.address, "%04" PRIX32 ":%08" PRIXPTR);
  }
}

wcstring CStackWalk::SymbolPath() {
  std::u16string program;
  (void)platform::ProgramFilePath(program);
  CAbsolutePath directory{wcstring(program)};
  (void)directory.Lop(1);
  wcstring path = directory.Text() + u";.";
  for (const char16_t* variable : kSymbolVariables) {
    if (const auto value = platform::EnvironmentVariable(variable)) path = path + u';' + wcstring(*value);
  }
  return path;
}

}  // namespace ZepFoundation
