#include "client/cli_output.h"

#include <ostream>

#include "client/output_lock.h"
#include "client/terminal_text.h"
#include "platform/error_codes.h"

namespace qx {
namespace {

const char* ColourSequence(Colour colour) {
  switch (colour) {
    case Colour::kRed:
      return "\033[31m";
    case Colour::kYellow:
      return "\033[33m";
    case Colour::kGreen:
      return "\033[32m";
    case Colour::kBold:
      return "\033[1m";
    case Colour::kPlain:
      break;
  }
  return "";
}

void WriteLine(CliContext& context, const std::string& line) {
  const platform::MutexLock hold(OutputLock());
  context.err << line << "\n" << std::flush;
}

}  // namespace

platform::Mutex& OutputLock() {
  static auto* const lock = new platform::Mutex;  // an interrupt may end the process while a thread writes
  return *lock;
}

void BeginPaged(CliContext& context) {
  if (context.startPager && !context.options.noPager && !context.options.json) context.startPager();
}

std::string Paint(bool on, Colour colour, std::string_view text) {
  if (!on || colour == Colour::kPlain) return std::string(text);
  return ColourSequence(colour) + std::string(text) + "\033[0m";
}

void PrintError(CliContext& context, std::string_view text) {
  WriteLine(context, Paint(context.colourErr, Colour::kRed, "qxsched:") + " " + Printable(text));
}

void PrintNote(CliContext& context, std::string_view text) {
  if (!context.options.quiet) WriteLine(context, "qxsched: " + Printable(text));
}

void KeepMadeId(CliContext& context, std::string_view id) {
  if (!context.out.flush()) PrintError(context, "created: " + std::string(id));
}

void PrintHint(CliContext& context, std::string_view text) {
  if (!text.empty()) PrintNote(context, "hint: " + std::string(text));
}

void PrintFinding(CliContext& context, std::string_view file, const Finding& finding) {
  const bool warns = finding.severity == Severity::kWarning;
  if (warns && context.options.quiet) return;
  WriteLine(context, Paint(context.colourErr, warns ? Colour::kYellow : Colour::kRed, "qxsched:") + " " +
                         FormatFinding(file, finding));
}

std::size_t AppendShortened(std::string& out, std::string_view text, std::size_t width) {
  if (const platform::TextFit whole = platform::FitText(text, width); whole.bytes == text.size()) {
    out.append(text);
    return whole.columns;
  }
  const platform::TextFit kept = platform::FitText(text, width - 1);
  out.append(text.substr(0, kept.bytes)).append("…");
  return kept.columns + 1;
}

int ExitCodeOf(Status status) {
  switch (status) {
    case kStatusOk:
      return kExitDone;
    case kStatusRulesInvalid:
    case kStatusNoRunDay:
    case kStatusDateOverlap:
    case kStatusRestartTooLong:
    case kStatusBackdated:
      return kExitRulesRefused;
    case kStatusNoSuchKey:
    case kStatusNotFoundForDelete:
    case kStatusRegistryRead:
      return kExitNotFound;
    case 0x80070000 | platform::ERROR_ACCESS_DENIED:
      return kExitPermission;
    default:
      return kExitFailed;
  }
}

}  // namespace qx
